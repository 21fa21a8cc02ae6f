// The page allocator: raw byte blocks for pages, recycled by size class.
//
// There are four size classes to a doubling, from kMinAllocSize to kMaxAllocSize bytes: rounding a size above
// kMinAllocSize up wastes at most a fifth of the block. Larger blocks have the requested size and are never pooled.
//
// The block of a destroyed raw page goes to a free list, last in first out. Each of eight shards has a free list per
// size class; a thread's id selects its shard. A request takes the newest block of the thread's own shard, else the
// oldest one of another shard, else one of an arena (storage_ram_arena.h). A block that stays free for kMaxIdleUpdates
// calls of Update goes back to its arena, and its memory to the memory services. No memory service is called under a
// shard's lock. Any thread may call any operation but Setup and the destructor.
//
//   TotalMemoryAllocated() == sum of Size() over the live raw pages
#pragma once

#include <mutex>

#include <tz_kernel/include/kr_threads_basics.h>

#include "storage_ram_raw_page.h"

namespace Tessaly
{

// A snapshot of a page allocator. Sizes in bytes.
struct TZ_API CParticlePageAllocator_Stats
{
    u64 m_BytesInUse = 0;    // in live raw pages
    u64 m_BytesFree = 0;     // in blocks on free lists
    u64 m_BytesReserved = 0; // held from the memory services for blocks
    u64 m_BlocksInUse = 0;   // live raw pages
    u64 m_BlocksFree = 0;    // on free lists
    u64 m_AllocCount = 0;    // blocks taken since the start
    u64 m_RecycleCount = 0;  // of these, from a free list
    u64 m_RefusalCount = 0;  // requests that failed by the budget or for lack of memory

    // Print as the records of ps_stats.h do. JSON members: bytesInUse, bytesFree, bytesReserved, blocksInUse,
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
    static constexpr u32 kMaxAllocSize = 1048576; // bytes; the largest pooled block, and the cap of a page
    static constexpr u32 kSlotsPerDoubling = 4;   // size classes from one power of two to the next
    static constexpr u32 kMaxIdleUpdates = 120;   // Update() calls that a free block survives

    CParticlePageAllocator() = default;
    // Requires that there is no live raw page (asserted).
    ~CParticlePageAllocator();

    // Makes the free lists; called once, before any other operation.
    // Fails: false when memory is refused.
    bool Setup();
    bool Valid() const { return m_Shards != null; } // Setup succeeded

    // Returns a raw page of at least sizeInBytes bytes, aligned to 64; 0 gives a smallest block. When memory or the
    // budget runs out, all free blocks are given back before one more try. AllocPage(p->Size())->Size() == p->Size().
    // Fails: null when that try fails, too.
    PParticleRawPage_MainMemory AllocPage(u32 sizeInBytes);

    // Alloc returns a block without its raw page, as large as AllocPage's; Retire releases it, by the requested size or
    // any that rounds to the same.
    // Fails: null when memory or the budget runs out. Retire reports a pointer that Alloc has not returned, or that was
    //        retired already, and does nothing; it reports another size and releases the block.
    // Cost:  Retire: O(arenas).
    u8 *Alloc(u32 sizeInBytes);
    void Retire(u8 *block, u32 sizeInBytes);

    // Give free blocks back to the memory services: Update those that stayed free during the last kMaxIdleUpdates
    // calls, with bounded work per call, CleanAllFreePages all of them. Arenas that hold other blocks stay, and the
    // system pages of the free ones are discarded. Update is meant to be called once a frame. A call does not wait for
    // what another thread is giving back.
    void Update();
    void CleanAllFreePages();

    // Sets a limit of the bytes in use. 0, the default: no budget. With a budget, each AllocPage locks all shards.
    void SetMemoryBudget(u64 bytes) { __atomic_store_n(&m_MemoryBudget, bytes, __ATOMIC_RELAXED); }
    u64 SpaceLeft() const; // bytes that the budget leaves; the largest u64 without one

    // Return bytes in use, bytes in free blocks, and all figures: a consistent snapshot.
    // Cost: locks all shards.
    u64 TotalMemoryAllocated() const { return _TotalStats().m_BytesInUse; }
    u64 TotalMemoryAvailable() const { return _TotalStats().m_BytesFree; }
    void GetTotalStats(CParticlePageAllocator_Stats &outStats) const { outStats = _TotalStats(); }

    // Returns the smallest size class that holds sizeInBytes bytes; kPoolSlotCount above kMaxAllocSize.
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
    void _ShutDown(); // the allocator deletes itself with its last block
    CParticlePageAllocator_Stats _TotalStats() const;
    void _DeleteIfUnused(std::unique_lock<std::mutex> &shutDownLock); // unlocks it

    u64 m_MemoryBudget = 0; // bytes; 0: none
    u64 m_RefusalCount = 0;
    u32 m_CurrentDate = 0; // counts Update() calls
    bool m_IsShutDown = false;
    SShards *m_Shards = null; // free lists and arenas; null before Setup
};

constexpr u32 CParticlePageAllocator::_SizeToSlotId(u32 sizeInBytes)
{
    if (sizeInBytes > kMaxAllocSize)
        return kPoolSlotCount;
    if (sizeInBytes <= kMinAllocSize)
        return 0;
    // The highest bit of the last byte's offset selects the doubling, the two bits below it the class in it.
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
