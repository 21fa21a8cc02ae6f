// The page allocator: free lists, budget, ageing.
#include <tz_kernel/include/kr_address_sanitizer.h>
#include <tz_kernel/include/kr_mem.h>

#include "storage_ram_arena.h"

namespace Tessaly
{

namespace
{

constexpr u32 kShardCount = 8;
// Bounds of one Update: about 0.1 ms.
constexpr u32 kMaxBlocksPerUpdate = 1024;
constexpr u32 kMaxCallsPerUpdate = 8;

std::mutex g_ShutDownLock; // guards the deletion of allocators that have been shut down

} // namespace

// The free lists of the threads that share it, and its part of the sums. A block may be released by another thread than
// the one that took it, so a shard's part may underflow: only the sums over all shards are counts.
struct CParticlePageAllocator::SShard
{
    std::mutex m_Lock; // guards the rest
    u64 m_BytesInUse = 0;
    u64 m_BlocksInUse = 0;
    u64 m_BytesFree = 0;
    u64 m_BlocksFree = 0; // read without the lock, too
    u64 m_RecycleCount = 0;
    TLinkedList<SPageBlock> m_FreeLists[kPoolSlotCount]; // newest first

    // Takes a block off its free list; null is allowed.
    SPageBlock *TakeFree(SPageBlock *block, u32 recycleCount)
    {
        if (block == null)
            return null;
        m_FreeLists[block->m_Arena->m_SizeClass].Remove(*block);
        __atomic_store_n(&m_BlocksFree, m_BlocksFree - 1, __ATOMIC_RELAXED);
        m_BytesFree -= block->m_Arena->m_BlockBytes;
        m_RecycleCount += recycleCount;
        return block;
    }
    // Counts a block in use as free and puts it on its free list; null for one that is not pooled or was not found.
    void Release(SPageBlock *block, u32 blockBytes)
    {
        m_BlocksInUse -= 1;
        m_BytesInUse -= blockBytes;
        if (block == null)
            return;
        m_FreeLists[block->m_Arena->m_SizeClass].PushFront(*block);
        __atomic_store_n(&m_BlocksFree, m_BlocksFree + 1, __ATOMIC_RELAXED);
        m_BytesFree += blockBytes;
    }
};

struct CParticlePageAllocator::SShards
{
    SShard m_Shards[kShardCount];
    std::mutex m_BudgetLock; // held from the check of the budget until the bytes are counted as in use
    CPageArenas m_Arenas;

    SShard &Own() { return m_Shards[CCurrentThread::ThreadID() % kShardCount]; }
};

CParticlePageAllocator::~CParticlePageAllocator()
{
    TZ_ASSERT_MESSAGE(TotalMemoryAllocated() == 0, "the page allocator is destroyed while pages hold %llu bytes of it",
                      static_cast<unsigned long long>(TotalMemoryAllocated()));
    CleanAllFreePages();
    Mem::Delete(TZ_CALL_SITE, m_Shards);
}

bool CParticlePageAllocator::Setup()
{
    if (m_Shards == null)
        m_Shards = Mem::New<SShards>(TZ_CALL_SITE);
    return Valid();
}

PParticleRawPage_MainMemory CParticlePageAllocator::AllocPage(u32 sizeInBytes)
{
    for (u32 tryCount = 0; tryCount < 2 && m_Shards != null; ++tryCount)
    {
        if (tryCount != 0)
            CleanAllFreePages();
        SPageBlock *block = _Take(sizeInBytes);
        if (block == null)
            continue;
        if (auto *rawPage = Mem::New<CParticleRawPage_MainMemory>(TZ_CALL_SITE, *this, *block))
            return rawPage;
        _Release(*block);
    }
    __atomic_fetch_add(&m_RefusalCount, 1, __ATOMIC_RELAXED);
    return null;
}

// Returns a block and counts it as in use; null when memory or the budget runs out.
SPageBlock *CParticlePageAllocator::_Take(u32 sizeInBytes)
{
    const u32 sizeClass = _SizeToSlotId(sizeInBytes);
    const u32 blockBytes = sizeClass < kPoolSlotCount ? _SlotIdToSize(sizeClass) : sizeInBytes;
    SShard &ownShard = m_Shards->Own();
    SPageBlock *block = null;
    {
        const u64 budget = __atomic_load_n(&m_MemoryBudget, __ATOMIC_RELAXED);
        std::unique_lock<std::mutex> budgetLock(m_Shards->m_BudgetLock, std::defer_lock);
        if (budget != 0)
        {
            budgetLock.lock();
            if (_TotalStats().m_BytesInUse + blockBytes > budget)
                return null;
        }
        const std::lock_guard<std::mutex> lock(ownShard.m_Lock);
        ownShard.m_BlocksInUse += 1;
        ownShard.m_BytesInUse += blockBytes;
        if (sizeClass < kPoolSlotCount)
            block = ownShard.TakeFree(ownShard.m_FreeLists[sizeClass].m_First, 1); // the newest: it may be cached
    }
    for (SShard &shard : m_Shards->m_Shards)
    {
        if (block != null || sizeClass == kPoolSlotCount)
            break;
        if (__atomic_load_n(&shard.m_BlocksFree, __ATOMIC_RELAXED) == 0)
            continue;
        const std::lock_guard<std::mutex> lock(shard.m_Lock);
        block = shard.TakeFree(shard.m_FreeLists[sizeClass].m_Last, 1); // the oldest
    }
    if (block == null)
        block = m_Shards->m_Arenas.Take(sizeClass, blockBytes);
    if (block != null)
    {
        Mem::Unpoison(block->Data(), blockBytes);
        return block;
    }
    const std::lock_guard<std::mutex> lock(ownShard.m_Lock);
    ownShard.Release(null, blockBytes);
    return null;
}

// Releases a block to the calling thread's shard. Once the shard's lock is free, another thread may delete the
// allocator.
void CParticlePageAllocator::_Release(SPageBlock &releasedBlock)
{
    SPageBlock *block = &releasedBlock;
    const u32 blockBytes = block->m_Arena->m_BlockBytes;
    Mem::Poison(block->Data(), blockBytes);
    if (block->m_Arena->m_SizeClass == kPoolSlotCount)
    {
        m_Shards->m_Arenas.FreeArena(*block->m_Arena);
        block = null;
    }
    else
    {
        block->m_IsFromAlloc = false;
        block->m_ReleaseDate = __atomic_load_n(&m_CurrentDate, __ATOMIC_RELAXED);
    }
    SShard &shard = m_Shards->Own();
    {
        const std::lock_guard<std::mutex> lock(shard.m_Lock);
        if (!__atomic_load_n(&m_IsShutDown, __ATOMIC_RELAXED))
            return shard.Release(block, blockBytes);
    }
    std::unique_lock<std::mutex> shutDownLock(g_ShutDownLock);
    {
        const std::lock_guard<std::mutex> lock(shard.m_Lock);
        shard.Release(block, blockBytes);
    }
    _DeleteIfUnused(shutDownLock);
}

void CParticlePageAllocator::_ShutDown()
{
    CleanAllFreePages(); // before the lock: a memory hook may release a page
    std::unique_lock<std::mutex> shutDownLock(g_ShutDownLock);
    __atomic_store_n(&m_IsShutDown, true, __ATOMIC_RELAXED);
    _DeleteIfUnused(shutDownLock);
}

void CParticlePageAllocator::_DeleteIfUnused(std::unique_lock<std::mutex> &shutDownLock)
{
    CleanAllFreePages();
    const bool isUnused = _TotalStats().m_BlocksInUse == 0;
    shutDownLock.unlock();
    if (isUnused)
        Mem::Delete(TZ_CALL_SITE, this);
}

u8 *CParticlePageAllocator::Alloc(u32 sizeInBytes)
{
    const PParticleRawPage_MainMemory rawPage = AllocPage(sizeInBytes);
    if (rawPage == null)
        return null;
    rawPage->AddReference(); // Retire drops it
    rawPage->m_Block->m_RawPage = rawPage.Get();
    rawPage->m_Block->m_IsFromAlloc = true;
    return rawPage->m_Data;
}

void CParticlePageAllocator::Retire(u8 *block, u32 sizeInBytes)
{
    if (block == null || m_Shards == null)
        return;
    const SPageBlock *record = m_Shards->m_Arenas.Find(block);
    const bool isInUse = record != null;
    TZ_ASSERT_MESSAGE(isInUse, "Retire: no block of Alloc begins at %p", static_cast<void *>(block));
    if (!isInUse)
        return;
    const u32 sizeClass = _SizeToSlotId(sizeInBytes);
    const u32 expectedBytes = sizeClass < kPoolSlotCount ? _SlotIdToSize(sizeClass) : sizeInBytes;
    const u32 blockBytes = record->m_Arena->m_BlockBytes;
    TZ_ASSERT_MESSAGE(blockBytes == expectedBytes, "Retire: the block has %u bytes, not %u", blockBytes, sizeInBytes);
    CRefCountedObject::RemoveReference(record->m_RawPage);
}

// Returns blocks that stayed free for minIdleUpdates calls of Update to their arenas, at most maxCount of them.
void CParticlePageAllocator::_ReturnIdleBlocks(u32 minIdleUpdates, u32 maxCount)
{
    const u32 date = __atomic_load_n(&m_CurrentDate, __ATOMIC_RELAXED);
    for (SShard &shard : m_Shards->m_Shards)
    {
        SPageBlock *idle = null; // through m_Next
        {
            const std::lock_guard<std::mutex> lock(shard.m_Lock);
            for (const TLinkedList<SPageBlock> &list : shard.m_FreeLists)
            {
                while (list.m_Last != null && maxCount != 0 && date - list.m_Last->m_ReleaseDate >= minIdleUpdates)
                {
                    SPageBlock *block = shard.TakeFree(list.m_Last, 0);
                    block->m_Next = idle;
                    idle = block;
                    --maxCount;
                }
            }
        }
        while (idle != null)
        {
            SPageBlock &block = *idle;
            idle = block.m_Next;
            m_Shards->m_Arenas.Return(block);
        }
    }
}

void CParticlePageAllocator::Update()
{
    if (m_Shards == null)
        return;
    __atomic_fetch_add(&m_CurrentDate, 1, __ATOMIC_RELAXED);
    _ReturnIdleBlocks(kMaxIdleUpdates + 1, kMaxBlocksPerUpdate);
    m_Shards->m_Arenas.GiveBack(kMaxCallsPerUpdate);
}

void CParticlePageAllocator::CleanAllFreePages()
{
    if (m_Shards == null)
        return;
    _ReturnIdleBlocks(0, TNumericTraits<u32>::kMax);
    m_Shards->m_Arenas.GiveBack(TNumericTraits<u32>::kMax);
}

u64 CParticlePageAllocator::SpaceLeft() const
{
    const u64 budget = __atomic_load_n(&m_MemoryBudget, __ATOMIC_RELAXED);
    return budget == 0 ? TNumericTraits<u64>::kMax : budget - TZMin(budget, TotalMemoryAllocated());
}

CParticlePageAllocator_Stats CParticlePageAllocator::_TotalStats() const
{
    CParticlePageAllocator_Stats stats;
    stats.m_RefusalCount = __atomic_load_n(&m_RefusalCount, __ATOMIC_RELAXED);
    if (m_Shards == null)
        return stats;
    for (SShard &shard : m_Shards->m_Shards) // all of them: a consistent snapshot
        shard.m_Lock.lock();
    for (const SShard &shard : m_Shards->m_Shards)
    {
        stats.m_BytesInUse += shard.m_BytesInUse;
        stats.m_BytesFree += shard.m_BytesFree;
        stats.m_BlocksInUse += shard.m_BlocksInUse;
        stats.m_BlocksFree += shard.m_BlocksFree;
        stats.m_RecycleCount += shard.m_RecycleCount;
    }
    stats.m_BytesReserved = m_Shards->m_Arenas.BytesReserved();
    stats.m_AllocCount = stats.m_RecycleCount + m_Shards->m_Arenas.TakeCount();
    for (SShard &shard : m_Shards->m_Shards)
        shard.m_Lock.unlock();
    return stats;
}

} // namespace Tessaly
