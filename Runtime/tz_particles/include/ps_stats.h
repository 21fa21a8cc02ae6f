// Statistics records.
//
// Records that print themselves do it in three forms: one line; a table, each row ended by a newline; one JSON object
// with a number per member. Each writes to a buffer of the caller, always terminated (unless the buffer has no byte),
// and returns what snprintf returns: the length of the whole text, whether or not it fitted. No memory is asked for.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// Bytes used, shared by several kinds of memory users. A main-memory stream fills m_ParticleBytes only.
struct TZ_API SMediumMemoryReport
{
    // Bytes by their use.
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

    void Clear() { *this = SMediumMemoryReport(); } // all 0
    u64 Total() const; // the top-level counters; those that are parts of another are not added again
    // Adds counter by counter.
    SMediumMemoryReport &operator+=(const SMediumMemoryReport &other);
    SMediumMemoryReport operator+(const SMediumMemoryReport &other) const;
};

// How a stream's pages are used at one moment.
struct TZ_API SParticleStreamStats
{
    // Pages and particles.
    u32 m_PageCount = 0;
    u32 m_PageCount_OutOfSync = 0; // pages whose capacity is not the stream's page size
    u64 m_ParticleCount = 0;
    u64 m_SlotCount = 0;    // sum of the pages' capacities, in particles
    u64 m_LiveBytes = 0;    // column bytes of live particles
    u64 m_FreeBytes = 0;    // column bytes of free slots
    u64 m_PaddingBytes = 0; // the rest of the raw blocks: column rounding and what a block is larger than asked
    // Pages by how full they are: [0] is below a tenth, ..., [9] nine tenths and more.
    u32 m_PagesByTenth[10] = {};

    int Print(char *buffer, size_t bufferBytes) const;      // one line
    int PrintTable(char *buffer, size_t bufferBytes) const; // a row for each figure
    // Members pages, outOfSyncPages, particles, slots, liveBytes, freeBytes, paddingBytes, and pagesByTenth: an array
    // of ten.
    int PrintJson(char *buffer, size_t bufferBytes) const;
};

} // namespace Tessaly
