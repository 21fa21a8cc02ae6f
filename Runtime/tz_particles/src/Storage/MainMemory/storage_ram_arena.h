// Arenas: the memory that the page allocator has from the memory services. The library's own; not installed.
//
// An arena is one request's memory, cut into blocks of one size class. A block is out (with the page allocator, which
// uses it or keeps it on a free list) or returned. The services get an arena back when all of its blocks are returned,
// and are told before that which of its bytes nobody needs. Records stand apart from the bytes, so that the memory of a
// returned block can go back whole.
//
//   m_ReturnedCount <= m_CarvedCount <= m_BlockCount
#pragma once

#include <mutex>

#include <tz_kernel/include/kr_mem.h>
#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

namespace Tessaly
{

// Blocks of one class in one piece of memory.
struct SArena
{
    void *m_Memory; // as the services gave it
    u64 m_MemoryBytes;
    u8 *m_TopBlock; // block 0; the others lie below it
    u32 m_BlockBytes;
    u32 m_BlockStride;
    u32 m_SlotId; // kPoolSlotCount: one block that is not pooled
    u32 m_BlockCount;
    u32 m_CarvedCount; // blocks that were out at least once: the first ones
    u32 m_ReturnedCount;
    u32 m_NextToDiscard;        // blocks before it were looked at since the last one was returned
    SPageBlock *m_ReturnedList; // newest first
    SArena *m_Next;             // among the arenas of its class
    SArena *m_Previous;
    SArena *m_NextWaiting;                // among those that GiveBack has to look at
    bool m_IsWaiting, m_IsBeingDiscarded; // while it is discarded, it hands out nothing
    SPageBlock *m_Blocks; // m_BlockCount records behind this one; the first m_CarvedCount are constructed
};

// A block's record.
struct SPageBlock
{
    // Where a block is. Written under the arenas' lock.
    enum EPlace : u8
    {
        Out,
        Returned,  // it still holds memory
        Discarded, // it holds none, but for what it shares with blocks that are out
    };

    SPageBlock *m_Next; // on a free list the one that was released before; of a returned one, the arena's next
    union
    {
        SPageBlock *m_Previous;
        CParticleRawPage_MainMemory *m_RawPage; // of a block that Alloc gave
    };
    SArena *m_Arena;
    u32 m_ReleaseDate; // in updates of the page allocator
    EPlace m_Place;
    bool m_IsFromAlloc;

    u32 Size() const { return m_Arena->m_BlockBytes; }
    u8 *Data() const { return m_Arena->m_TopBlock - size_t(this - m_Arena->m_Blocks) * m_Arena->m_BlockStride; }
};

// A list through m_Next and m_Previous.
template <typename _Type>
struct TLinkedList
{
    _Type *m_First = null;
    _Type *m_Last = null;

    void PushFront(_Type &element)
    {
        element.m_Previous = null;
        element.m_Next = m_First;
        (m_First != null ? m_First->m_Previous : m_Last) = &element;
        m_First = &element;
    }
    void PushBack(_Type &element)
    {
        element.m_Next = null;
        element.m_Previous = m_Last;
        (m_Last != null ? m_Last->m_Next : m_First) = &element;
        m_Last = &element;
    }
    void Remove(_Type &element)
    {
        (element.m_Previous != null ? element.m_Previous->m_Next : m_First) = element.m_Next;
        (element.m_Next != null ? element.m_Next->m_Previous : m_Last) = element.m_Previous;
    }
};

// The arenas of all size classes. Any thread may call Take, FreeArena, Find and the queries; Return and GiveBack are
// called by one thread at a time. No memory service is called under the lock.
class CPageArenas : public CNonCopyable
{
public:
    // A block, which is out then: of an arena of its class, else of a new one. Null when memory is refused.
    SPageBlock *Take(u32 slotId, u32 blockBytes);
    // Takes a block back. Its memory goes with GiveBack.
    void Return(SPageBlock &block);
    // Frees an arena. Requires that none of its blocks is used any more.
    void FreeArena(SArena &arena);
    // Frees arenas whose blocks are all returned, and discards the bytes of returned blocks between those that are out:
    // at most maxCallCount calls of the services.
    void GiveBack(u32 maxCallCount);
    // The record of a block that begins at data and was given by Alloc; null when there is none.
    SPageBlock *Find(const u8 *data);

    u64 BytesReserved() const { return __atomic_load_n(&m_BytesReserved, __ATOMIC_RELAXED); } // from the services
    u64 TakeCount() const { return __atomic_load_n(&m_TakeCount, __ATOMIC_RELAXED); }         // blocks taken

private:
    static constexpr u32 kClassCount = CParticlePageAllocator::kPoolSlotCount + 1;

    SArena *_NewArena(u32 slotId, u32 blockBytes, u32 blockCount);
    SPageBlock &_TakeFrom(SArena &arena);
    static u32 _Discard(SArena &arena, u32 maxCallCount);

    std::mutex m_Lock;                         // guards the rest
    TLinkedList<SArena> m_Arenas[kClassCount]; // those with a block to hand out stand first
    SArena *m_FirstWaiting = null;             // this and the next one for Return and GiveBack alone
    SArena *m_LastWaiting = null;
    u64 m_BytesReserved = 0; // this and the next one are read without the lock
    u64 m_TakeCount = 0;
};

} // namespace Tessaly
