// The page allocator: free lists, budget, ageing.
#include <tz_kernel/include/kr_address_sanitizer.h>
#include <tz_kernel/include/kr_mem.h>

#include "storage_ram_arena.h"

namespace Tessaly
{

namespace
{

constexpr u32 kShardCount = 8;
// What one Update gives back at most: some 0.1 ms of work.
constexpr u32 kMaxBlocksPerUpdate = 1024;
constexpr u32 kMaxCallsPerUpdate = 8;

} // namespace

// The free lists of the threads that are dealt out to it.
struct CParticlePageAllocator::SShard
{
    struct SFreeList : TLinkedList<SPageBlock> // newest first
    {
        u32 m_Count = 0; // read without the lock, too
    };

    std::mutex m_Lock; // guards the rest
    u64 m_RecycleCount = 0;
    u64 m_ReleaseCount = 0;
    SFreeList m_Lists[kPoolSlotCount];

    void PushFront(SPageBlock &block, u32 date)
    {
        SFreeList &list = m_Lists[block.SlotId()];
        block.m_ReleaseDate = date;
        block.m_RawPage = null;
        list.PushFront(block);
        __atomic_store_n(&list.m_Count, list.m_Count + 1, __ATOMIC_RELAXED);
    }
    void Remove(SPageBlock &block)
    {
        SFreeList &list = m_Lists[block.SlotId()];
        list.Remove(block);
        __atomic_store_n(&list.m_Count, list.m_Count - 1, __ATOMIC_RELAXED);
    }
};

struct CParticlePageAllocator::SShards
{
    SShard m_Shards[kShardCount];
    CPageArenas m_Arenas;
};

CParticleRawPage_MainMemory::CParticleRawPage_MainMemory(CParticlePageAllocator &allocator, SPageBlock &block)
    : m_Data(block.Data())
    , m_Size(block.Size())
    , m_ReadersCount(0)
    , m_Block(&block)
    , m_Allocator(&allocator)
    , m_HasPoison(Mem::kIsAddressSanitized)
{
}

CParticleRawPage_MainMemory::~CParticleRawPage_MainMemory() { m_Allocator->_Release(*m_Block); }

void CParticleRawPage_MainMemory::_OpenWholeBlock() const { Mem::Unpoison(m_Data, m_Size); }

CParticlePageAllocator::CParticlePageAllocator()
    : m_TotalMemoryUsed(0)
    , m_MemoryBudget(0)
    , m_RefusalCount(0)
    , m_CurrentDate(0)
    , m_IsShutDown(false)
    , m_Shards(null)
{
    _InternalAddStrongRef();
}

CParticlePageAllocator::~CParticlePageAllocator()
{
    TZ_ASSERT(TotalMemoryAllocated() == 0);
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
    for (u32 tryCount = 0; tryCount < 2 && Valid(); ++tryCount)
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

// Counts bytes as in use. False, and nothing counted, when the budget does not allow it.
bool CParticlePageAllocator::_TakeBytes(u32 byteCount)
{
    const u64 budget = __atomic_load_n(&m_MemoryBudget, __ATOMIC_RELAXED);
    u64 used = __atomic_load_n(&m_TotalMemoryUsed, __ATOMIC_RELAXED);
    do
    {
        if (budget != 0 && used + byteCount > budget)
            return false;
    } while (!__atomic_compare_exchange_n(&m_TotalMemoryUsed, &used, used + byteCount, true, __ATOMIC_RELAXED,
                                          __ATOMIC_RELAXED));
    return true;
}

// A block in use, accounted for; null when memory or the budget is out.
SPageBlock *CParticlePageAllocator::_Take(u32 sizeInBytes)
{
    const u32 slotId = _SizeToSlotId(sizeInBytes);
    const u32 blockBytes = slotId < kPoolSlotCount ? _SlotIdToSize(slotId) : sizeInBytes;
    if (!_TakeBytes(blockBytes))
        return null;
    SPageBlock *block = slotId < kPoolSlotCount ? _TakeFree(slotId) : null;
    if (block == null)
        block = m_Shards->m_Arenas.Take(slotId, blockBytes);
    if (block != null)
        Mem::Unpoison(block->Data(), blockBytes);
    else
        __atomic_fetch_sub(&m_TotalMemoryUsed, blockBytes, __ATOMIC_RELAXED);
    return block;
}

// The newest free block of the thread's own shard, which its caches may hold, else the oldest one of another shard.
SPageBlock *CParticlePageAllocator::_TakeFree(u32 slotId)
{
    const u32 ownShard = CCurrentThread::ThreadID() % kShardCount;
    for (u32 i = 0; i < kShardCount; ++i)
    {
        SShard &shard = m_Shards->m_Shards[(ownShard + i) % kShardCount];
        SShard::SFreeList &list = shard.m_Lists[slotId];
        if (__atomic_load_n(&list.m_Count, __ATOMIC_RELAXED) == 0)
            continue;
        const std::lock_guard<std::mutex> lock(shard.m_Lock);
        SPageBlock *block = i == 0 ? list.m_First : list.m_Last;
        if (block == null)
            continue;
        shard.Remove(*block);
        ++shard.m_RecycleCount;
        return block;
    }
    return null;
}

// The end of a raw page: its block goes to the free list of the thread's shard.
void CParticlePageAllocator::_Release(SPageBlock &block)
{
    const u32 slotId = block.SlotId();
    const u32 blockBytes = block.Size(); // once it is free it may be anybody's
    Mem::Poison(block.Data(), blockBytes);
    SShard &shard = m_Shards->m_Shards[CCurrentThread::ThreadID() % kShardCount];
    {
        const std::lock_guard<std::mutex> lock(shard.m_Lock);
        ++shard.m_ReleaseCount;
        if (slotId < kPoolSlotCount)
            shard.PushFront(block, __atomic_load_n(&m_CurrentDate, __ATOMIC_RELAXED));
    }
    if (slotId == kPoolSlotCount)
        m_Shards->m_Arenas.FreeAtOnce(block);
    __atomic_fetch_sub(&m_TotalMemoryUsed, blockBytes, __ATOMIC_RELAXED);
    if (__atomic_load_n(&m_IsShutDown, __ATOMIC_RELAXED))
        CleanAllFreePages();
}

u8 *CParticlePageAllocator::Alloc(u32 sizeInBytes)
{
    const PParticleRawPage_MainMemory rawPage = AllocPage(sizeInBytes);
    if (rawPage == null)
        return null;
    rawPage->AddReference(); // Retire drops it
    rawPage->m_Block->m_RawPage = rawPage.Get();
    return rawPage->m_Data;
}

void CParticlePageAllocator::Retire(u8 *block, u32 sizeInBytes)
{
    if (block == null || !Valid())
        return;
    const SPageBlock *record = m_Shards->m_Arenas.Find(block);
    const bool isOut = record != null && record->m_RawPage != null;
    TZ_ASSERT_MESSAGE(isOut, "Retire: no block that is out begins at %p", static_cast<void *>(block));
    if (!isOut)
        return;
    TZ_ASSERT_MESSAGE(record->SlotId() == _SizeToSlotId(sizeInBytes), "Retire: the block has %u bytes, not %u",
                      record->Size(), sizeInBytes);
    CRefCountedObject::RemoveReference(record->m_RawPage);
}

// Hands blocks that have been free for so many updates back to their arenas, at most maxCount of them.
void CParticlePageAllocator::_ReturnIdleBlocks(u32 minIdleUpdates, u32 maxCount)
{
    for (SShard &shard : m_Shards->m_Shards)
    {
        SPageBlock *idle = null; // through m_Next
        {
            const std::lock_guard<std::mutex> lock(shard.m_Lock);
            for (SShard::SFreeList &list : shard.m_Lists)
            {
                SPageBlock *block = list.m_Last;
                for (; block != null && maxCount != 0 && m_CurrentDate - block->m_ReleaseDate >= minIdleUpdates;
                     block = list.m_Last, --maxCount)
                {
                    shard.Remove(*block);
                    block->m_Next = idle;
                    idle = block;
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
    if (!Valid())
        return;
    m_Lock.Lock();
    __atomic_fetch_add(&m_CurrentDate, 1, __ATOMIC_RELAXED);
    _ReturnIdleBlocks(kMaxIdleUpdates, kMaxBlocksPerUpdate);
    m_Shards->m_Arenas.GiveBack(kMaxCallsPerUpdate);
    m_Lock.Unlock();
}

void CParticlePageAllocator::CleanAllFreePages()
{
    if (!Valid())
        return;
    m_Lock.Lock();
    _ReturnIdleBlocks(0, TNumericTraits<u32>::kMax);
    m_Shards->m_Arenas.GiveBack(TNumericTraits<u32>::kMax);
    m_Lock.Unlock();
}

u64 CParticlePageAllocator::SpaceLeft() const
{
    const u64 budget = __atomic_load_n(&m_MemoryBudget, __ATOMIC_RELAXED);
    const u64 used = TotalMemoryAllocated();
    if (budget == 0)
        return TNumericTraits<u64>::kMax;
    return used < budget ? budget - used : 0;
}

u64 CParticlePageAllocator::TotalMemoryAvailable() const
{
    CParticlePageAllocator_Stats stats;
    GetTotalStats(stats);
    return stats.m_BytesFree;
}

void CParticlePageAllocator::GetTotalStats(CParticlePageAllocator_Stats &outStats) const
{
    outStats = CParticlePageAllocator_Stats();
    outStats.m_RefusalCount = __atomic_load_n(&m_RefusalCount, __ATOMIC_RELAXED);
    if (!Valid())
        return;
    for (SShard &shard : m_Shards->m_Shards) // all at once, so that the sums are those of one moment
        shard.m_Lock.lock();
    u64 releaseCount = 0;
    for (const SShard &shard : m_Shards->m_Shards)
    {
        outStats.m_RecycleCount += shard.m_RecycleCount;
        releaseCount += shard.m_ReleaseCount;
        for (u32 slotId = 0; slotId < kPoolSlotCount; ++slotId)
        {
            outStats.m_BlocksFree += shard.m_Lists[slotId].m_Count;
            outStats.m_BytesFree += u64(shard.m_Lists[slotId].m_Count) * _SlotIdToSize(slotId);
        }
    }
    outStats.m_BytesInUse = TotalMemoryAllocated();
    outStats.m_BytesReserved = m_Shards->m_Arenas.BytesReserved();
    outStats.m_AllocCount = outStats.m_RecycleCount + m_Shards->m_Arenas.TakeCount();
    outStats.m_BlocksInUse = outStats.m_AllocCount - releaseCount;
    for (SShard &shard : m_Shards->m_Shards)
        shard.m_Lock.unlock();
}

void CParticlePageAllocator::_ShutDown()
{
    __atomic_store_n(&m_IsShutDown, true, __ATOMIC_RELAXED);
    CleanAllFreePages();
    CRefCountedObject::RemoveReference(this);
}

} // namespace Tessaly
