// CParticleStream_MainMemory: the particles of one stream, in a list of reference-counted pages.
//
// The stream owns its page list, its lock and its counters. It borrows the definition, the constant data and the slot
// table: their owner keeps them alive while they are bound. The page lock, re-entrant, guards the list.
//
//   sum of ParticleCount() over the pages == m_ParticleCount   (checked on entry and exit of most operations)
//   m_PageSizeInBytes == _ComputePageSizeInBytes(m_PageSize, m_StreamDef)   while a definition is bound
//
// Names: an operation that ends in _NoLock expects the page lock, all others take it; IFN is "if needed", IFP "if
// possible"; a leading underscore marks what is not for hosts; TZ_ is the prefix of macros.
//
// Bodies: storage_ram_stream.cpp (life, lock, queries), ..._pages (page size, making pages), ..._particles (births,
// deaths, counts), ..._transfer (copies between pages, pending resizes), ..._deep_copy, ..._rebind, ..._collect,
// ..._stats.
#pragma once

#include <mutex>

#include <tz_kernel/include/kr_threads_basics.h>
#include <tz_particles/include/ps_descriptor.h>
#include <tz_particles/include/ps_stream.h>

#include "storage_ram_page_index.h"
#include "storage_ram_page_list.h"

namespace Tessaly
{

// A stream of particles in main memory.
class TZ_API CParticleStream_MainMemory : public CParticleStreamAbstract
{
public:
    // Makes an unbound stream. pageSize: capacity of its pages, in particles; 0 gives the default, 1024.
    explicit CParticleStream_MainMemory(u32 pageSize);
    // Releases the pages; views keep theirs. Requires that no thread holds the page lock.
    ~CParticleStream_MainMemory() override { Cleanup(); }

    // The virtual interface. The two queries take no lock: the bound definition, null without one, and the number of
    // live particles.
    const SParticleStreamDef *GetStreamDef() const override
    {
        return Threads::LoadShared<__ATOMIC_ACQUIRE>(m_StreamDef);
    }
    u32 ParticleCount() const override { return m_ParticleCount.Load(); }
    void Lock() const override { LockPages(); }
    void Unlock() const override { UnlockPages(); }
    // Adds the pages' bytes up in m_ParticleBytes.
    // Lock: takes it.
    // Cost: O(pages).
    inline SMediumMemoryReport ComputeMemoryUsage() const override;

    // Empties every page, also for the holders of views, and releases it. The stream stays bound, its list keeps its
    // storage.
    // Lock: takes it.
    // Cost: O(pages).
    void Clear();
    // Releases the pages with their particles, which views keep, and the list's storage. The stream stays bound.
    // Lock: takes it; pages are destroyed outside it.
    // Cost: O(pages).
    void Cleanup();
    // Exchanges pages, counts, page sizes and definition; constant data, slot table and lock stay.
    // Views and page indices stay valid, in the other stream.
    // Lock: takes this stream's. Both locks have to be free (asserted), and no thread may use the other stream.
    // Cost: O(pages).
    void Swap(CParticleStream_MainMemory &other);
    bool Empty() const { return ParticleCount() == 0; } // there is no live particle, but there may be pages

    // The page lock: re-entrant. Each lock has its unlock on the same thread, of either kind; the render variants take
    // the same lock. A thread that waits in LockPagesToRender gets the lock before any thread that calls LockPages
    // later. UnlockPages and LockPagesToRender open a profiler scope.
    // Fails: an unlock without a lock, or by a thread that does not hold it, is reported and changes nothing.
    inline void LockPages() const;
    inline void UnlockPages() const;
    void LockPagesToRender() const;
    void UnlockPagesToRender() const;
    inline bool LockedByCurrentThread() const; // the calling thread holds the page lock
    // Gives the lock to a thread that waits in LockPagesToRender, and takes it again after that thread, unless the
    // caller holds it more than once. Returns whether a thread waited: the stream may have changed then.
    // Lock: expects it.
    bool _YieldToRenderer_NoLock() const;

    // Sets the capacity of the pages that will be made, in particles; 0 gives the default. A size whose pages would
    // exceed the page allocator's largest block is lowered to a power of two that fits. Pages of another capacity
    // become pending resizes.
    // Lock: takes it, unless the size is the same.
    // Cost: O(pages).
    void SetPageSize(u32 size);
    u32 PageSize() const { return Threads::LoadShared(m_PageSize); } // particles; takes no lock

    // Makes an empty page of PageSize() particles, appended to the list or held by the caller alone.
    // Fails: null when the stream is unbound, the runtime not started, or memory refused.
    // Lock:  expects it when the page is added to the list.
    PParticlePage AllocNewPage_NoLock(bool addToPageList);

    // Returns the index of a field by its name.
    // Fails: CGuid::INVALID when there is none; reported when the stream is unbound.
    // Lock:  takes it, for the consistency check.
    CGuid StreamId(CStringId nameGUID) const;
    u32 StreamsCount() const; // fields of the definition, 0 while unbound; takes no lock
    // Returns a field of the definition. Takes no lock.
    // Fails: an empty record, after a report, for an index out of range.
    const SParticleStreamFieldDef &StreamDef(CGuid streamId) const;
    // What the stream was bound with. Take no lock.
    TMemoryView<const S64Bytes> ConstantData() const { return m_ConstantData; }
    TStridedMemoryView<const CGuid> ConstantDataFieldSlot() const { return m_ConstantDataFieldSlot; }

    // Takes up to wishedCount free slots of one page, counts them as live, and returns a view on them.
    // Page:   the first one with minCountHint free slots (0, or more than wishedCount: wishedCount of them), else a new
    //         one.
    // Values: 0xF3 in slots that were never used, else what the last particle there left.
    // Fails:  an empty view, nothing counted, when no page can be made.
    // Lock:   takes it. If other threads read the stream, hold a CScopedPagesLock until the slots are filled.
    // Cost:   O(pages) up to 128 pages, O(log pages) above; O(pages) after anything but births, deaths and collection
    //         changed the list.
    CParticlePageView AllocateParticlesIFP(u32 wishedCount, u32 minCountHint);
    // Calls AllocateParticlesIFP until count particles are taken or no page can be made, the free slots of existing
    // pages first. Appends the views to outViews and returns the number of their particles.
    // Lock: takes it for each view.
    u32 AllocateParticles(u32 count, TArray<CParticlePageView> &outViews);
    // Removes particles of the page at pageId, as CParticlePage::RemoveParticles does, and lowers the live count in the
    // same locked step. Returns the number of removed particles. outMoves, when given, receives the moves.
    // Fails: 0, after a report, for a page id out of range, a bad list, or a page with readers.
    // Lock:  takes it.
    // Invalidates: views on the page.
    u32 RemoveParticles(CGuid pageId, const TMemoryView<const u32> &indices,
                        TMemoryView<SParticleMove> *outMoves = null);

    // Change the live count, for births and deaths that were made on the pages directly. The first two compare it with
    // the pages afterwards and report a difference.
    // Lock: the first two take it.
    void RegisterDeadCount(u32 deadCount);
    void RegisterBornCount(u32 bornCount);
    void RegisterBornCount_NoConsistencyCheck(u32 bornCount);

    u32 PageCount() const { return m_Pages.Count(); } // takes no lock
    // Return a page of the list. Page indices change when pages are collected, resized or rebound. _UnsafePage checks
    // nothing.
    // Fails: Page reports an index out of range and returns a null page.
    // Lock:  none is taken. Hold it, or read on the thread that changes the list.
    inline const PParticlePage &Page(CGuid pageId) const;
    const PParticlePage &_UnsafePage(CGuid pageId) const { return m_Pages.RawDataPointer()[pageId.Get()]; }

    // Copies between pages of one definition (asserted): each appends particles to dst, one block copy per stored
    // column. They change no stream's count.
    // Fails: dst is unchanged when it has too few free slots or has readers, and when the range exceeds the source's
    //        capacity.
    // Lock:  expect those of the pages' streams.
    //
    // Copies transferCount particles from srcStartId on. Returns whether it did.
    static bool CopySubRangeToPage(CParticlePage &dst, const CParticlePage &src, u32 srcStartId, u32 transferCount);
    // Copies all particles of the view. Returns whether it did.
    static bool CopyPageToPage(CParticlePage &dst, const CParticlePageView &src);
    // Copies as many of the view's particles from srcStart on as dst has free slots. Returns the position in the view
    // after the last copied one; srcStart when it failed.
    static u32 TransferPageToPage(CParticlePage &dst, const CParticlePageView &src, u32 srcStart);

    // Counts the pages that hold particles and whose capacity is not PageSize(): the pending resizes. (SetPageSize
    // counts empty ones as well.)
    // Lock: expects it.
    // Cost: O(pages).
    void ComputePendingResizes_NoLock();
    // Moves the particles of up to maxPageCountToProcess pending pages into pages of PageSize() particles, and drops
    // empty pending pages on the way.
    // Fails: when no page can be made, which is reported, the rest of the page in progress is lost: compare
    //        ParticleCount() before and after.
    // Lock:  takes it.
    // Invalidates: page indices; views keep the former pages, as they were.
    // Cost:  O(pages), and one copy of each particle in the pending pages.
    void ResizePending(u32 maxPageCountToProcess);
    bool HasPendingResizes() const { return Threads::LoadShared(m_PageCount_OutOfSync) != 0; } // takes no lock

    // Makes this stream an independent copy of other: its settings, and copies of its pages that hold particles. What
    // this stream held is released first.
    // Fails: when memory is refused, the pages copied so far stay and are counted.
    // Lock:  takes this stream's. No other thread may change other.
    // Invalidates: page indices; views keep the former pages.
    void DeepCopy(const CParticleStream_MainMemory &other);

    // Binds the stream to def, with its constant data and, for each field, the index of its constant's block or
    // CGuid::INVALID. A stream with particles keeps the fields that both definitions share by name, converted where
    // type or storage size differ; new fields are zero. Pages keep their capacity, empty ones are dropped. When a page
    // of the present size would exceed the page allocator's largest block, all particles are dropped. The old
    // definition and its constant data are read during the call.
    // Fails: null is reported, and a definition that is bound already is ignored: nothing changes. When memory is
    //        refused, the particles of each page that can not be made are lost without a report: compare
    //        ParticleCount() before and after.
    // Lock:  takes it for the pages. Only the owner binds.
    // Invalidates: page indices; views keep the former pages.
    // Cost:  O(particles).
    void BindStreamDef(const SParticleStreamDef *def, const TMemoryView<const S64Bytes> &constantData,
                       const TStridedMemoryView<const CGuid> &constantDataFieldSlot,
                       const SParticleImplementationCache &cache);
    // The same for a definition without constant fields. Returns whether the definition is bound.
    // Fails: false, after a report, for null and for a definition with a constant field: nothing changes.
    bool BindStreamDef(const SParticleStreamDef *def);

    // Drops every page without particles; the last page takes the place of a dropped one. pageReindexer may be null;
    // it has PageCount() entries (asserted), and entry k becomes the new index of the page that was at k, or
    // CGuid::INVALID. Does not change HasPendingResizes(): recount with ComputePendingResizes_NoLock before the next
    // ResizePending.
    // Lock: takes it. No other thread may change the list meanwhile.
    // Invalidates: page indices.
    // Cost: O(pages).
    void GarbageCollectOldPages(TMemoryView<CGuid> *pageReindexer);

    // Counts pages, particles, slots and bytes.
    // Lock: takes it.
    // Cost: O(pages * fields).
    SParticleStreamStats ComputeStats() const;

protected:
    // Returns the bytes of a page's raw block: the columns, each rounded up to 16, in wrapping 32-bit arithmetic.
    static u32 _ComputePageSizeInBytes(u32 pageSize, const SParticleStreamDef *streamDef);
    // Makes an empty page of pageSize particles in a raw block of pageSizeInBytes bytes.
    // Fails: null when memory is refused or the columns exceed the block.
    PParticlePage AllocNewPage_NoLock(u32 pageSize, u32 pageSizeInBytes, bool addToPageList);
    void _ResizePending_NoLock(u32 maxPageCountToProcess); // ResizePending under the caller's lock
    u32 _RecomputeParticleCount() const;                   // sum over the pages; takes the lock when there are pages
    // Lowers a page size whose pages would exceed the allocator's largest block. Returns whether it did.
    bool _ClampPageSizeToAllocatorCapsIFN();
    // Reports a live count that is not the sum over the pages.
    // Lock: takes it.
    void _DEBUG_CheckParticleCountConsistency() const;

private:
    CParticleStream_MainMemory(const CParticleStream_MainMemory &);
    CParticleStream_MainMemory &operator=(const CParticleStream_MainMemory &);

    static bool Startup() { return true; }
    static void Shutdown() {}

    static constexpr u32 kDefaultPageSize = 1024; // particles

    class CResizePass;
    struct SRebuild;

    // AllocNewPage_NoLock that leaves the rows before firstFreshRow to the caller, who writes them.
    PParticlePage _AllocNewPage_NoLock(u32 pageSize, u32 pageSizeInBytes, bool addToPageList, u32 firstFreshRow);
    void _LayOutPage(CParticlePage &page) const;
    CGuid _ConstantSlot(u32 streamId) const; // INVALID, after a report, outside the slot table
    u8 *_ConstantBlock(CGuid cstId) const;   // requires cstId < m_ConstantData.Count()
    SMediumMemoryReport _ComputeMemoryUsage() const;
    inline u32 _EnterLock() const;
    u32 _EnterLockToRender() const;
    TZ_NOINLINE void _WaitForRenderer() const;
    inline u32 _CountLock() const;
    inline bool _LeaveLock() const;
    inline u32 _SumOfPages() const;
    inline PParticlePage _FindPageWithFreeSlots_NoLock(u32 minCount) const;
    inline CPageListIndex *_PageIndex_NoLock() const; // null: walk the list
    u32 _DeepCopyPages_NoLock(const CParticleStream_MainMemory &other);
    void _RebuildPages_NoLock(const SRebuild &rebuild);
    u32 _RebuildPage_NoLock(u32 i, const SRebuild &rebuild);
    void _RebindConstantField(u32 streamId, SParticleStreamField &field) const;
    bool _HasBadConstantField() const;

    // Members that are read without the lock are accessed by Threads::LoadShared and StoreShared.
    u32 m_PageSize;        // particles
    u32 m_PageSizeInBytes; // bytes; 0 while unbound
    const SParticleStreamDef *m_StreamDef;
    TMemoryView<const S64Bytes> m_ConstantData;
    TStridedMemoryView<const CGuid> m_ConstantDataFieldSlot;
    CPageList m_Pages;
    Threads::CCriticalSection m_PagesProtectCS;
    u32 m_PageCount_OutOfSync; // pending resizes; collection, rebinding and deep copies may leave it too high
    TAtomic<u32> m_ParticleCount;
    mutable u32 m_PagesLocked; // nesting depth of the page lock, whose holder writes it
    mutable CGuid m_ThreadOwningLock;
    mutable bool m_IsRendererWaiting = false;
    mutable std::mutex m_RendererTurn; // held by the thread that waits in LockPagesToRender
    mutable CPageListIndex m_PageIndex;
};

// Holds a stream's page lock for a scope.
class CScopedPagesLock : public CNonCopyable
{
public:
    // Locks the pages; the destructor unlocks them.
    explicit CScopedPagesLock(const CParticleStream_MainMemory &stream)
        : m_Stream(stream)
    {
        m_Stream.LockPages();
    }
    ~CScopedPagesLock() { m_Stream.UnlockPages(); }

private:
    const CParticleStream_MainMemory &m_Stream;
};

// Holds the page lock for a scope of a thread that draws: LockPagesToRender and UnlockPagesToRender.
class CScopedPagesRenderLock : public CNonCopyable
{
public:
    // Locks the pages; the destructor unlocks them.
    explicit CScopedPagesRenderLock(const CParticleStream_MainMemory &stream)
        : m_Stream(stream)
    {
        m_Stream.LockPagesToRender();
    }
    ~CScopedPagesRenderLock() { m_Stream.UnlockPagesToRender(); }

private:
    const CParticleStream_MainMemory &m_Stream;
};

} // namespace Tessaly

#include "storage_ram_stream.inl"
