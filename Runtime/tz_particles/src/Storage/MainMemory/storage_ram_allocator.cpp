// The page allocator: size classes, arenas, pools, budget, maintenance. The threads' fronts are in a file of their own.
#include <sys/mman.h>

#include <cstring>

#include <tz_kernel/include/kr_address_sanitizer.h>
#include <tz_kernel/include/kr_mem.h>
#include <tz_memory.h>

#include "storage_ram_allocator_pools.h"

namespace Tessaly
{

namespace
{

using PageClasses::kBlockAlignment;
using PageClasses::kMinAllocSizeLog2;
using PageClasses::kStepsPerDoubling;
using PageClasses::kUsedSlotCount;

constexpr u32 kArenaRecordBytes = 2 * kBlockAlignment; // up to the first header, wherever the arena lies
constexpr u32 kHugePageBytes = 2 << 20;
constexpr u32 kSmallPageBytes = 4 << 10;
constexpr u32 kMinApartBytes = 512 << 10;
constexpr u32 kMinArenaBytes = 64 << 10;
constexpr u32 kMaxArenaBytes = 16 << 20;
constexpr u64 kMinBytesForHugePages = kHugePageBytes; // of a class: a huge page wastes at most what it used before

// The address sanitizer sees more when blocks do not share their memory.
constexpr bool kSharesArenas = !Mem::kIsAddressSanitized;

// First touch in huge pages costs a tenth of what it costs in small ones, and later passes miss fewer translations.
// Advice only. Requires the start of a huge page.
void AdviseHugePages(ureg start, ureg bytes)
{
#if defined(MADV_HUGEPAGE)
    madvise(reinterpret_cast<void *>(start), bytes, MADV_HUGEPAGE);
#endif
}

// The kernel clears a huge page towards the place that is touched first, twice as fast upwards as downwards. So this
// one is touched at its end, by the kernel, since others may be writing there. Where it cannot, nothing comes of it.
void TouchEndOfHugePage(ureg start)
{
#if defined(MADV_POPULATE_WRITE)
    constexpr u32 kTouchedBytes = 64 << 10; // a multiple of any small page
    madvise(reinterpret_cast<void *>(start + kHugePageBytes - kTouchedBytes), kTouchedBytes, MADV_POPULATE_WRITE);
#endif
}

} // namespace

CParticlePageAllocator::CParticlePageAllocator()
    : m_Id(_NextId())
    , m_FrontsAreOpen(false)
    , m_IsLeftToBlocks(false)
    , m_MemoryBudget(0)
    , m_TotalMemoryUsed(kOwnerShare)
    , m_CurrentDate(0)
    , m_Stats(null)
{
    static_assert(sizeof(SBlockHeader) <= kBlockAlignment && sizeof(SArena) <= kBlockAlignment,
                  "records fit in front of aligned blocks");
}

CParticlePageAllocator::~CParticlePageAllocator()
{
    TZ_ASSERT(_BytesInUse() == 0);
    CleanAllFreePages();
    _FreeFronts();
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
    _EmptyFronts(); // there is none, and from now on they are open
    _BindFrontIFN();
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

// Bytes that a block takes in an arena, its header included. Blocks of half a MiB and more stand a small page further
// apart: at a distance of a power of two their first pages would share a few entries for translations.
u64 CParticlePageAllocator::_BlockStride(u32 blockBytes)
{
    const u32 apart = blockBytes >= kMinApartBytes ? kSmallPageBytes : 0;
    return Mem::Align<kBlockAlignment>(u64(blockBytes)) + kBlockAlignment + apart;
}

// Blocks of the next arena of a class that has classBlockCount in arenas. Each arena holds about as much as all before
// it, up to a limit; the first ones make do without huge pages, the later ones use up as many as they begin.
u32 CParticlePageAllocator::_ArenaBlockCount(u32 blockBytes, u32 classBlockCount)
{
    if (!kSharesArenas)
        return 1;
    const u64 stride = _BlockStride(blockBytes);
    const u64 classBytes = classBlockCount * stride;
    const u64 bytes = TZMin(classBytes + kMinArenaBytes, u64(kMaxArenaBytes));
    if (bytes >= kMinBytesForHugePages)
        return u32((bytes / kHugePageBytes * kHugePageBytes + stride - 1) / stride);
    return u32(TZMax(TZMin(bytes, kMinBytesForHugePages - classBytes) / stride, u64(1)));
}

// An arena of blockCount blocks that are not carved yet; of one, when there is no memory for more. Null without any.
CParticlePageAllocator::SArena *CParticlePageAllocator::_NewArena(u32 blockBytes, u32 blockCount)
{
    const u64 blocksBytes = blockCount * _BlockStride(blockBytes);
    const bool hasHugePages = blockCount > 1 && blocksBytes >= kHugePageBytes;
    const u64 bytes = kArenaRecordBytes + blocksBytes + (hasHugePages ? kHugePageBytes : 0);
    void *memory = Mem::_RawAlloc(bytes, 0, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__,
                                  __LINE__, TZ_FUNCTION_SIGNATURE);
    if (memory == null)
        return blockCount > 1 ? _NewArena(blockBytes, 1) : null;
    const ureg alignment = hasHugePages ? kHugePageBytes : kBlockAlignment;
    const ureg firstBlock = (ureg(memory) + sizeof(SArena) + alignment - 1) & ~(alignment - 1);
    const ureg hugeBytes = hasHugePages ? ureg(blocksBytes) & ~ureg(kHugePageBytes - 1) : 0;
    if (hasHugePages)
        AdviseHugePages(firstBlock, hugeBytes);
    return Mem::Construct<SArena>(
        memory, SArena{null, null, firstBlock, firstBlock + hugeBytes, blockBytes, blockCount, 0, 0, null});
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
CParticlePageAllocator::SBlockPlace CParticlePageAllocator::_TakeBareBlock(SArena &arena)
{
    if (SBlockHeader *header = arena.m_FirstBare)
    {
        arena.m_FirstBare = header->m_NextBare;
        --arena.m_BareCount;
        return SBlockPlace{&arena, header};
    }
    const ureg stride = ureg(_BlockStride(arena.m_BlockBytes));
    return SBlockPlace{&arena, reinterpret_cast<void *>(arena.m_FirstBlock + arena.m_CarvedCount++ * stride)};
}

// A block without a raw page from one of the class's arenas, or none.
CParticlePageAllocator::SBlockPlace CParticlePageAllocator::_TakeBareBlock(SBlockPool &pool)
{
    SArena *arena = pool.m_Arenas;
    if (arena == null)
        return SBlockPlace{null, null};
    const SBlockPlace place = _TakeBareBlock(*arena);
    if (!_HasBareBlock(*arena))
        _UnlinkArena(pool, *arena);
    return place;
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

// What threads' fronts count beside it may make a count of bytes look less than none for a moment: then it is none.
u64 CParticlePageAllocator::_WithoutOwnerShare(u64 count)
{
    const u64 bytes = count & ~kOwnerShare;
    return bytes < kOwnerShare / 2 ? bytes : 0;
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
        if (_WithoutOwnerShare(used) + blockBytes > budget)
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

// A batch of what waits, the oldest first. Where it is listed the address sanitizer sees less: it has to, to know that
// it is not lost.
CParticlePageAllocator::SBlockHeader &CParticlePageAllocator::_MakeBatch(const SWaiting *waiting, u32 count)
{
    static_assert((PageClasses::kMaxBatchSize - 1) * sizeof(SWaiting) <= kMinAllocSize, "any block holds the list");
    u8 *list = waiting[0].Block();
    const size_t listBytes = (count - 1) * sizeof(*waiting);
    Mem::Unpoison(list, listBytes);
    std::memcpy(list, waiting + 1, listBytes);
    SBlockHeader &first = *_Header(list);
    first.m_BatchCount = count;
    return first;
}

// What waits in a batch that is in no pool any more, the oldest first; returns its number.
u32 CParticlePageAllocator::_ReadBatch(SBlockHeader &first, SWaiting *outWaiting)
{
    const u32 count = first.m_BatchCount;
    const size_t listBytes = (count - 1) * sizeof(*outWaiting);
    outWaiting[0] = SWaiting(first.m_RawPage);
    std::memcpy(outWaiting + 1, _Block(&first), listBytes);
    Mem::Poison(_Block(&first), listBytes);
    return count;
}

void CParticlePageAllocator::_LinkBatch(SBlockPool &pool, SBlockHeader &first, u32 date)
{
    first.m_BatchDate = date;
    first.m_NewerBatch = null;
    first.m_OlderBatch = pool.m_NewestBatch;
    (pool.m_NewestBatch != null ? pool.m_NewestBatch->m_NewerBatch : pool.m_OldestBatch) = &first;
    pool.m_NewestBatch = &first;
    pool.m_WaitingCount += first.m_BatchCount;
}

void CParticlePageAllocator::_UnlinkBatch(SBlockPool &pool, SBlockHeader &first)
{
    (first.m_NewerBatch != null ? first.m_NewerBatch->m_OlderBatch : pool.m_NewestBatch) = first.m_OlderBatch;
    (first.m_OlderBatch != null ? first.m_OlderBatch->m_NewerBatch : pool.m_OldestBatch) = first.m_NewerBatch;
    pool.m_WaitingCount -= first.m_BatchCount;
}

// The newest block that waits in the pool, or null.
u8 *CParticlePageAllocator::_TakeWaiting(SBlockPool &pool)
{
    const CPoolLock lock(pool);
    SBlockHeader *first = pool.m_NewestBatch;
    if (first == null)
        return null;
    SWaiting waiting(first->m_RawPage);
    if (first->m_BatchCount > 1)
    {
        const u32 newest = --first->m_BatchCount - 1; // among those that are listed in the oldest one's bytes
        std::memcpy(&waiting, _Block(first) + newest * sizeof(waiting), sizeof(waiting));
        --pool.m_WaitingCount;
    }
    else
        _UnlinkBatch(pool, *first);
    ++pool.m_AllocCount;
    ++pool.m_RecycleCount;
    return waiting.Block();
}

// A block from an arena of its class, or from a new one. None, when memory is out.
CParticlePageAllocator::SBlockPlace CParticlePageAllocator::_TakeBlock(u32 slotId, u32 blockBytes)
{
    if (slotId >= m_Blocks.Count())
    {
        SArena *arena = _NewArena(blockBytes, 1);
        return arena != null ? _TakeBareBlock(*arena) : SBlockPlace{null, null};
    }
    SBlockPool &pool = _Pool(slotId);
    u32 classBlockCount;
    {
        const CPoolLock lock(pool);
        const SBlockPlace place = _TakeBareBlock(pool);
        if (place.m_Header != null)
            return place;
        classBlockCount = pool.m_BlockCount;
    }
    SArena *arena = _NewArena(blockBytes, _ArenaBlockCount(blockBytes, classBlockCount));
    if (arena == null)
        return SBlockPlace{null, null};
    const CPoolLock lock(pool);
    _LinkArena(pool, *arena);
    pool.m_BlockCount += arena->m_BlockCount;
    return _TakeBareBlock(pool);
}

// A block without a raw page, or null. Under no lock is its memory touched: the first touch may take long.
CParticlePageAllocator::SBlockHeader *CParticlePageAllocator::_NewBlock(u32 slotId, u32 blockBytes)
{
    const SBlockPlace place = _TakeBlock(slotId, blockBytes);
    if (place.m_Header == null)
        return null;
    const ureg start = ureg(place.m_Header);
    const ureg hugePage = Mem::Align<kHugePageBytes>(start);
    if (hugePage < TZMin(start + ureg(_BlockStride(blockBytes)), place.m_Arena->m_HugePagesEnd))
        TouchEndOfHugePage(hugePage);
    return Mem::Construct<SBlockHeader>(place.m_Header,
                                        SBlockHeader{place.m_Arena, null, null, null, null, 0, 0, slotId});
}

// A block that was bare, with a raw page on it, or null.
u8 *CParticlePageAllocator::_NewRawPage(u32 slotId, u32 blockBytes)
{
    SBlockHeader *header = _NewBlock(slotId, blockBytes);
    if (header == null)
        return null;
    header->m_RawPage = Mem::New<CParticleRawPage_MainMemory>(TZ_CALL_SITE, _Block(header), blockBytes, slotId, this,
                                                              Mem::kIsAddressSanitized);
    if (header->m_RawPage == null)
    {
        _BareBlock(slotId, header);
        return null;
    }
    if (slotId < m_Blocks.Count())
    {
        const CPoolLock lock(_Pool(slotId));
        ++_Pool(slotId).m_AllocCount;
    }
    else
        __atomic_fetch_add(&m_Stats->m_AllocCount, 1, __ATOMIC_RELAXED);
    return _Block(header);
}

// A block from the pool, else a new one; in want of memory, one that waits with another thread.
u8 *CParticlePageAllocator::_TakeFromPool(u32 slotId)
{
    SBlockPool &pool = _Pool(slotId);
    u8 *block = _TakeWaiting(pool);
    if (block == null)
        block = _NewRawPage(slotId, _SlotIdToSize(slotId));
    if (block == null)
    {
        _EmptyFronts();
        block = _TakeWaiting(pool);
    }
    return block;
}

// A block, accounted for, when the front has none at hand; null when memory or the budget is out.
u8 *CParticlePageAllocator::_TakeElsewhere(u32 sizeInBytes)
{
    if (!Valid())
        return null;
    const u32 slotId = TZMin(_SizeToSlotId(sizeInBytes), kUsedSlotCount);
    const bool isPooled = slotId < kUsedSlotCount;
    if (isPooled && _HasRefilled(slotId))
    {
        SWaiting waiting;
        if (_TakeFromFront(slotId, waiting))
            return waiting.Block();
    }
    const u32 blockBytes = isPooled ? _SlotIdToSize(slotId) : sizeInBytes;
    if (_TakeBytes(blockBytes))
    {
        if (u8 *block = isPooled ? _TakeFromPool(slotId) : _NewRawPage(slotId, blockBytes))
        {
            Mem::Unpoison(block, blockBytes);
            return block;
        }
        _GiveShare(blockBytes);
    }
    _CountRefusal();
    return null;
}

u8 *CParticlePageAllocator::Alloc(u32 sizeInBytes)
{
    SWaiting waiting;
    if (TZ_LIKELY(sizeInBytes <= kMaxAllocSize && _TakeFromFront(PageClasses::SlotIdOf(sizeInBytes), waiting)))
        return waiting.Block();
    return _TakeElsewhere(sizeInBytes);
}

CParticleRawPage_MainMemory *CParticlePageAllocator::_AllocRawPage(u32 sizeInBytes)
{
    SWaiting waiting;
    if (TZ_UNLIKELY(sizeInBytes > kMaxAllocSize || !_TakeFromFront(PageClasses::SlotIdOf(sizeInBytes), waiting)))
        return _AllocRawPageElsewhere(sizeInBytes);
    CParticleRawPage_MainMemory *rawPage = waiting.RawPage();
    rawPage->_InternalSetFirstRef();
    return rawPage;
}

CParticleRawPage_MainMemory *CParticlePageAllocator::_AllocRawPageElsewhere(u32 sizeInBytes)
{
    u8 *block = _TakeElsewhere(sizeInBytes);
    if (block == null)
        return null;
    CParticleRawPage_MainMemory *rawPage = _Header(block)->m_RawPage;
    rawPage->_InternalSetFirstRef();
    return rawPage;
}

void CParticlePageAllocator::Retire(u8 *block, u32 sizeInBytes)
{
    if (TZ_UNLIKELY(block == null || sizeInBytes > kMaxAllocSize ||
                    !_IsOfSlot(block, PageClasses::SlotIdOf(sizeInBytes)) ||
                    !_GiveToFront(SWaiting(block), PageClasses::SlotIdOf(sizeInBytes))))
        _RetireElsewhere(block, sizeInBytes);
}

// What the header says counts, whatever size came along: else a block would be handed out as larger than it is.
bool CParticlePageAllocator::_IsOfSlot(u8 *block, u32 slotId) { return _Header(block)->m_SlotId == slotId; }

void CParticlePageAllocator::_RetireElsewhere(u8 *block, u32 sizeInBytes)
{
    if (block == null)
        return;
    const u32 slotId = _Header(block)->m_SlotId;
    TZ_ASSERT(slotId == TZMin(_SizeToSlotId(sizeInBytes), kUsedSlotCount));
    if (slotId < kUsedSlotCount && _HasRoom(slotId) && _GiveToFront(SWaiting(block), slotId))
        return;
    CParticleRawPage_MainMemory *rawPage = _Header(block)->m_RawPage;
    if (!_GiveElsewhere(*rawPage))
        Mem::Delete(TZ_CALL_SITE, rawPage);
}

// Lets a block wait that the front has no room at hand for; false when it is not to.
bool CParticlePageAllocator::_GiveElsewhere(CParticleRawPage_MainMemory &rawPage)
{
    const u32 slotId = rawPage.m_SlotId;
    if (slotId >= kUsedSlotCount || m_IsLeftToBlocks)
        return false;
    if (_HasRoom(slotId) && _GiveToFront(SWaiting(&rawPage), slotId))
        return true;
    const u32 blockBytes = rawPage.m_Size; // once it waits it may be anybody's
    Mem::Poison(rawPage.m_Data, blockBytes);
    SBlockPool &pool = _Pool(slotId);
    {
        const SWaiting waiting(&rawPage);
        SBlockHeader &batch = _MakeBatch(&waiting, 1);
        const CPoolLock lock(pool);
        _LinkBatch(pool, batch, _Date());
        ++pool.m_RetireCount;
    }
    _GiveShare(blockBytes);
    return true;
}

CParticleRawPage_MainMemory::~CParticleRawPage_MainMemory()
{
    Mem::Unpoison(m_Data, m_Size); // whoever owns the memory next knows nothing of it
    m_Allocator->_ReturnBlock(*this);
}

void CParticleRawPage_MainMemory::_OpenWholeBlock() const { Mem::Unpoison(m_Data, m_Size); }

void CParticleRawPage_MainMemory::_DeleteObjectOrKeep(void *memory)
{
    __atomic_store_n(&m_ReadersCount, 0u, __ATOMIC_RELAXED); // readers who forgot to end
    if (TZ_UNLIKELY(!m_Allocator->_GiveToFront(CParticlePageAllocator::SWaiting(this), m_SlotId)))
        _DeleteObjectOrKeepElsewhere(memory);
}

void CParticleRawPage_MainMemory::_DeleteObjectOrKeepElsewhere(void *memory)
{
    if (!m_Allocator->_GiveElsewhere(*this))
        CRefCountedObject::_DeleteObjectOrKeep(memory);
}

// The end of a raw page: its block is bare again.
void CParticlePageAllocator::_ReturnBlock(CParticleRawPage_MainMemory &rawPage)
{
    const u32 blockBytes = rawPage.m_Size;
    const u32 slotId = rawPage.m_SlotId;
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
        pool.m_BlockCount -= arena->m_BlockCount;
    }
    _FreeArena(arena);
}

void CParticlePageAllocator::_FreeRawPagesRetiredBefore(u32 date)
{
    for (u32 slotId = 0; slotId < m_Blocks.Count(); ++slotId)
    {
        SBlockPool &pool = _Pool(slotId);
        SBlockHeader *idle = null; // batches, through m_OlderBatch
        {
            const CPoolLock lock(pool);
            while (pool.m_OldestBatch != null && s32(pool.m_OldestBatch->m_BatchDate - date) < 0)
            {
                SBlockHeader *first = pool.m_OldestBatch;
                _UnlinkBatch(pool, *first);
                first->m_OlderBatch = idle;
                idle = first;
            }
        }
        while (idle != null)
        {
            SWaiting waiting[PageClasses::kMaxBatchSize];
            const u32 count = _ReadBatch(*idle, waiting);
            idle = idle->m_OlderBatch;
            for (u32 i = 0; i < count; ++i)
            {
                CParticleRawPage_MainMemory *rawPage = waiting[i].RawPage();
                rawPage->m_IsWaiting = true;
                Mem::Delete(TZ_CALL_SITE, rawPage);
            }
        }
    }
}

void CParticlePageAllocator::Update()
{
    m_Lock.Lock();
    _EmptyFronts();
    const u32 date = __atomic_add_fetch(&m_CurrentDate, 1, __ATOMIC_RELAXED);
    _FreeRawPagesRetiredBefore(date - kMaxIdleUpdates);
    m_Lock.Unlock();
}

void CParticlePageAllocator::CleanAllFreePages()
{
    m_Lock.Lock();
    _EmptyFronts();
    _FreeRawPagesRetiredBefore(_Date() + 1);
    m_Lock.Unlock();
}

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
        _AddStatsOfClass(slotId, outStats);
}

void CParticlePageAllocator::_LeaveToBlocks()
{
    m_IsLeftToBlocks = true;
    CleanAllFreePages();
    _GiveShare(kOwnerShare);
}

} // namespace Tessaly
