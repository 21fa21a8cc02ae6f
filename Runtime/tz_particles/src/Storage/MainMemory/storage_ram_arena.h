// Arenas: memory from the services for the page allocator, cut into blocks. Not installed.
//
// An arena is one request's memory, with blocks of one size class. A block is taken (in use, or on a free list of the
// page allocator) or returned. An arena whose blocks are all returned is freed; in other arenas the bytes of returned
// blocks are discarded. The records of the blocks stand apart from their bytes, so that all of these can be discarded.
//
//   m_ReturnedCount <= m_BlockCount
#pragma once

#include <mutex>

#include <tz_kernel/include/kr_mem.h>
#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

namespace Tessaly
{

constexpr u32 kArenaBytes = 4 << 20; // two huge pages; blocks of any class leave at most an eighth unused
// An arena keeps its returned blocks by runs: those that begin in the same kRunBytes. All begin below kArenaBytes.
constexpr u32 kRunBytes = 512 << 10; // a part of a huge page
constexpr u32 kRunCount = kArenaBytes / kRunBytes;

// The memory of one request, and its blocks.
struct SArena
{
    void *m_Memory;
    u64 m_MemoryBytes;
    u8 *m_FirstBlock;
    u32 m_BlockBytes;
    u32 m_BlockStride;
    u32 m_SizeClass; // kPoolSlotCount: one block that is not pooled
    u32 m_BlockCount;
    u32 m_ReturnedCount;
    u32 m_NextToDiscard;                    // discarding goes on at this block
    SPageBlock *m_ReturnedLists[kRunCount]; // newest first; a new arena has all blocks there
    SArena *m_Next;                         // of its class
    SArena *m_Previous;
    SArena *m_NextPending; // of those that GiveBack has to visit
    bool m_IsPending;
    bool m_IsBeingDiscarded; // or freed; no block can be taken
    SPageBlock *m_Blocks;    // m_BlockCount records after this one
};

// A block's record.
struct SPageBlock
{
    // Written under the arenas' lock.
    enum EState : u8
    {
        Taken,
        Returned,  // its bytes may hold memory
        Discarded, // returned; its bytes hold no memory but for system pages that they share with taken blocks
    };

    SPageBlock *m_Next; // on a free list, or in m_ReturnedLists: the one that was put there before
    union
    {
        SPageBlock *m_Previous;
        CParticleRawPage_MainMemory *m_RawPage; // of a block that Alloc returned
    };
    SArena *m_Arena;
    u32 m_ReleaseDate; // in updates of the page allocator
    EState m_State;
    bool m_IsFromAlloc;

    u8 *Data() const { return m_Arena->m_FirstBlock + size_t(this - m_Arena->m_Blocks) * m_Arena->m_BlockStride; }
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

// The arenas of all size classes. Any thread may call any operation. No memory service is called under the lock.
class CPageArenas : public CNonCopyable
{
public:
    // Takes a block of an arena of its class, else of a new one. Null when memory is refused.
    SPageBlock *Take(u32 sizeClass, u32 blockBytes);
    // Marks a block as returned. GiveBack gives its memory back.
    void Return(SPageBlock &block);
    // Frees an arena. Requires that no block of it is in use.
    void FreeArena(SArena &arena);
    // Frees arenas whose blocks are all returned, and discards the bytes of other returned blocks, with about
    // maxCallCount calls of the services.
    void GiveBack(u32 maxCallCount);
    // Returns the record of the block that begins at data and that Alloc returned; null when there is none.
    SPageBlock *Find(const u8 *data);

    u64 BytesReserved() const { return __atomic_load_n(&m_BytesReserved, __ATOMIC_RELAXED); } // from the services
    u64 TakeCount() const { return __atomic_load_n(&m_TakeCount, __ATOMIC_RELAXED); }

private:
    static constexpr u32 kClassCount = CParticlePageAllocator::kPoolSlotCount + 1;

    SPageBlock *_TakeReturned(u32 sizeClass);
    void _AddPending(SArena &arena);

    std::mutex m_Lock;                         // guards the rest
    TLinkedList<SArena> m_Arenas[kClassCount]; // those with returned blocks come first
    SArena *m_FirstPending = null;             // GiveBack has to visit these
    SArena *m_LastPending = null;
    u64 m_BytesReserved = 0; // read without the lock, as m_TakeCount
    u64 m_TakeCount = 0;
};

} // namespace Tessaly
