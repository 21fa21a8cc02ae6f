// Arenas: memory from the services, division into blocks, return of the memory.
#include "storage_ram_arena.h"

#include <tz_kernel/include/kr_address_sanitizer.h>
#include <tz_kernel/include/kr_memoryviews.h>
#include <tz_kernel/include/kr_threads_basics.h>
#include <tz_memory.h>

namespace Tessaly
{

namespace
{

constexpr u32 kBlockAlignment = 64;
constexpr u32 kServiceAlignment = 16; // the least alignment of the memory services
// Blocks at distances of powers of two have their columns in the same few sets of the caches. A cache line between them
// makes a frame's births and deaths on 100 pages a fifth faster.
constexpr u32 kBytesBetweenBlocks = 64;
// The cost of freeing an arena, in calls that discard a part of one.
constexpr u32 kCallsOfFreeing = 2;

// Under the address sanitizer each block has an arena of its own, so that overflows are seen.
constexpr bool kSharesArenas = !Mem::kIsAddressSanitized;

// Marks a block as returned, or as never taken: then a huge page may hold memory for it, too.
void PushReturned(SPageBlock &block)
{
    SArena &arena = *block.m_Arena;
    block.m_State = SPageBlock::Returned;
    SPageBlock *&list = arena.m_ReturnedLists[u32(block.Data() - arena.m_FirstBlock) / kRunBytes];
    block.m_Next = list;
    list = &block;
    ++arena.m_ReturnedCount;
}

// Makes an arena that is in no list yet. Null when memory is refused.
SArena *NewArena(u32 sizeClass, u32 blockBytes, u32 blockCount)
{
    // At least kArenaBytes for several blocks: the system backs only whole huge pages with huge pages.
    const u32 stride = blockBytes + (blockCount > 1 ? kBytesBetweenBlocks : 0);
    const u64 blocksBytes = u64(stride) * blockCount + kBlockAlignment - kServiceAlignment;
    const u64 memoryBytes = blockCount > 1 ? TZMax(blocksBytes, u64(kArenaBytes)) : blocksBytes;
    void *record = Mem::_RawAlloc(sizeof(SArena) + u64(blockCount) * sizeof(SPageBlock), 0, Mem::AllocType_Generic,
                                  Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE);
    if (record == null)
        return null;
    void *memory = Mem::_RawAlloc(memoryBytes, 0, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__,
                                  __LINE__, TZ_FUNCTION_SIGNATURE);
    if (memory == null)
    {
        Mem::_RawFree(record, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                      TZ_FUNCTION_SIGNATURE);
        return null;
    }
    SArena *arena = Mem::Construct<SArena>(record);
    arena->m_Memory = memory;
    arena->m_MemoryBytes = memoryBytes;
    arena->m_FirstBlock = reinterpret_cast<u8 *>(Mem::Align<kBlockAlignment>(ureg(memory)));
    arena->m_BlockBytes = blockBytes;
    arena->m_BlockStride = stride;
    arena->m_SizeClass = sizeClass;
    arena->m_BlockCount = blockCount;
    arena->m_Blocks = reinterpret_cast<SPageBlock *>(arena + 1);
    for (u32 i = blockCount; i-- != 0;)
    {
        SPageBlock *block = Mem::Construct<SPageBlock>(arena->m_Blocks + i);
        block->m_Arena = arena;
        PushReturned(*block);
    }
    return arena;
}

// Finds the next run of blocks that are not taken, if one of them holds memory, or the bytes after the last block,
// which may lie in a huge page. Marks the run as discarded. Returns an empty view when there is none.
TMemoryView<u8> TakeRunToDiscard(SArena &arena)
{
    u32 &i = arena.m_NextToDiscard;
    while (i <= arena.m_BlockCount)
    {
        u8 *runStart = arena.m_FirstBlock + size_t(i) * arena.m_BlockStride;
        bool holdsMemory = i == arena.m_BlockCount;
        for (; i < arena.m_BlockCount && arena.m_Blocks[i].m_State != SPageBlock::Taken; ++i)
        {
            holdsMemory |= arena.m_Blocks[i].m_State == SPageBlock::Returned;
            arena.m_Blocks[i].m_State = SPageBlock::Discarded;
        }
        const u8 *runEnd = i < arena.m_BlockCount ? arena.m_FirstBlock + size_t(i) * arena.m_BlockStride
                                                  : static_cast<u8 *>(arena.m_Memory) + arena.m_MemoryBytes;
        ++i;
        if (holdsMemory)
            return TMemoryView<u8>(runStart, u32(runEnd - runStart));
    }
    return TMemoryView<u8>();
}

} // namespace

SPageBlock *CPageArenas::Take(u32 sizeClass, u32 blockBytes)
{
    std::unique_lock<std::mutex> lock(m_Lock);
    if (SPageBlock *block = _TakeReturned(sizeClass))
        return block;
    lock.unlock();
    // As many blocks as fit. Large ones may exceed kArenaBytes a little: the bytes between them do not cost a block.
    const bool isShared = kSharesArenas && sizeClass < CParticlePageAllocator::kPoolSlotCount;
    const u32 blockCount = isShared ? (kArenaBytes + blockBytes / 16) / (blockBytes + kBytesBetweenBlocks) : 1;
    SArena *arena = NewArena(sizeClass, blockBytes, blockCount);
    if (arena == null && blockCount > 1)
        arena = NewArena(sizeClass, blockBytes, 1);
    lock.lock();
    SPageBlock *block = _TakeReturned(sizeClass);
    const bool isSurplus = block != null; // another thread has made an arena meanwhile
    if (arena != null)
    {
        arena->m_IsBeingDiscarded = isSurplus;
        m_Arenas[sizeClass].PushFront(*arena);
        __atomic_fetch_add(&m_BytesReserved, arena->m_MemoryBytes, __ATOMIC_RELAXED);
    }
    if (!isSurplus)
        block = _TakeReturned(sizeClass);
    lock.unlock();
    if (arena != null && isSurplus)
        FreeArena(*arena);
    return block;
}

// Takes a returned block of an arena; null when there is none. Under the lock.
//
// A new arena's runs are taken from the end of its memory down: the kernel clears a huge page towards the address that
// is touched first, and upwards twice as fast as downwards; what it cleared last is in the cache. Within a run the
// blocks ascend, so that the prefetcher goes on from one block to the next. Spawning a million particles from nothing
// takes a quarter less. Every other thread takes the runs of a pair in the other order: two threads then write to
// blocks that are not adjacent, and spawn 5 % faster.
SPageBlock *CPageArenas::_TakeReturned(u32 sizeClass)
{
    SArena *arena = m_Arenas[sizeClass].m_First;
    while (arena != null && arena->m_IsBeingDiscarded)
        arena = arena->m_Next;
    if (arena == null || arena->m_ReturnedCount == 0)
        return null;
    const u32 swapsPairs = 1 - CCurrentThread::ThreadID() % 2;
    u32 i = kRunCount - 1;
    while (arena->m_ReturnedLists[i ^ swapsPairs] == null)
        --i;
    SPageBlock *block = arena->m_ReturnedLists[i ^ swapsPairs];
    arena->m_ReturnedLists[i ^ swapsPairs] = block->m_Next;
    block->m_State = SPageBlock::Taken;
    if (--arena->m_ReturnedCount == 0)
    {
        m_Arenas[sizeClass].Remove(*arena);
        m_Arenas[sizeClass].PushBack(*arena);
    }
    __atomic_fetch_add(&m_TakeCount, 1, __ATOMIC_RELAXED);
    return block;
}

void CPageArenas::FreeArena(SArena &arena)
{
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        m_Arenas[arena.m_SizeClass].Remove(arena);
        __atomic_fetch_sub(&m_BytesReserved, arena.m_MemoryBytes, __ATOMIC_RELAXED);
    }
    Mem::Unpoison(arena.m_Memory, arena.m_MemoryBytes); // its next user does not unpoison it
    for (void *freed : {arena.m_Memory, static_cast<void *>(&arena)})
        Mem::_RawFree(freed, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                      TZ_FUNCTION_SIGNATURE);
}

void CPageArenas::Return(SPageBlock &block)
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    SArena &arena = *block.m_Arena;
    if (arena.m_ReturnedCount == 0)
    {
        m_Arenas[arena.m_SizeClass].Remove(arena);
        m_Arenas[arena.m_SizeClass].PushFront(arena);
    }
    PushReturned(block);
    arena.m_NextToDiscard = 0;
    if (!arena.m_IsPending && !arena.m_IsBeingDiscarded)
        _AddPending(arena);
}

// Under the lock.
void CPageArenas::_AddPending(SArena &arena)
{
    arena.m_IsPending = true;
    arena.m_NextPending = null;
    (m_FirstPending != null ? m_LastPending->m_NextPending : m_FirstPending) = &arena;
    m_LastPending = &arena;
}

void CPageArenas::GiveBack(u32 maxCallCount)
{
    std::unique_lock<std::mutex> lock(m_Lock);
    for (u32 callCount = 0; callCount < maxCallCount && m_FirstPending != null;)
    {
        SArena &arena = *m_FirstPending;
        m_FirstPending = arena.m_NextPending;
        arena.m_IsPending = false;
        arena.m_IsBeingDiscarded = true;
        if (arena.m_ReturnedCount == arena.m_BlockCount)
        {
            lock.unlock();
            FreeArena(arena);
            lock.lock();
            callCount += kCallsOfFreeing;
            continue;
        }
        for (; callCount < maxCallCount && arena.m_ReturnedCount != arena.m_BlockCount; ++callCount)
        {
            const TMemoryView<u8> run = TakeRunToDiscard(arena);
            if (run.Empty())
                break;
            lock.unlock();
            Mem::_RawDiscard(run.Data(), run.Count());
            lock.lock();
        }
        arena.m_IsBeingDiscarded = false;
        if (arena.m_NextToDiscard <= arena.m_BlockCount)
            _AddPending(arena); // a later call goes on here
    }
}

SPageBlock *CPageArenas::Find(const u8 *data)
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    for (const TLinkedList<SArena> &arenas : m_Arenas)
    {
        for (SArena *arena = arenas.m_First; arena != null; arena = arena->m_Next)
        {
            const ureg offset = ureg(data) - ureg(arena->m_FirstBlock);
            if (offset / arena->m_BlockStride >= arena->m_BlockCount || offset % arena->m_BlockStride != 0)
                continue;
            SPageBlock *block = arena->m_Blocks + offset / arena->m_BlockStride;
            return block->m_IsFromAlloc ? block : null;
        }
    }
    return null;
}

} // namespace Tessaly
