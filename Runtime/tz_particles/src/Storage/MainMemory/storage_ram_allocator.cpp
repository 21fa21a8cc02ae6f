// The page allocator: size classes, recycling, budget, maintenance.
#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

#include <sched.h>

#include <tz_kernel/include/kr_mem.h>

namespace Tessaly
{

namespace
{

constexpr u32 kBlockAlignment = 64;
constexpr u32 kStepsPerDoubling = 4;
constexpr u32 kMinAllocSizeLog2 = 9;
constexpr u32 kUsedSlotCount = 11 * kStepsPerDoubling + 1; // 512 bytes to 1 MiB: eleven doublings
static_assert(CParticlePageAllocator::kMinAllocSize == 1u << kMinAllocSizeLog2, "the first class");
static_assert(CParticlePageAllocator::kMaxAllocSize == CParticlePageAllocator::kMinAllocSize << 11, "the last class");
static_assert(kUsedSlotCount <= CParticlePageAllocator::kPoolSlotCount, "every class has a slot");

} // namespace

// Holds the lock of one class for a scope. Spins, since the holder is a few instructions from its end; yields in case
// it was preempted there.
class CParticlePageAllocator::CPoolLock : public CNonCopyable
{
public:
    explicit CPoolLock(SBlockPool &pool)
        : m_Pool(pool)
    {
        while (__atomic_exchange_n(&m_Pool.m_IsLocked, 1u, __ATOMIC_ACQUIRE) != 0)
            sched_yield();
    }
    ~CPoolLock() { __atomic_store_n(&m_Pool.m_IsLocked, 0u, __ATOMIC_RELEASE); }

private:
    SBlockPool &m_Pool;
};

CParticleRawPage_MainMemory::~CParticleRawPage_MainMemory()
{
    if (m_Allocator != null)
        m_Allocator->Retire(m_Data, m_Size);
}

CParticlePageAllocator::CParticlePageAllocator()
    : m_TotalMemoryUsed(kOwnerShare)
    , m_CurrentDate(0)
    , m_Stats(null)
    , m_MemoryBudget(0)
    , m_IsLeftToBlocks(false)
{
    static_assert(sizeof(SBlockHeader) <= kBlockAlignment && kBlockAlignment % alignof(SBlockHeader) == 0,
                  "a header fits in front of an aligned block");
}

CParticlePageAllocator::~CParticlePageAllocator()
{
    TZ_ASSERT(_BytesInUse() == 0);
    CleanAllFreePages();
    Mem::Delete(TZ_CALL_SITE, m_Stats);
}

bool CParticlePageAllocator::Setup()
{
    m_Stats = Mem::New<CParticlePageAllocator_Stats>(TZ_CALL_SITE);
    if (m_Stats == null || !m_Blocks.Reserve(kUsedSlotCount))
        return false;
    for (u32 slotId = 0; slotId < kUsedSlotCount; ++slotId)
        m_Blocks.PushBackUnsafe(SBlockPool());
    return true;
}

bool CParticlePageAllocator::Valid() const { return m_Blocks.Count() == kUsedSlotCount; }

u32 CParticlePageAllocator::_SlotIdToSize(u32 slotId)
{
    if (slotId >= kUsedSlotCount)
        return 0;
    const u32 doubling = slotId / kStepsPerDoubling;
    const u32 step = slotId % kStepsPerDoubling;
    return ((kStepsPerDoubling + step) << (kMinAllocSizeLog2 + doubling)) / kStepsPerDoubling;
}

u32 CParticlePageAllocator::_SizeToSlotId(u32 sizeInBytes)
{
    if (sizeInBytes > kMaxAllocSize)
        return kPoolSlotCount;
    if (sizeInBytes <= kMinAllocSize)
        return 0;
    // A class holds the sizes above the one before it: look the last byte up, and take the next step.
    const u32 lastByte = sizeInBytes - 1;
    const u32 log2 = IntegerTools::Log2(lastByte);
    const u32 step = (lastByte >> (log2 - 2)) - kStepsPerDoubling;
    return (log2 - kMinAllocSizeLog2) * kStepsPerDoubling + step + 1;
}

u32 CParticlePageAllocator::_BlockSize(u32 sizeInBytes)
{
    return sizeInBytes <= kMaxAllocSize ? _SlotIdToSize(_SizeToSlotId(sizeInBytes)) : sizeInBytes;
}

CParticlePageAllocator::SBlockHeader *CParticlePageAllocator::_NewBlock(u32 blockBytes)
{
    // Room for the header at one multiple of 64 and the bytes at the next, wherever the memory starts.
    const u64 bytes = u64(blockBytes) + 2 * kBlockAlignment;
    void *memory = Mem::_RawAlloc(bytes, 0, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__,
                                  __LINE__, TZ_FUNCTION_SIGNATURE);
    if (memory == null)
        return null;
    u8 *block = reinterpret_cast<u8 *>(Mem::Align<kBlockAlignment>(ureg(memory) + sizeof(SBlockHeader)));
    SBlockHeader *header = _Header(block);
    header->m_Memory = memory;
    return header;
}

void CParticlePageAllocator::_FreeBlock(SBlockHeader *header)
{
    Mem::_RawFree(header->m_Memory, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
}

bool CParticlePageAllocator::_TakeBytes(u32 blockBytes)
{
    const u64 budget = __atomic_load_n(&m_MemoryBudget, __ATOMIC_RELAXED);
    if (budget == 0)
    {
        __atomic_fetch_add(&m_TotalMemoryUsed, blockBytes, __ATOMIC_RELAXED);
        return true;
    }
    u64 used = __atomic_load_n(&m_TotalMemoryUsed, __ATOMIC_RELAXED);
    do
    {
        if ((used & ~kOwnerShare) + blockBytes > budget)
            return false;
    } while (!__atomic_compare_exchange_n(&m_TotalMemoryUsed, &used, used + blockBytes, true, __ATOMIC_RELAXED,
                                          __ATOMIC_RELAXED));
    return true;
}

void CParticlePageAllocator::_GiveShare(u64 share)
{
    if (__atomic_sub_fetch(&m_TotalMemoryUsed, share, __ATOMIC_ACQ_REL) == 0)
        Mem::Delete(TZ_CALL_SITE, this);
}

u8 *CParticlePageAllocator::_TakeBlock(u32 slotId, u32 blockBytes)
{
    if (slotId >= m_Blocks.Count())
    {
        SBlockHeader *header = _NewBlock(blockBytes);
        if (header == null)
            return null;
        __atomic_fetch_add(&m_Stats->m_AllocCount, 1, __ATOMIC_RELAXED);
        __atomic_fetch_add(&m_Stats->m_BlocksInUse, 1, __ATOMIC_RELAXED);
        return _Block(header);
    }

    SBlockPool &pool = m_Blocks.RawDataPointer()[slotId];
    SBlockHeader *header;
    {
        const CPoolLock lock(pool);
        ++pool.m_AllocCount;
        header = pool.m_Newest;
        if (header != null)
        {
            pool.m_Newest = header->m_Older;
            (pool.m_Newest != null ? pool.m_Newest->m_Newer : pool.m_Oldest) = null;
            --pool.m_FreeCount;
            ++pool.m_RecycleCount;
        }
    }
    if (header != null)
        return _Block(header);
    header = _NewBlock(blockBytes);
    if (header != null)
        return _Block(header);
    const CPoolLock lock(pool);
    --pool.m_AllocCount;
    return null;
}

void CParticlePageAllocator::_GiveBlock(u8 *block, u32 blockBytes)
{
    SBlockHeader *header = _Header(block);
    const u32 slotId = _SizeToSlotId(blockBytes);
    if (slotId >= m_Blocks.Count())
    {
        __atomic_fetch_sub(&m_Stats->m_BlocksInUse, 1, __ATOMIC_RELAXED);
        return _FreeBlock(header);
    }

    SBlockPool &pool = m_Blocks.RawDataPointer()[slotId];
    header->m_RetireDate = __atomic_load_n(&m_CurrentDate, __ATOMIC_RELAXED);
    header->m_Newer = null;
    const bool isPooled = !m_IsLeftToBlocks;
    {
        const CPoolLock lock(pool);
        ++pool.m_RetireCount;
        if (isPooled)
        {
            header->m_Older = pool.m_Newest;
            (pool.m_Newest != null ? pool.m_Newest->m_Newer : pool.m_Oldest) = header;
            pool.m_Newest = header;
            ++pool.m_FreeCount;
        }
    }
    if (!isPooled)
        _FreeBlock(header);
}

u8 *CParticlePageAllocator::Alloc(u32 sizeInBytes)
{
    if (!Valid())
        return null;
    const u32 blockBytes = _BlockSize(sizeInBytes);
    if (_TakeBytes(blockBytes))
    {
        if (u8 *block = _TakeBlock(_SizeToSlotId(sizeInBytes), blockBytes))
            return block;
        _GiveShare(blockBytes);
    }
    _CountRefusal();
    return null;
}

void CParticlePageAllocator::Retire(u8 *block, u32 sizeInBytes)
{
    if (block == null)
        return;
    const u32 blockBytes = _BlockSize(sizeInBytes);
    _GiveBlock(block, blockBytes);
    _GiveShare(blockBytes); // may destroy this
}

PParticleRawPage_MainMemory CParticlePageAllocator::AllocPage(u32 sizeInBytes)
{
    u8 *block = Alloc(sizeInBytes);
    if (block == null)
        return null;
    PParticleRawPage_MainMemory rawPage =
        Mem::New<CParticleRawPage_MainMemory>(TZ_CALL_SITE, block, _BlockSize(sizeInBytes), this);
    if (rawPage == null)
    {
        Retire(block, sizeInBytes);
        _CountRefusal();
    }
    return rawPage;
}

void CParticlePageAllocator::_FreeBlocksRetiredBefore(u32 date)
{
    for (u32 slotId = 0; slotId < m_Blocks.Count(); ++slotId)
    {
        SBlockPool &pool = m_Blocks.RawDataPointer()[slotId];
        SBlockHeader *idle = null; // a list through m_Older
        {
            const CPoolLock lock(pool);
            while (pool.m_Oldest != null && s32(pool.m_Oldest->m_RetireDate - date) < 0)
            {
                SBlockHeader *header = pool.m_Oldest;
                pool.m_Oldest = header->m_Newer;
                (pool.m_Oldest != null ? pool.m_Oldest->m_Older : pool.m_Newest) = null;
                --pool.m_FreeCount;
                header->m_Older = idle;
                idle = header;
            }
        }
        while (idle != null)
        {
            SBlockHeader *next = idle->m_Older;
            _FreeBlock(idle);
            idle = next;
        }
    }
}

void CParticlePageAllocator::Update()
{
    m_Lock.Lock();
    const u32 date = __atomic_add_fetch(&m_CurrentDate, 1, __ATOMIC_RELAXED);
    _FreeBlocksRetiredBefore(date - kMaxIdleUpdates);
    m_Lock.Unlock();
}

void CParticlePageAllocator::CleanAllFreePages()
{
    m_Lock.Lock();
    _FreeBlocksRetiredBefore(__atomic_load_n(&m_CurrentDate, __ATOMIC_RELAXED) + 1);
    m_Lock.Unlock();
}

void CParticlePageAllocator::SetMemoryBudget(u64 bytes) { __atomic_store_n(&m_MemoryBudget, bytes, __ATOMIC_RELAXED); }

u64 CParticlePageAllocator::SpaceLeft() const
{
    const u64 budget = __atomic_load_n(&m_MemoryBudget, __ATOMIC_RELAXED);
    const u64 used = _BytesInUse();
    if (budget == 0)
        return TNumericTraits<u64>::kMax;
    return used < budget ? budget - used : 0;
}

u64 CParticlePageAllocator::TotalMemoryAllocated() const { return _BytesInUse(); }

u64 CParticlePageAllocator::TotalMemoryAvailable() const
{
    CParticlePageAllocator_Stats stats;
    GetTotalStats(stats);
    return stats.m_BytesFree;
}

void CParticlePageAllocator::GetTotalStats(CParticlePageAllocator_Stats &outStats) const
{
    outStats = CParticlePageAllocator_Stats();
    outStats.m_BytesInUse = _BytesInUse();
    if (m_Stats != null)
    {
        outStats.m_AllocCount = __atomic_load_n(&m_Stats->m_AllocCount, __ATOMIC_RELAXED);
        outStats.m_BlocksInUse = __atomic_load_n(&m_Stats->m_BlocksInUse, __ATOMIC_RELAXED);
        outStats.m_RefusalCount = __atomic_load_n(&m_Stats->m_RefusalCount, __ATOMIC_RELAXED);
    }
    for (u32 slotId = 0; slotId < m_Blocks.Count(); ++slotId)
    {
        SBlockPool &pool = const_cast<SBlockPool &>(m_Blocks.RawDataPointer()[slotId]);
        const CPoolLock lock(pool);
        outStats.m_BytesFree += u64(pool.m_FreeCount) * _SlotIdToSize(slotId);
        outStats.m_BlocksFree += pool.m_FreeCount;
        outStats.m_BlocksInUse += pool.m_AllocCount - pool.m_RetireCount;
        outStats.m_AllocCount += pool.m_AllocCount;
        outStats.m_RecycleCount += pool.m_RecycleCount;
    }
}

void CParticlePageAllocator::_LeaveToBlocks()
{
    m_IsLeftToBlocks = true;
    CleanAllFreePages();
    _GiveShare(kOwnerShare);
}

} // namespace Tessaly
