// The page allocator: raw byte blocks for pages, recycled by size class.
//
// Blocks of up to kMaxAllocSize bytes come in size classes, four to a doubling from kMinAllocSize on, so that rounding
// costs at most a fifth of a block; larger ones are made to measure and never pooled. Blocks are carved out of arenas,
// one class each, which grow with their number. A raw page whose last reference went waits in its class, last in first
// out, until it is asked for again, grows old (Update) or is cleaned out (CleanAllFreePages); an arena goes back to the
// memory services when no block of it is left. Each class has a small lock of its own; no memory service is called
// and no byte is filled under it. Any thread may call any operation but Setup and the destructor.
//
//   TotalMemoryAllocated() == sum of Size() over the raw pages that are alive (and of blocks taken with Alloc)
#pragma once

#include <tz_defs.h>
#include <tz_kernel/include/kr_address_sanitizer.h>
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
    u32 ReadersCount() const { return __atomic_load_n(&m_ReadersCount, __ATOMIC_ACQUIRE); }

    // The block's bytes. Requires that nobody reads it (asserted).
    u8 *RawDataForWriting()
    {
        TZ_ASSERT(ReadersCount() == 0);
        Mem::Unpoison(m_Data, m_Size);
        return m_Data;
    }

    // Adds a reader and returns the block's bytes; while it has readers, the pages on it refuse to be written.
    // Called under the page lock of the stream; EndRead may come later, from any thread.
    const u8 *BeginRead() const
    {
        __atomic_fetch_add(&m_ReadersCount, 1, __ATOMIC_ACQ_REL);
        Mem::Unpoison(m_Data, m_Size); // a reader may copy the whole block, free slots and all
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

    CParticleRawPage_MainMemory(u8 *data, u32 size, CParticlePageAllocator *allocator)
        : m_Data(data)
        , m_Size(size)
        , m_ReadersCount(0)
        , m_Allocator(allocator)
        , m_Newer(null)
        , m_Older(null)
        , m_RetireDate(0)
        , m_IsWaiting(false)
    {
    }
    ~CParticleRawPage_MainMemory() override;
    bool _KeepForReuse() override;

    u8 *m_Data;
    u32 m_Size;
    mutable u32 m_ReadersCount;
    CParticlePageAllocator *m_Allocator;
    // While it waits in its size class, under the class's lock.
    CParticleRawPage_MainMemory *m_Newer;
    CParticleRawPage_MainMemory *m_Older;
    u32 m_RetireDate; // the allocator's date when it came back
    bool m_IsWaiting;
};

using PParticleRawPage_MainMemory = TRefPtr<CParticleRawPage_MainMemory>;
using PCParticleRawPage_MainMemory = TRefPtr<const CParticleRawPage_MainMemory>;

// Reads a raw page for a scope and holds the block meanwhile. Made under the page lock of the stream.
class CScopedRawPageReader : public CNonCopyable
{
public:
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

    const u8 *Data() const { return m_Data; }

private:
    PCParticleRawPage_MainMemory m_RawPage;
    const u8 *m_Data;
};

// A page allocator at one moment. Sizes in bytes.
struct TZ_API CParticlePageAllocator_Stats
{
    u64 m_BytesInUse = 0; // in raw pages that are alive
    u64 m_BytesFree = 0;  // in blocks that wait for reuse
    u64 m_BlocksInUse = 0;
    u64 m_BlocksFree = 0;
    u64 m_AllocCount = 0;   // blocks handed out since the start
    u64 m_RecycleCount = 0; // of these, served by a waiting block
    u64 m_RefusalCount = 0; // requests refused by the budget or for want of memory

    // As the records of ps_stats.h print themselves. JSON members: bytesInUse, bytesFree, blocksInUse, blocksFree,
    // allocations, recycled, refusals.
    int Print(char *buffer, size_t bufferBytes) const;
    int PrintTable(char *buffer, size_t bufferBytes) const;
    int PrintJson(char *buffer, size_t bufferBytes) const;
};

class TZ_API CParticlePageAllocator : public CNonCopyable
{
public:
    static constexpr u32 kPoolSlotCount = 64;
    static constexpr u32 kMinAllocSize = 512;     // bytes
    static constexpr u32 kMaxAllocSize = 1048576; // bytes; the largest block that is pooled, and the cap of a page
    static constexpr u32 kMaxIdleUpdates = 8;     // Update() calls that a waiting block survives

    CParticlePageAllocator();
    // Requires that every raw page is dead (asserted); CParticlesInternals keeps the process's own alive until then.
    ~CParticlePageAllocator();

    // Makes the size classes. False when memory is refused. To be called once, before anything else.
    bool Setup();
    bool Valid() const; // Setup succeeded

    // A raw page of at least sizeInBytes bytes, aligned to 64, without readers; 0 gives a smallest block. Null when
    // memory or the budget is out. AllocPage(p->Size())->Size() == p->Size().
    PParticleRawPage_MainMemory AllocPage(u32 sizeInBytes);

    // The blocks under AllocPage: Alloc gives one of _SlotIdToSize(_SizeToSlotId(size)) bytes (of size itself above
    // kMaxAllocSize), or null; Retire takes one back with the size that was asked, or any that rounds to the same.
    u8 *Alloc(u32 sizeInBytes);
    void Retire(u8 *block, u32 sizeInBytes);

    // Gives back to the memory services: Update the blocks that no one asked for during the last kMaxIdleUpdates
    // calls, CleanAllFreePages every waiting block. To be called from where time is to spare, once a frame or so.
    void Update();
    void CleanAllFreePages();

    // An AllocPage that would take the bytes in use above it gives null. 0, the default: no budget.
    void SetMemoryBudget(u64 bytes);
    u64 SpaceLeft() const; // bytes that the budget leaves; the largest u64 without one

    u64 TotalMemoryAllocated() const; // bytes in use
    u64 TotalMemoryAvailable() const; // bytes in blocks that wait for reuse
    void GetTotalStats(CParticlePageAllocator_Stats &outStats) const;

    // Size class of a block: the smallest one that holds size bytes; kPoolSlotCount above kMaxAllocSize.
    static u32 _SizeToSlotId(u32 sizeInBytes);
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
    };

    // A run of blocks of one class, in one piece of memory that begins with this record.
    struct SArena
    {
        SArena *m_Next; // among the arenas of its class that have a block to give; the others are in no list
        SArena *m_Previous;
        u32 m_BlockBytes;
        u32 m_BlockCount;
        u32 m_CarvedCount; // blocks that were ever used; the others have not been touched
        u32 m_BareCount;   // of these, blocks without a raw page
        SBlockHeader *m_FirstBare;
    };

    // One size class: the raw pages that wait, newest first, and the arenas.
    struct SBlockPool
    {
        u32 m_IsLocked; // guards the rest; held for a few instructions only
        u32 m_WaitingCount;
        CParticleRawPage_MainMemory *m_Newest;
        CParticleRawPage_MainMemory *m_Oldest;
        SArena *m_Arenas;   // that have a block to give
        u32 m_ArenaCount;   // all of them
        u64 m_AllocCount;   // raw pages handed out
        u64 m_RecycleCount; // of these, raw pages that had waited here
        u64 m_RetireCount;  // raw pages taken back
    };
    class CPoolLock;

    // The owner's share of m_TotalMemoryUsed: its top bit. The allocator is destroyed by whoever takes the last share.
    static constexpr u64 kOwnerShare = u64(1) << 63;

    static SBlockHeader *_Header(u8 *block);
    static u8 *_Block(SBlockHeader *header);
    static u32 _BlockSize(u32 sizeInBytes); // bytes of the block that serves a request
    static u32 _ArenaBlockCount(u32 blockBytes, u32 arenaCount);
    static SArena *_NewArena(u32 blockBytes, u32 blockCount);
    static void _FreeArena(SArena *arena);
    static bool _HasBareBlock(const SArena &arena);
    static SBlockHeader *_TakeBareBlock(SArena &arena);
    static SBlockHeader *_TakeBareBlock(SBlockPool &pool);
    static void _LinkArena(SBlockPool &pool, SArena &arena);
    static void _UnlinkArena(SBlockPool &pool, SArena &arena);

    SBlockPool &_Pool(u32 slotId) { return m_Blocks.RawDataPointer()[slotId]; }
    u64 _BytesInUse() const { return __atomic_load_n(&m_TotalMemoryUsed, __ATOMIC_RELAXED) & ~kOwnerShare; }
    bool _TakeBytes(u32 blockBytes); // false: the budget is out
    void _GiveShare(u64 share);      // may destroy this
    void _CountRefusal() { __atomic_fetch_add(&m_Stats->m_RefusalCount, 1, __ATOMIC_RELAXED); }
    CParticleRawPage_MainMemory *_TakeRawPage(u32 sizeInBytes);
    CParticleRawPage_MainMemory *_TakeWaiting(SBlockPool &pool);
    CParticleRawPage_MainMemory *_NewRawPage(u32 slotId, u32 blockBytes);
    SBlockHeader *_NewBlock(u32 slotId, u32 blockBytes);
    bool _TakeBack(CParticleRawPage_MainMemory &rawPage); // false: it is not to wait
    void _ReturnBlock(CParticleRawPage_MainMemory &rawPage);
    void _BareBlock(u32 slotId, SBlockHeader *header);
    void _FreeRawPagesRetiredBefore(u32 date);
    void _LeaveToBlocks(); // destroys this when its last block is back

    TArray<SBlockPool> m_Blocks;
    Threads::CCriticalSection m_Lock;      // serialises maintenance; never taken by AllocPage, Alloc and Retire
    u64 m_TotalMemoryUsed;                 // bytes in use; the top bit is the owner's share
    u32 m_CurrentDate;                     // counts Update() calls
    CParticlePageAllocator_Stats *m_Stats; // what no class counts: oversized blocks and refusals
    u64 m_MemoryBudget;
    TSharedField<bool> m_IsLeftToBlocks;
};

} // namespace Tessaly
