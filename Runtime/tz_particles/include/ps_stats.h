// Statistics records.
//
// A record prints itself in three forms: one line; a table, each row ended by a newline; one JSON object with a number
// per member. Each form writes to a buffer of the caller, which is always terminated (unless it has no byte), and
// returns what snprintf returns: the length of the whole text, whether or not it fitted. Printing requests no memory.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// The bytes of a memory user, by their use. A main-memory stream fills m_ParticleBytes only.
struct TZ_API SMediumMemoryReport
{
    u64 m_StaticBytes = 0;
    u64 m_StaticBytes_Declaration = 0; // part of m_StaticBytes
    u64 m_StaticBytes_Kernel = 0;      // part of m_StaticBytes
    u64 m_StaticBytes_IR = 0;          // part of m_StaticBytes
    u64 m_KernelBytes = 0;
    u64 m_SamplerBytes = 0;
    u64 m_SimResourceBytes = 0;
    u64 m_ParticleBytes = 0;
    u64 m_AuxiliaryBytes = 0;
    u64 m_GPUAttributesBytes = 0;
    u64 m_DebugBytes = 0;
    u64 m_DebugBytes_IR = 0; // part of m_DebugBytes
    u64 m_KernelDebugBytes = 0;
    u64 m_KernelStaticDebugBytes = 0;
    u64 m_KernelTimingBytes = 0;

    void Clear() { *this = SMediumMemoryReport(); } // sets all counters to 0
    u64 Total() const;                              // sum of the counters that are not part of another
    // Add counter by counter.
    SMediumMemoryReport &operator+=(const SMediumMemoryReport &other);
    SMediumMemoryReport operator+(const SMediumMemoryReport &other) const;
};

// A snapshot of how a stream's pages are used.
struct TZ_API SParticleStreamStats
{
    u32 m_PageCount = 0;
    u32 m_PageCount_OutOfSync = 0; // pages whose capacity is not the stream's page size
    u64 m_ParticleCount = 0;
    u64 m_SlotCount = 0;         // sum of the pages' capacities, in particles
    u64 m_LiveBytes = 0;         // column bytes of live particles
    u64 m_FreeBytes = 0;         // column bytes of free slots
    u64 m_PaddingBytes = 0;      // the rest of the raw blocks: rounding of columns and of block sizes
    u32 m_PagesByTenth[10] = {}; // pages by live particles: [0] below a tenth of the capacity, [9] nine tenths and more

    // Print the record. JSON members: pages, outOfSyncPages, particles, slots, liveBytes, freeBytes, paddingBytes, and
    // pagesByTenth, an array of ten.
    int Print(char *buffer, size_t bufferBytes) const;
    int PrintTable(char *buffer, size_t bufferBytes) const;
    int PrintJson(char *buffer, size_t bufferBytes) const;
};

} // namespace Tessaly
