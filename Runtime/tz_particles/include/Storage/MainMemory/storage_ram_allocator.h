// The page allocator: raw byte blocks for pages, recycled by size class.
//
// Blocks of up to kMaxAllocSize bytes come in size classes, four to a doubling from kMinAllocSize on, so that rounding
// costs at most a fifth of a block; larger ones are made to measure and never pooled. Blocks are carved out of arenas,
// one class each, which grow with their number. A raw page whose last reference went waits, last in first out, until it
// is asked for again, grows old (Update) or is cleaned out (CleanAllFreePages); an arena goes back to the memory
// services when no block of it is left. What waits stands first in a small front of the thread that let it go, which
// that thread serves itself from without an atomic instruction, and from there goes in batches to the pool of its
// class, which has a small lock. No memory service is called and no byte is filled under either. Any thread may call
// any operation but Setup and the destructor. A thread has one front, for the allocator that it used last; it goes back
// to the memory services at the end of its thread or of its allocator, whichever is first. Where its memory is refused,
// the pools serve.
//
//   TotalMemoryAllocated() == sum of Size() over the raw pages that are alive (and of blocks taken with Alloc)
#pragma once

#include <tz_defs.h>
#include <tz_kernel/include/kr_containers_array.h>
#include <tz_kernel/include/kr_refptr.h>
#include <tz_kernel/include/kr_threads_basics.h>

namespace Tessaly
{

class CParticlePageAllocator;

// One raw byte block, shared by reference. With its last reference it goes back to its allocator.
class TZ_API CParticleRawPage_MainMemory : public CRefCountedObject
{
public:
    u32 Size() const { return m_Size; } // bytes
    // BeginRead calls without their EndRead yet. While there are any, pages refuse to be written.
    u32 ReadersCount() const { return __atomic_load_n(&m_ReadersCount, __ATOMIC_ACQUIRE); }

    // The block's bytes. Requires that nobody reads it (asserted).
    u8 *RawDataForWriting()
    {
        if (TZ_UNLIKELY(ReadersCount() != 0)) // else the site's flag does not matter
            TZ_ASSERT(ReadersCount() == 0);
        _OpenWholeBlockIFN();
        return m_Data;
    }

    // Adds a reader and returns the block's bytes; while it has readers, the pages on it refuse to be written.
    // Called under the page lock of the stream; EndRead may come later, from any thread.
    const u8 *BeginRead() const
    {
        __atomic_fetch_add(&m_ReadersCount, 1, __ATOMIC_ACQ_REL);
        _OpenWholeBlockIFN(); // a reader may copy free slots and all
        return m_Data;
    }
    void EndRead() const { __atomic_fetch_sub(&m_ReadersCount, 1, __ATOMIC_ACQ_REL); }

private:
    friend class CParticlePageAllocator;
    friend class CParticlePage;
    template <typename _Type, typename... _Args>
    friend _Type *Mem::Construct(void *place, _Args &&...args);
    template <typename _Type>
    friend void Mem::Delete(const Mem::SCallSite &site, _Type *object);

    CParticleRawPage_MainMemory(u8 *data, u32 size, u32 slotId, CParticlePageAllocator *allocator, bool hasClosedBytes)
        : m_Data(data)
        , m_Size(size)
        , m_ReadersCount(0)
        , m_Allocator(allocator)
        , m_SlotId(slotId)
        , m_IsWaiting(false)
        , m_HasClosedBytes(hasClosedBytes)
        , m_Apart{}
    {
    }
    ~CParticleRawPage_MainMemory() override;
    void _DeleteObjectOrKeep(void *memory) override;
    TZ_NOINLINE void _DeleteObjectOrKeepElsewhere(void *memory);
    void _OpenWholeBlockIFN() const
    {
        if (m_HasClosedBytes)
            _OpenWholeBlock();
    }
    void _OpenWholeBlock() const;

    u8 *m_Data;
    u32 m_Size;
    mutable u32 m_ReadersCount;
    CParticlePageAllocator *m_Allocator;
    u32 m_SlotId;          // size class; the one behind the last: none, it is not pooled
    bool m_IsWaiting;      // while it dies: it was not in use
    bool m_HasClosedBytes; // the library, whatever its host, is compiled for the address sanitizer
    u8 m_Apart[40];        // so that no cache line has what two threads write, where blocks of memory adjoin
};

// References to a raw page.
using PParticleRawPage_MainMemory = TRefPtr<CParticleRawPage_MainMemory>;
using PCParticleRawPage_MainMemory = TRefPtr<const CParticleRawPage_MainMemory>;

// Reads a raw page for a scope and holds the block meanwhile. Made under the page lock of the stream.
class CScopedRawPageReader : public CNonCopyable
{
public:
    // Begins to read; the destructor ends it.
    explicit CScopedRawPageReader(const CParticleRawPage_MainMemory &rawPage)
        : m_RawPage(&rawPage)
        , m_Data(rawPage.BeginRead())
    {
    }
    // The same by reference; of null there is nothing to read.
    explicit CScopedRawPageReader(const PParticleRawPage_MainMemory &rawPage)
        : m_RawPage(rawPage)
        , m_Data(rawPage != null ? rawPage->BeginRead() : null)
    {
    }
    ~CScopedRawPageReader()
    {
        if (m_RawPage != null)
            m_RawPage->EndRead();
    }

    const u8 *Data() const { return m_Data; } // the block's bytes; null when it reads nothing

private:
    PCParticleRawPage_MainMemory m_RawPage;
    const u8 *m_Data;
};

// A page allocator at one moment. Sizes in bytes.
struct TZ_API CParticlePageAllocator_Stats
{
    u64 m_BytesInUse = 0;   // in raw pages that are alive
    u64 m_BytesFree = 0;    // in blocks that wait for reuse
    u64 m_BlocksInUse = 0;  // and these bytes by the number of blocks
    u64 m_BlocksFree = 0;   // that wait for reuse
    u64 m_AllocCount = 0;   // blocks handed out since the start
    u64 m_RecycleCount = 0; // of these, served by a waiting block
    u64 m_RefusalCount = 0; // requests refused by the budget or for want of memory

    // As the records of ps_stats.h print themselves. JSON members: bytesInUse, bytesFree, blocksInUse, blocksFree,
    // allocations, recycled, refusals.
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
    static constexpr u32 kMaxAllocSize = 1048576; // bytes; the largest block that is pooled, and the cap of a page
    static constexpr u32 kSlotsPerDoubling = 4;   // size classes from one power of two to the next
    static constexpr u32 kMaxIdleUpdates = 8;     // Update() calls that a waiting block survives

    CParticlePageAllocator();
    // Requires that every raw page is dead (asserted); CParticlesInternals keeps the process's own alive until then.
    ~CParticlePageAllocator();

    // Makes the size classes, and the calling thread's front. False when memory is refused for the former. To be called
    // once, before anything else.
    bool Setup();
    bool Valid() const; // Setup succeeded

    // A raw page of at least sizeInBytes bytes, aligned to 64, without readers; 0 gives a smallest block. Null when
    // memory or the budget is out. AllocPage(p->Size())->Size() == p->Size().
    PParticleRawPage_MainMemory AllocPage(u32 sizeInBytes)
    {
        return PParticleRawPage_MainMemory::_FromOwnReference(_AllocRawPage(sizeInBytes));
    }

    // The blocks under AllocPage: Alloc gives one of _SlotIdToSize(_SizeToSlotId(size)) bytes (of size itself above
    // kMaxAllocSize), or null; Retire takes one back with the size that was asked, or any that rounds to the same. With
    // a size of another class it reports, and takes the block back as what it is.
    u8 *Alloc(u32 sizeInBytes);
    void Retire(u8 *block, u32 sizeInBytes);

    // Gives back to the memory services: Update the blocks that no one asked for during the last kMaxIdleUpdates
    // calls (of up to 62 of a class that a thread took over together, one asked for is all asked for),
    // CleanAllFreePages every waiting block. To be called from where time is to spare, once a frame or so.
    void Update();
    void CleanAllFreePages();

    // An AllocPage that would take the bytes in use above it gives null. 0, the default: no budget. While there is one,
    // threads do not serve themselves: each request takes the lock of its class for a moment.
    void SetMemoryBudget(u64 bytes);
    u64 SpaceLeft() const; // bytes that the budget leaves; the largest u64 without one

    u64 TotalMemoryAllocated() const; // bytes in use
    u64 TotalMemoryAvailable() const; // bytes in blocks that wait for reuse
    // All figures; of a moment only while no other thread takes or gives back blocks.
    void GetTotalStats(CParticlePageAllocator_Stats &outStats) const;

    // Size class of a block: the smallest one that holds size bytes; kPoolSlotCount above kMaxAllocSize.
    static constexpr u32 _SizeToSlotId(u32 sizeInBytes);
    static u32 _SlotIdToSize(u32 slotId); // bytes; 0 for a class that does not exist

private:
    friend class CParticleRawPage_MainMemory;
    friend class CParticlesInternals;

    struct SArena;

    // Stands in front of a block's bytes, at a multiple of 64.
    struct SBlockHeader
    {
        SArena *m_Arena;
        CParticleRawPage_MainMemory *m_RawPage; // null while the block is bare
        SBlockHeader *m_NextBare;
        // Of a batch in the pool, in the header of its oldest block. Its other blocks, the newest last, are listed in
        // that block's bytes.
        SBlockHeader *m_NewerBatch;
        SBlockHeader *m_OlderBatch;
        u32 m_BatchCount;
        u32 m_BatchDate; // the allocator's date when it came to the pool
        u32 m_SlotId;    // of the block
    };

    // A run of blocks of one class, in one piece of memory that begins with this record.
    struct SArena
    {
        SArena *m_Next; // among the arenas of its class that have a block to give; the others are in no list
        SArena *m_Previous;
        ureg m_FirstBlock;   // address of the first block's header
        ureg m_HugePagesEnd; // they begin with the blocks
        u32 m_BlockBytes;
        u32 m_BlockCount;
        u32 m_CarvedCount; // blocks that were ever used; the others have not been touched
        u32 m_BareCount;   // of these, blocks without a raw page
        SBlockHeader *m_FirstBare;
    };

    // A block that nobody has, and whose header is yet to be made.
    struct SBlockPlace
    {
        SArena *m_Arena;
        void *m_Header; // null: there is none
    };

    // One size class: the blocks that wait in no thread's front, newest batch first, and the arenas.
    struct SBlockPool
    {
        u32 m_IsLocked; // guards the rest; held for a few instructions only
        u32 m_WaitingCount;
        SBlockHeader *m_NewestBatch;
        SBlockHeader *m_OldestBatch;
        SArena *m_Arenas;   // that have a block to give
        u32 m_BlockCount;   // of all arenas, carved or not
        u64 m_AllocCount;   // blocks handed out, but for what the fronts count
        u64 m_RecycleCount; // of these, blocks that had waited here
        u64 m_RetireCount;  // blocks taken back
    };
    struct SWaiting;
    struct SFrontClass;
    struct SFrontCounts
    {
        u64 m_WaitingCount;
        u64 m_UsedCount; // by the fronts' account; may be below 0
        u64 m_TakeCount;
    };
    struct SThread;
    struct SThreadFront;
    class CFrontUse;
    class CThreadExit;
    class CPoolLock;

    // The owner's share of m_TotalMemoryUsed: its top bit. The allocator is destroyed by whoever takes the last share.
    static constexpr u64 kOwnerShare = u64(1) << 63;

    static SBlockHeader *_Header(u8 *block);
    static u8 *_Block(SBlockHeader *header);
    static u64 _BlockStride(u32 blockBytes);
    static u32 _ArenaBlockCount(u32 blockBytes, u32 classBlockCount);
    static SArena *_NewArena(u32 blockBytes, u32 blockCount);
    static void _FreeArena(SArena *arena);
    static bool _HasBareBlock(const SArena &arena);
    static SBlockPlace _TakeBareBlock(SArena &arena);
    static SBlockPlace _TakeBareBlock(SBlockPool &pool);
    static void _LinkArena(SBlockPool &pool, SArena &arena);
    static void _UnlinkArena(SBlockPool &pool, SArena &arena);

    SBlockPool &_Pool(u32 slotId) { return m_Blocks.RawDataPointer()[slotId]; }
    static u64 _WithoutOwnerShare(u64 count);
    u64 _BytesInUse() const;
    bool _TakeBytes(u32 blockBytes); // false: the budget is out
    void _GiveShare(u64 share);      // may destroy this
    void _CountRefusal() { __atomic_fetch_add(&m_Stats->m_RefusalCount, 1, __ATOMIC_RELAXED); }
    bool _TakeFromFront(u32 slotId, SWaiting &outWaiting);
    TZ_NOINLINE u8 *_TakeElsewhere(u32 sizeInBytes);
    CParticleRawPage_MainMemory *_AllocRawPage(u32 sizeInBytes); // with its first reference, or null
    TZ_NOINLINE CParticleRawPage_MainMemory *_AllocRawPageElsewhere(u32 sizeInBytes);
    u8 *_TakeFromPool(u32 slotId);
    u8 *_TakeWaiting(SBlockPool &pool);
    u8 *_NewRawPage(u32 slotId, u32 blockBytes);
    SBlockPlace _TakeBlock(u32 slotId, u32 blockBytes);
    SBlockHeader *_NewBlock(u32 slotId, u32 blockBytes);
    bool _GiveToFront(SWaiting waiting, u32 slotId);
    bool _GiveElsewhere(CParticleRawPage_MainMemory &rawPage); // false: it is not to wait
    TZ_NOINLINE void _RetireElsewhere(u8 *block, u32 sizeInBytes);
    static bool _IsOfSlot(u8 *block, u32 slotId);
    void _ReturnBlock(CParticleRawPage_MainMemory &rawPage);
    void _BareBlock(u32 slotId, SBlockHeader *header);
    void _FreeRawPagesRetiredBefore(u32 date);
    void _LeaveToBlocks(); // destroys this when its last block is back

    u32 _Date() const { return __atomic_load_n(&m_CurrentDate, __ATOMIC_RELAXED); }
    void _AddStatsOfClass(u32 slotId, CParticlePageAllocator_Stats &stats) const;

    // Batches: blocks that wait and move between fronts and pool together.
    static u32 _BatchSize(u32 slotId); // blocks at most
    static SBlockHeader &_MakeBatch(const SWaiting *waiting, u32 count);
    static u32 _ReadBatch(SBlockHeader &first, SWaiting *outWaiting);
    static void _LinkBatch(SBlockPool &pool, SBlockHeader &first, u32 date); // this and what follows: under its lock
    static void _UnlinkBatch(SBlockPool &pool, SBlockHeader &first);

    // The calling thread's front.
    bool _HasRefilled(u32 slotId);
    bool _HasRoom(u32 slotId);
    void _MoveOldestToPool(SFrontClass &frontClass, u32 slotId, u32 count);
    void _BindFrontIFN();
    bool _HasBoundFront(SThread &thread, SThreadFront *newFront);
    static SThreadFront *_NewFront();
    static void _FreeFront(SThreadFront *front);
    static SThreadFront *_TakeFrontOf(const SThread &thread);
    // All fronts of this allocator: shuts them, empties them and their counts into the pools, and opens them unless
    // there is a budget.
    void _EmptyFronts();
    void _EmptyFront(SThreadFront &front);
    SFrontCounts _CountInFronts(u32 slotId) const;
    void _FreeFronts();
    void _ShutFronts_NoLock();
    void _OpenFronts_NoLock();

    static u64 _NextId();

    static SThreadFront *m_Fronts; // of all allocators; under the lock of all fronts

    const u64 m_Id; // that no other allocator of the process has, had or will have
    TArray<SBlockPool> m_Blocks;
    TSharedField<bool> m_FrontsAreOpen; // to new ones; written under the lock of all fronts
    TSharedField<bool> m_IsLeftToBlocks;
    u64 m_MemoryBudget;
    Threads::CCriticalSection m_Lock; // serialises maintenance; never taken by AllocPage, Alloc and Retire
    u64 m_TotalMemoryUsed;            // bytes in use, but for what the fronts count; the top bit is the owner's share
    u32 m_CurrentDate;                // counts Update() calls
    CParticlePageAllocator_Stats *m_Stats; // what no class counts: oversized blocks and refusals
};

constexpr u32 CParticlePageAllocator::_SizeToSlotId(u32 sizeInBytes)
{
    if (sizeInBytes > kMaxAllocSize)
        return kPoolSlotCount;
    if (sizeInBytes <= kMinAllocSize)
        return 0;
    // A class holds the sizes above the one before it: look the last byte up, and take the next step.
    const u32 lastByte = sizeInBytes - 1;
    const u32 log2 = IntegerTools::Log2(lastByte);
    const u32 step = (lastByte >> (log2 - 2)) - kSlotsPerDoubling;
    return (log2 - 9) * kSlotsPerDoubling + step + 1;
}

} // namespace Tessaly
