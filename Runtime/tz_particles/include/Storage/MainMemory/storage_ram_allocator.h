// The page allocator: raw byte blocks for pages, recycled by size class.
//
// Blocks of up to kMaxAllocSize bytes come in size classes, four to a doubling from kMinAllocSize on: rounding a size
// above that up wastes at most a fifth of the block. Larger blocks are made to measure and never pooled.
//
// A block whose raw page dies goes to a free list, last in first out. There is one a class in each of eight shards,
// which threads are dealt out to; a thread takes the newest block of its own shard, else the oldest of another, else
// one of an arena (storage_ram_arena.h). Blocks that nobody asked for during kMaxIdleUpdates calls of Update go back to
// their arenas, and their memory to the memory services. No memory service is called under a shard's lock. Any thread
// may call any operation but Setup and the destructor.
//
//   TotalMemoryAllocated() == sum of Size() over the raw pages that are alive
#pragma once

#include <mutex>

#include <tz_kernel/include/kr_threads_basics.h>

#include "storage_ram_raw_page.h"

namespace Tessaly
{

// A snapshot of a page allocator. Sizes in bytes.
struct TZ_API CParticlePageAllocator_Stats
{
    u64 m_BytesInUse = 0;    // in raw pages that are alive
    u64 m_BytesFree = 0;     // in blocks on free lists
    u64 m_BytesReserved = 0; // held from the memory services for blocks
    u64 m_BlocksInUse = 0;   // raw pages that are alive
    u64 m_BlocksFree = 0;    // on free lists
    u64 m_AllocCount = 0;    // blocks handed out since the start
    u64 m_RecycleCount = 0;  // of these, from a free list
    u64 m_RefusalCount = 0;  // requests refused by the budget or for want of memory

    // As the records of ps_stats.h print themselves. JSON members: bytesInUse, bytesFree, bytesReserved, blocksInUse,
    // blocksFree, allocations, recycled, refusals.
    int Print(char *buffer, size_t bufferBytes) const;
    int PrintTable(char *buffer, size_t bufferBytes) const;
    int PrintJson(char *buffer, size_t bufferBytes) const;
};

// The page allocator of a process; Particles::PageAllocator() gives it.
class TZ_API CParticlePageAllocator : public CNonCopyable
{
public:
    static constexpr u32 kPoolSlotCount = 64;     // size classes, at most
    static constexpr u32 kMinAllocSize = 512;     // bytes
    static constexpr u32 kMaxAllocSize = 1048576; // bytes; the largest block that is pooled, and the cap of a page
    static constexpr u32 kSlotsPerDoubling = 4;   // size classes from one power of two to the next
    static constexpr u32 kMaxIdleUpdates = 120;   // Update() calls that a free block survives

    CParticlePageAllocator() = default;
    // Requires that every raw page is dead (asserted).
    ~CParticlePageAllocator();

    // Makes the free lists; called once, before anything else. False when memory is refused.
    bool Setup();
    bool Valid() const { return m_Shards != null; } // Setup succeeded

    // A raw page of at least sizeInBytes bytes, aligned to 64, without readers; 0 gives a smallest block. When memory
    // or the budget is out, all free blocks are given back (CleanAllFreePages) before one more try; null when that
    // fails, too. AllocPage(p->Size())->Size() == p->Size().
    PParticleRawPage_MainMemory AllocPage(u32 sizeInBytes);

    // A block without its raw page: of _SlotIdToSize(_SizeToSlotId(size)) bytes (of size itself above kMaxAllocSize),
    // or null. Retire takes it back with the size that was asked, or any that rounds to the same; another size is
    // reported and does no harm. A block that is not out is reported, too, and nothing happens. Cost: O(arenas).
    u8 *Alloc(u32 sizeInBytes);
    void Retire(u8 *block, u32 sizeInBytes);

    // Gives free blocks back: Update those that no one asked for during the last kMaxIdleUpdates calls, with bounded
    // work a call, CleanAllFreePages all of them. Their memory goes back to the memory services, system page by system
    // page where blocks in use lie between. Update is to be called once a frame, from where time is to spare.
    void Update();
    void CleanAllFreePages();

    // An AllocPage that would take the bytes in use above it gives null. 0, the default: no budget.
    void SetMemoryBudget(u64 bytes) { __atomic_store_n(&m_MemoryBudget, bytes, __ATOMIC_RELAXED); }
    u64 SpaceLeft() const; // bytes that the budget leaves; the largest u64 without one

    // Bytes in use, bytes in free blocks, all figures. Cost: the locks of all shards.
    u64 TotalMemoryAllocated() const { return _TotalStats().m_BytesInUse; }
    u64 TotalMemoryAvailable() const { return _TotalStats().m_BytesFree; }
    void GetTotalStats(CParticlePageAllocator_Stats &outStats) const { outStats = _TotalStats(); }

    // Size class of a block: the smallest one that holds size bytes; kPoolSlotCount above kMaxAllocSize.
    static constexpr u32 _SizeToSlotId(u32 sizeInBytes);
    static constexpr u32 _SlotIdToSize(u32 slotId); // bytes; 0 for a class that does not exist

private:
    friend class CParticleRawPage_MainMemory;
    friend class CParticlesInternals;
    struct SShard;
    struct SShards;

    SPageBlock *_Take(u32 sizeInBytes);
    void _Release(SPageBlock &block);
    void _ReturnIdleBlocks(u32 minIdleUpdates, u32 maxCount);
    void _ShutDown(); // destroys this, made by the kernel's new, with its last block
    CParticlePageAllocator_Stats _TotalStats() const;
    void _EndIfUnused(std::unique_lock<std::mutex> &shutDownLock); // unlocks it

    u64 m_MemoryBudget = 0; // bytes; 0: none
    u64 m_RefusalCount = 0;
    Threads::CCriticalSection m_Lock; // serialises maintenance; never taken by AllocPage, unless memory is out
    u32 m_CurrentDate = 0;            // counts Update() calls
    bool m_IsShutDown = false;
    SShards *m_Shards = null; // free lists and arenas; null before Setup
};

constexpr u32 CParticlePageAllocator::_SizeToSlotId(u32 sizeInBytes)
{
    if (sizeInBytes > kMaxAllocSize)
        return kPoolSlotCount;
    if (sizeInBytes <= kMinAllocSize)
        return 0;
    // A class holds the sizes above the one before it: look the last byte up, and take the next step.
    const u32 lastByte = sizeInBytes - 1;
    const u32 log2 = IntegerTools::Log2(lastByte);
    const u32 step = (lastByte >> (log2 - 2)) - kSlotsPerDoubling;
    return (log2 - 9) * kSlotsPerDoubling + step + 1;
}

constexpr u32 CParticlePageAllocator::_SlotIdToSize(u32 slotId)
{
    if (slotId > _SizeToSlotId(kMaxAllocSize))
        return 0;
    const u32 step = slotId % kSlotsPerDoubling;
    return (kSlotsPerDoubling + step) * (kMinAllocSize / kSlotsPerDoubling) << slotId / kSlotsPerDoubling;
}

} // namespace Tessaly
