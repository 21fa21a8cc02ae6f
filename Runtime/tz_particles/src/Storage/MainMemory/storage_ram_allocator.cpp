// The page allocator: size classes, recycling, budget, maintenance.
#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

#include <sched.h>
#include <sys/mman.h>

#include <tz_kernel/include/kr_mem.h>
#include <tz_memory.h>

namespace Tessaly
{

namespace
{

constexpr u32 kBlockAlignment = 64;
constexpr u32 kMinArenaBytes = 64 << 10;
constexpr u32 kMaxArenaBytes = 16 << 20;
constexpr u32 kHugePageBytes = 2 << 20;
constexpr u32 kStepsPerDoubling = 4;
constexpr u32 kMinAllocSizeLog2 = 9;
constexpr u32 kUsedSlotCount = 11 * kStepsPerDoubling + 1; // 512 bytes to 1 MiB: eleven doublings
static_assert(CParticlePageAllocator::kMinAllocSize == 1u << kMinAllocSizeLog2, "the first class");
static_assert(CParticlePageAllocator::kMaxAllocSize == CParticlePageAllocator::kMinAllocSize << 11, "the last class");
static_assert(kUsedSlotCount <= CParticlePageAllocator::kPoolSlotCount, "every class has a slot");

// The address sanitizer sees more when blocks do not share their memory.
constexpr bool kSharesArenas = !Mem::kIsAddressSanitized;

// First touch in huge pages costs a fifth of what it costs in small ones, and later passes miss fewer translations.
// Advice only, for the huge pages that lie inside the memory.
void AdviseHugePages(void *memory, size_t bytes)
{
#if defined(MADV_HUGEPAGE)
    const ureg start = Mem::Align<kHugePageBytes>(ureg(memory));
    const ureg end = (ureg(memory) + bytes) & ~ureg(kHugePageBytes - 1);
    if (start < end)
        madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);
#endif
}

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
    Mem::Unpoison(m_Data, m_Size); // whoever owns the memory next knows nothing of it
    m_Allocator->_ReturnBlock(*this);
}

bool CParticleRawPage_MainMemory::_KeepForReuse() { return m_Allocator->_TakeBack(*this); }

CParticlePageAllocator::CParticlePageAllocator()
    : m_TotalMemoryUsed(kOwnerShare)
    , m_CurrentDate(0)
    , m_Stats(null)
    , m_MemoryBudget(0)
    , m_IsLeftToBlocks(false)
{
    static_assert(sizeof(SBlockHeader) <= kBlockAlignment && sizeof(SArena) <= kBlockAlignment,
                  "records fit in front of aligned blocks");
}

CParticlePageAllocator::~CParticlePageAllocator()
{
    TZ_ASSERT(_BytesInUse() == 0);
    CleanAllFreePages();
    Mem::Delete(TZ_CALL_SITE, m_Stats);
}

bool CParticlePageAllocator::Setup()
{
    if (m_Stats == null)
        m_Stats = Mem::New<CParticlePageAllocator_Stats>(TZ_CALL_SITE);
    if (m_Stats == null || Valid() || !m_Blocks.Reserve(kUsedSlotCount))
        return Valid();
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

// A header takes the 64 bytes in front of its block.
CParticlePageAllocator::SBlockHeader *CParticlePageAllocator::_Header(u8 *block)
{
    return reinterpret_cast<SBlockHeader *>(block - kBlockAlignment);
}

u8 *CParticlePageAllocator::_Block(SBlockHeader *header) { return reinterpret_cast<u8 *>(header) + kBlockAlignment; }

// Each arena of a class is twice as large as the one before, up to a limit.
u32 CParticlePageAllocator::_ArenaBlockCount(u32 blockBytes, u32 arenaCount)
{
    const u64 bytes = TZMin(u64(kMinArenaBytes) << TZMin(arenaCount, 16u), u64(kMaxArenaBytes));
    return kSharesArenas ? TZMax(u32(bytes / blockBytes), 1u) : 1u;
}

// An arena of blockCount blocks that are not carved yet; of one, when there is no memory for more. Null without any.
CParticlePageAllocator::SArena *CParticlePageAllocator::_NewArena(u32 blockBytes, u32 blockCount)
{
    const u64 stride = Mem::Align<kBlockAlignment>(u64(blockBytes)) + kBlockAlignment;
    const u64 bytes = sizeof(SArena) + kBlockAlignment + blockCount * stride;
    void *memory = Mem::_RawAlloc(bytes, 0, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__,
                                  __LINE__, TZ_FUNCTION_SIGNATURE);
    if (memory == null)
        return blockCount > 1 ? _NewArena(blockBytes, 1) : null;
    if (blockCount > 1)
        AdviseHugePages(memory, size_t(bytes));
    return Mem::Construct<SArena>(memory, SArena{null, null, blockBytes, blockCount, 0, 0, null});
}

void CParticlePageAllocator::_FreeArena(SArena *arena)
{
    Mem::_RawFree(arena, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
}

bool CParticlePageAllocator::_HasBareBlock(const SArena &arena)
{
    return arena.m_FirstBare != null || arena.m_CarvedCount < arena.m_BlockCount;
}

// One that was used before, else the next one that was not. Requires that there is one.
CParticlePageAllocator::SBlockHeader *CParticlePageAllocator::_TakeBareBlock(SArena &arena)
{
    if (SBlockHeader *header = arena.m_FirstBare)
    {
        arena.m_FirstBare = header->m_NextBare;
        --arena.m_BareCount;
        return header;
    }
    const ureg stride = Mem::Align<kBlockAlignment>(ureg(arena.m_BlockBytes)) + kBlockAlignment;
    const ureg first = Mem::Align<kBlockAlignment>(ureg(&arena) + sizeof(SArena));
    void *place = reinterpret_cast<void *>(first + arena.m_CarvedCount++ * stride);
    return Mem::Construct<SBlockHeader>(place, SBlockHeader{&arena, null, null});
}

// A block without a raw page from one of the class's arenas, or null.
CParticlePageAllocator::SBlockHeader *CParticlePageAllocator::_TakeBareBlock(SBlockPool &pool)
{
    SArena *arena = pool.m_Arenas;
    if (arena == null)
        return null;
    SBlockHeader *header = _TakeBareBlock(*arena);
    if (!_HasBareBlock(*arena))
        _UnlinkArena(pool, *arena);
    return header;
}

void CParticlePageAllocator::_LinkArena(SBlockPool &pool, SArena &arena)
{
    arena.m_Previous = null;
    arena.m_Next = pool.m_Arenas;
    if (pool.m_Arenas != null)
        pool.m_Arenas->m_Previous = &arena;
    pool.m_Arenas = &arena;
}

void CParticlePageAllocator::_UnlinkArena(SBlockPool &pool, SArena &arena)
{
    (arena.m_Previous != null ? arena.m_Previous->m_Next : pool.m_Arenas) = arena.m_Next;
    if (arena.m_Next != null)
        arena.m_Next->m_Previous = arena.m_Previous;
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

CParticleRawPage_MainMemory *CParticlePageAllocator::_TakeWaiting(SBlockPool &pool)
{
    const CPoolLock lock(pool);
    ++pool.m_AllocCount;
    CParticleRawPage_MainMemory *rawPage = pool.m_Newest;
    if (rawPage == null)
        return null;
    pool.m_Newest = rawPage->m_Older;
    (pool.m_Newest != null ? pool.m_Newest->m_Newer : pool.m_Oldest) = null;
    --pool.m_WaitingCount;
    ++pool.m_RecycleCount;
    rawPage->m_IsWaiting = false;
    return rawPage;
}

CParticlePageAllocator::SBlockHeader *CParticlePageAllocator::_NewBlock(u32 slotId, u32 blockBytes)
{
    if (slotId >= m_Blocks.Count())
    {
        SArena *arena = _NewArena(blockBytes, 1);
        return arena != null ? _TakeBareBlock(*arena) : null;
    }
    SBlockPool &pool = _Pool(slotId);
    u32 arenaCount;
    {
        const CPoolLock lock(pool);
        if (SBlockHeader *header = _TakeBareBlock(pool))
            return header;
        arenaCount = pool.m_ArenaCount;
    }
    SArena *arena = _NewArena(blockBytes, _ArenaBlockCount(blockBytes, arenaCount));
    if (arena == null)
        return null;
    const CPoolLock lock(pool);
    _LinkArena(pool, *arena);
    ++pool.m_ArenaCount;
    return _TakeBareBlock(pool);
}

CParticleRawPage_MainMemory *CParticlePageAllocator::_NewRawPage(u32 slotId, u32 blockBytes)
{
    SBlockHeader *header = _NewBlock(slotId, blockBytes);
    if (header == null)
        return null;
    header->m_RawPage = Mem::New<CParticleRawPage_MainMemory>(TZ_CALL_SITE, _Block(header), blockBytes, this);
    if (header->m_RawPage == null)
    {
        _BareBlock(slotId, header);
        return null;
    }
    return header->m_RawPage;
}

// A raw page without a reference, accounted for; null when memory or the budget is out.
CParticleRawPage_MainMemory *CParticlePageAllocator::_TakeRawPage(u32 sizeInBytes)
{
    if (!Valid())
        return null;
    const u32 slotId = _SizeToSlotId(sizeInBytes);
    const u32 blockBytes = _BlockSize(sizeInBytes);
    if (_TakeBytes(blockBytes))
    {
        const bool isPooled = slotId < m_Blocks.Count();
        CParticleRawPage_MainMemory *rawPage = isPooled ? _TakeWaiting(_Pool(slotId)) : null;
        if (rawPage == null)
            rawPage = _NewRawPage(slotId, blockBytes);
        if (rawPage != null)
        {
            Mem::Unpoison(rawPage->m_Data, blockBytes);
            if (!isPooled)
                __atomic_fetch_add(&m_Stats->m_AllocCount, 1, __ATOMIC_RELAXED);
            return rawPage;
        }
        if (isPooled)
        {
            const CPoolLock lock(_Pool(slotId));
            --_Pool(slotId).m_AllocCount;
        }
        _GiveShare(blockBytes);
    }
    _CountRefusal();
    return null;
}

PParticleRawPage_MainMemory CParticlePageAllocator::AllocPage(u32 sizeInBytes)
{
    return PParticleRawPage_MainMemory(_TakeRawPage(sizeInBytes));
}

u8 *CParticlePageAllocator::Alloc(u32 sizeInBytes)
{
    CParticleRawPage_MainMemory *rawPage = _TakeRawPage(sizeInBytes);
    return rawPage != null ? rawPage->m_Data : null;
}

void CParticlePageAllocator::Retire(u8 *block, u32 /*sizeInBytes*/)
{
    if (block == null)
        return;
    CParticleRawPage_MainMemory *rawPage = _Header(block)->m_RawPage;
    if (!_TakeBack(*rawPage))
        Mem::Delete(TZ_CALL_SITE, rawPage);
}

bool CParticlePageAllocator::_TakeBack(CParticleRawPage_MainMemory &rawPage)
{
    const u32 blockBytes = rawPage.m_Size;
    const u32 slotId = _SizeToSlotId(blockBytes);
    if (slotId >= m_Blocks.Count() || m_IsLeftToBlocks)
        return false;
    Mem::Poison(rawPage.m_Data, blockBytes);
    rawPage.m_ReadersCount = 0;
    rawPage.m_RetireDate = __atomic_load_n(&m_CurrentDate, __ATOMIC_RELAXED);
    rawPage.m_IsWaiting = true;
    rawPage.m_Newer = null;
    {
        SBlockPool &pool = _Pool(slotId);
        const CPoolLock lock(pool);
        ++pool.m_RetireCount;
        ++pool.m_WaitingCount;
        rawPage.m_Older = pool.m_Newest;
        (pool.m_Newest != null ? pool.m_Newest->m_Newer : pool.m_Oldest) = &rawPage;
        pool.m_Newest = &rawPage;
    }
    _GiveShare(blockBytes);
    return true;
}

// The end of a raw page: its block is bare again.
void CParticlePageAllocator::_ReturnBlock(CParticleRawPage_MainMemory &rawPage)
{
    const u32 blockBytes = rawPage.m_Size;
    const u32 slotId = _SizeToSlotId(blockBytes);
    SBlockHeader *header = _Header(rawPage.m_Data);
    header->m_RawPage = null;
    if (!rawPage.m_IsWaiting && slotId < m_Blocks.Count())
    {
        const CPoolLock lock(_Pool(slotId));
        ++_Pool(slotId).m_RetireCount;
    }
    else if (!rawPage.m_IsWaiting)
        __atomic_fetch_add(&m_Stats->m_BlocksFree, 1, __ATOMIC_RELAXED);
    const bool isAlive = !rawPage.m_IsWaiting; // what waited is accounted for
    _BareBlock(slotId, header);
    if (isAlive)
        _GiveShare(blockBytes); // may destroy this
}

// Takes a block without a raw page back into its arena, and lets the arena go with its last one.
void CParticlePageAllocator::_BareBlock(u32 slotId, SBlockHeader *header)
{
    SArena *arena = header->m_Arena;
    if (slotId < m_Blocks.Count())
    {
        SBlockPool &pool = _Pool(slotId);
        const CPoolLock lock(pool);
        if (!_HasBareBlock(*arena))
            _LinkArena(pool, *arena);
        header->m_NextBare = arena->m_FirstBare;
        arena->m_FirstBare = header;
        if (++arena->m_BareCount != arena->m_CarvedCount)
            return;
        _UnlinkArena(pool, *arena);
        --pool.m_ArenaCount;
    }
    _FreeArena(arena);
}

void CParticlePageAllocator::_FreeRawPagesRetiredBefore(u32 date)
{
    for (u32 slotId = 0; slotId < m_Blocks.Count(); ++slotId)
    {
        SBlockPool &pool = _Pool(slotId);
        CParticleRawPage_MainMemory *idle = null; // a list through m_Older
        {
            const CPoolLock lock(pool);
            while (pool.m_Oldest != null && s32(pool.m_Oldest->m_RetireDate - date) < 0)
            {
                CParticleRawPage_MainMemory *rawPage = pool.m_Oldest;
                pool.m_Oldest = rawPage->m_Newer;
                (pool.m_Oldest != null ? pool.m_Oldest->m_Older : pool.m_Newest) = null;
                --pool.m_WaitingCount;
                rawPage->m_Older = idle;
                idle = rawPage;
            }
        }
        while (idle != null)
        {
            CParticleRawPage_MainMemory *next = idle->m_Older;
            Mem::Delete(TZ_CALL_SITE, idle);
            idle = next;
        }
    }
}

void CParticlePageAllocator::Update()
{
    m_Lock.Lock();
    const u32 date = __atomic_add_fetch(&m_CurrentDate, 1, __ATOMIC_RELAXED);
    _FreeRawPagesRetiredBefore(date - kMaxIdleUpdates);
    m_Lock.Unlock();
}

void CParticlePageAllocator::CleanAllFreePages()
{
    m_Lock.Lock();
    _FreeRawPagesRetiredBefore(__atomic_load_n(&m_CurrentDate, __ATOMIC_RELAXED) + 1);
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
        outStats.m_BlocksInUse = outStats.m_AllocCount - __atomic_load_n(&m_Stats->m_BlocksFree, __ATOMIC_RELAXED);
        outStats.m_RefusalCount = __atomic_load_n(&m_Stats->m_RefusalCount, __ATOMIC_RELAXED);
    }
    for (u32 slotId = 0; slotId < m_Blocks.Count(); ++slotId)
    {
        SBlockPool &pool = const_cast<SBlockPool &>(m_Blocks.RawDataPointer()[slotId]);
        const CPoolLock lock(pool);
        outStats.m_BytesFree += u64(pool.m_WaitingCount) * _SlotIdToSize(slotId);
        outStats.m_BlocksFree += pool.m_WaitingCount;
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
