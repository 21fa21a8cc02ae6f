// Arenas: memory from the services, carving, giving back.
#include "storage_ram_arena.h"

#include <tz_kernel/include/kr_address_sanitizer.h>
#include <tz_memory.h>

namespace Tessaly
{

namespace
{

constexpr u32 kBlockAlignment = 64;
constexpr u32 kArenaBytes = 4 << 20;  // two huge pages; a block of every class leaves at most an eighth over
constexpr u32 kServiceAlignment = 16; // what the memory services give without being asked

// The address sanitizer sees more when blocks do not share their memory.
constexpr bool kSharesArenas = !Mem::kIsAddressSanitized;

// Blocks at distances of powers of two have their columns in the same few sets of the caches: a cache line further
// apart, a frame's life of 100 pages is a fifth faster.
u32 BlockStride(u32 blockBytes) { return blockBytes + kBlockAlignment; }
// As many as begin in so much: the bytes between them do not cost the last one its place.
u32 SharedBlockCount(u32 blockBytes) { return (kArenaBytes + blockBytes / 16) / BlockStride(blockBytes); }

bool HasBlock(const SArena &arena) { return arena.m_ReturnedList != null || arena.m_CarvedCount < arena.m_BlockCount; }

// Freeing an arena's memory takes the system about as long as so many calls that discard a part of one.
constexpr u32 kCallsOfFreeing = 2;

void *Allocate(u64 bytes)
{
    return Mem::_RawAlloc(bytes, 0, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                          TZ_FUNCTION_SIGNATURE);
}

void Free(void *memory)
{
    Mem::_RawFree(memory, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
}

} // namespace

SPageBlock *CPageArenas::Take(u32 slotId, u32 blockBytes)
{
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        SArena *arena = m_Arenas[slotId].m_First;
        while (arena != null && arena->m_IsBeingDiscarded)
            arena = arena->m_Next;
        if (arena != null && HasBlock(*arena))
            return &_TakeFrom(*arena);
    }
    const bool isShared = kSharesArenas && slotId < CParticlePageAllocator::kPoolSlotCount;
    SArena *arena = isShared ? _NewArena(slotId, blockBytes, SharedBlockCount(blockBytes)) : null;
    if (arena == null)
        arena = _NewArena(slotId, blockBytes, 1);
    if (arena == null)
        return null;
    const std::lock_guard<std::mutex> lock(m_Lock);
    m_Arenas[slotId].PushFront(*arena);
    __atomic_fetch_add(&m_BytesReserved, arena->m_MemoryBytes, __ATOMIC_RELAXED);
    return &_TakeFrom(*arena);
}

// The block that was returned last, else one that was never out. Under the lock; requires that there is one.
SPageBlock &CPageArenas::_TakeFrom(SArena &arena)
{
    SPageBlock *block = arena.m_ReturnedList;
    if (block != null)
    {
        arena.m_ReturnedList = block->m_Next;
        --arena.m_ReturnedCount;
        block->m_Place = SPageBlock::Out;
    }
    else
        block = Mem::Construct<SPageBlock>(arena.m_Blocks + arena.m_CarvedCount++,
                                           SPageBlock{null, null, &arena, null, 0, SPageBlock::Out});
    if (!HasBlock(arena))
    {
        m_Arenas[arena.m_SlotId].Remove(arena);
        m_Arenas[arena.m_SlotId].PushBack(arena);
    }
    __atomic_fetch_add(&m_TakeCount, 1, __ATOMIC_RELAXED);
    return *block;
}

// An arena that is in no list yet. Null when memory is refused.
SArena *CPageArenas::_NewArena(u32 slotId, u32 blockBytes, u32 blockCount)
{
    // As large as an arena is when there are several blocks: only whole huge pages can be had.
    const u32 stride = BlockStride(blockBytes);
    const u64 blocksBytes = u64(stride) * blockCount + kBlockAlignment - kServiceAlignment;
    const u64 memoryBytes = blockCount > 1 ? TZMax(blocksBytes, u64(kArenaBytes)) : blocksBytes;
    SArena *arena = static_cast<SArena *>(Allocate(sizeof(SArena) + u64(blockCount) * sizeof(SPageBlock)));
    void *memory = arena != null ? Allocate(memoryBytes) : null;
    if (memory == null)
    {
        Free(arena);
        return null;
    }
    *arena = SArena();
    arena->m_Memory = memory;
    arena->m_MemoryBytes = memoryBytes;
    arena->m_FirstBlock = reinterpret_cast<u8 *>(Mem::Align<kBlockAlignment>(ureg(memory)));
    arena->m_BlockBytes = blockBytes;
    arena->m_BlockStride = stride;
    arena->m_SlotId = slotId;
    arena->m_BlockCount = blockCount;
    arena->m_Blocks = reinterpret_cast<SPageBlock *>(arena + 1);
    return arena;
}

void CPageArenas::_FreeMemory(SArena *arena)
{
    Mem::Unpoison(arena->m_Memory, arena->m_MemoryBytes); // whoever has the memory next knows nothing of it
    Free(arena->m_Memory);
    Free(arena);
}

void CPageArenas::FreeAtOnce(SPageBlock &block)
{
    SArena *arena = block.m_Arena;
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        m_Arenas[arena->m_SlotId].Remove(*arena);
        __atomic_fetch_sub(&m_BytesReserved, arena->m_MemoryBytes, __ATOMIC_RELAXED);
    }
    _FreeMemory(arena);
}

void CPageArenas::Return(SPageBlock &block)
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    SArena &arena = *block.m_Arena;
    if (!HasBlock(arena))
    {
        m_Arenas[arena.m_SlotId].Remove(arena);
        m_Arenas[arena.m_SlotId].PushFront(arena);
    }
    block.m_Place = SPageBlock::Returned;
    block.m_Next = arena.m_ReturnedList;
    arena.m_ReturnedList = &block;
    ++arena.m_ReturnedCount;
    arena.m_NextToDiscard = 0;
    if (!arena.m_IsWaiting)
        _Await(arena);
}

// Lists an arena for GiveBack, behind those that wait. Under the lock.
void CPageArenas::_Await(SArena &arena)
{
    arena.m_IsWaiting = true;
    arena.m_NextWaiting = null;
    (m_FirstWaiting != null ? m_LastWaiting->m_NextWaiting : m_FirstWaiting) = &arena;
    m_LastWaiting = &arena;
}

// The arena that waits longest; null when none does. One whose blocks are all returned is out of every list then, the
// others hand out nothing until they are looked at.
SArena *CPageArenas::_NextWaiting()
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    SArena *arena = m_FirstWaiting;
    if (arena == null)
        return null;
    m_FirstWaiting = arena->m_NextWaiting;
    arena->m_IsWaiting = false;
    arena->m_IsBeingDiscarded = true;
    if (arena->m_ReturnedCount == arena->m_CarvedCount)
    {
        m_Arenas[arena->m_SlotId].Remove(*arena);
        __atomic_fetch_sub(&m_BytesReserved, arena->m_MemoryBytes, __ATOMIC_RELAXED);
    }
    return arena;
}

void CPageArenas::GiveBack(u32 maxCallCount)
{
    for (u32 callCount = 0; callCount < maxCallCount;)
    {
        SArena *arena = _NextWaiting();
        if (arena == null)
            return;
        if (arena->m_ReturnedCount == arena->m_CarvedCount)
        {
            _FreeMemory(arena);
            callCount += kCallsOfFreeing;
            continue;
        }
        callCount += _Discard(*arena, maxCallCount - callCount);
        const std::lock_guard<std::mutex> lock(m_Lock);
        arena->m_IsBeingDiscarded = false;
        if (arena->m_NextToDiscard == arena->m_BlockCount)
            continue;
        _Await(*arena); // for the rest of it
    }
}

// Discards each run of blocks that are not out, and of which one still holds memory; blocks that were never out count
// as well, since a huge page may have given them memory. Returns the number of calls.
u32 CPageArenas::_Discard(SArena &arena, u32 maxCallCount)
{
    u32 callCount = 0;
    u32 i = arena.m_NextToDiscard;
    while (i < arena.m_BlockCount && callCount < maxCallCount)
    {
        const u32 runStart = i;
        bool holdsMemory = false;
        for (; i < arena.m_BlockCount; ++i)
        {
            if (i >= arena.m_CarvedCount)
                continue;
            if (arena.m_Blocks[i].m_Place == SPageBlock::Out)
                break;
            holdsMemory |= arena.m_Blocks[i].m_Place == SPageBlock::Returned;
            arena.m_Blocks[i].m_Place = SPageBlock::Discarded;
        }
        if (holdsMemory)
        {
            Mem::_RawDiscard(arena.m_FirstBlock + size_t(runStart) * arena.m_BlockStride,
                             u64(i - runStart) * arena.m_BlockStride);
            ++callCount;
        }
        i += i == runStart ? 1 : 0;
    }
    arena.m_NextToDiscard = i;
    return callCount;
}

SPageBlock *CPageArenas::Find(const u8 *data)
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    for (const TLinkedList<SArena> &arenas : m_Arenas)
    {
        for (SArena *arena = arenas.m_First; arena != null; arena = arena->m_Next)
        {
            const ureg offset = ureg(data) - ureg(arena->m_FirstBlock);
            if (offset / arena->m_BlockStride < arena->m_CarvedCount && offset % arena->m_BlockStride == 0)
                return arena->m_Blocks + offset / arena->m_BlockStride;
        }
    }
    return null;
}

} // namespace Tessaly
