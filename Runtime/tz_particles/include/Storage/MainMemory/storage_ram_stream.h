// CParticleStream_MainMemory: one stream's particles, in a list of reference-counted pages.
//
// The stream owns its page list, its lock and its counters. It borrows the definition, the constant data and the slot
// table; their owner keeps them alive while they are bound. One page lock per stream, re-entrant, guards the list;
// operations that end in _NoLock expect it to be held, all others take it themselves.
//
//   sum of ParticleCount() over the pages == m_ParticleCount   (checked on entry and exit of most operations)
//   m_PageSizeInBytes == _ComputePageSizeInBytes(m_PageSize, m_StreamDef)   while a definition is bound
//
// Bodies: storage_ram_stream.cpp (life, lock, queries), ..._pages (page size, making pages), ..._particles (births,
// deaths, counts), ..._transfer (page-to-page copies, pending resizes), ..._deep_copy, ..._rebind (a new definition;
// its conversion of fields: storage_ram_convert.cpp), ..._collect (emptied pages), ..._stats.
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
    // An unbound stream. pageSize: capacity, in particles, of the pages that it will make; 0 gives the default, 1024.
    explicit CParticleStream_MainMemory(u32 pageSize);
    // Requires a free page lock. Pages that others still hold live on.
    ~CParticleStream_MainMemory() override { Cleanup(); }

    // The virtual interface. Lock and Unlock are LockPages and UnlockPages; the two queries take no lock: the
    // definition that is bound (null: none), and the live particles.
    const SParticleStreamDef *GetStreamDef() const override
    {
        return Threads::LoadShared<__ATOMIC_ACQUIRE>(m_StreamDef);
    }
    u32 ParticleCount() const override { return m_ParticleCount.Load(); }
    void Lock() const override { LockPages(); }
    void Unlock() const override { UnlockPages(); }
    // Bytes of the pages, in m_ParticleBytes. Takes the lock. O(pages).
    inline SMediumMemoryReport ComputeMemoryUsage() const override;

    // Empties every page, for those who hold views on it too, and lets it go; keeps the list's storage, and the stream
    // bound. Takes the lock. O(pages).
    void Clear();
    // Lets the pages go as they are, outside the lock: views keep theirs, with its particles. Frees the list's storage;
    // the stream stays bound. Takes the lock. O(pages).
    void Cleanup();
    // Exchanges pages, counts, page sizes and definition; constant data, slot table and lock stay. Views and page
    // indices stay good, in the other stream. Takes this stream's lock only: the other one must not be in use. Requires
    // that nobody holds either lock (asserted). O(pages).
    void Swap(CParticleStream_MainMemory &other);
    bool Empty() const { return ParticleCount() == 0; } // no live particle, whatever pages there are; takes no lock

    // The page lock: re-entrant, counted; every lock is matched by one unlock on the same thread, of either kind.
    // The render variants are the same lock; UnlockPages and LockPagesToRender open a profiler scope. A thread that
    // waits in LockPagesToRender has the lock before any thread that asks for it later by LockPages. An unlock without
    // a lock, or by another thread, is reported and changes nothing.
    inline void LockPages() const;
    inline void UnlockPages() const;
    void LockPagesToRender() const;
    void UnlockPagesToRender() const;
    inline bool LockedByCurrentThread() const; // the calling thread holds the page lock
    // Lets a thread that waits in LockPagesToRender have the lock first, unless the caller holds it more than once.
    // Expects the lock. Returns whether one waited: then the stream may have been changed.
    bool _YieldToRenderer_NoLock() const;

    // Capacity, in particles, of the pages made from now on; lowered to a power of two when a page would exceed the
    // page allocator's largest block; 0 gives the default. Moves nothing: pages of another capacity become pending
    // resizes. Takes the lock unless the size is unchanged. O(pages).
    void SetPageSize(u32 size);
    u32 PageSize() const { return Threads::LoadShared(m_PageSize); } // particles; takes no lock

    // Makes an empty page of PageSize() particles, appended to the list (views and page indices stay good) or held by
    // the caller alone. Null when the stream is unbound or memory is refused. Expects the lock when the page is added.
    PParticlePage AllocNewPage_NoLock(bool addToPageList);

    // Index of a field by name, CGuid::INVALID when there is none (reported while unbound). Runs the consistency check,
    // which takes the lock.
    CGuid StreamId(CStringId nameGUID) const;
    u32 StreamsCount() const; // fields of the definition, 0 while unbound; takes no lock
    // One field of the definition: an empty record, after a report, for an index out of range. Takes no lock.
    const SParticleStreamFieldDef &StreamDef(CGuid streamId) const;
    // What the stream was bound with. Takes no lock.
    TMemoryView<const S64Bytes> ConstantData() const { return m_ConstantData; }
    TStridedMemoryView<const CGuid> ConstantDataFieldSlot() const { return m_ConstantDataFieldSlot; }

    // Takes up to wishedCount slots, in particles, of one page: the first in the list with room for minCountHint of
    // them (0 or more than wishedCount: for all), else a new page. Returns the view on them, already counted; empty
    // when no page can be had. The new values are what the slots held before: those of particles that are gone, or 0xF3
    // in slots that nobody used yet. Where other threads may look, or remove particles, allocate and fill under one
    // lock. Views and page indices stay good. Takes the lock. O(pages) up to 128 pages; above, O(log pages), and
    // O(pages) after anything else happened to the page list.
    CParticlePageView AllocateParticlesIFP(u32 wishedCount, u32 minCountHint);
    // Asks AllocateParticlesIFP until count particles are served or nothing more can be had; free slots of existing
    // pages are used up first. Appends the views to outViews and returns how many particles they hold. Takes the lock
    // for each view.
    u32 AllocateParticles(u32 count, TArray<CParticlePageView> &outViews);
    // Removes particles of the page at pageId as CParticlePage::RemoveParticles does, and lowers the count in the same
    // locked step. Returns how many went; 0, after a report, for a bad page id or a bad list. outMoves, when given,
    // receives where particles of the page moved, as there: views on the page are stale, page indices stay good. Takes
    // the lock.
    u32 RemoveParticles(CGuid pageId, const TMemoryView<const u32> &indices,
                        TMemoryView<SParticleMove> *outMoves = null);

    // Counts births and deaths that happened in the pages by other means, and compares the count with the pages (a
    // difference is reported) under the lock. The last one compares nothing and takes no lock.
    void RegisterDeadCount(u32 deadCount);
    void RegisterBornCount(u32 bornCount);
    void RegisterBornCount_NoConsistencyCheck(u32 bornCount);

    u32 PageCount() const { return m_Pages.Count(); } // takes no lock
    // A page of the list. Indices change when pages are collected, resized or rebound. No lock is taken: hold it, or
    // read on the thread that changes the list. Page reports an index out of range and gives a null page; _UnsafePage
    // checks nothing.
    inline const PParticlePage &Page(CGuid pageId) const;
    const PParticlePage &_UnsafePage(CGuid pageId) const { return m_Pages.RawDataPointer()[pageId.Get()]; }

    // Page-to-page copies: append to dst what they copy, in one block copy per stored column. Pages are of one
    // definition (asserted). They know no stream: counts and locks are the caller's. All fail, dst being as before,
    // when dst has no room or has readers, or when the range lies outside the source's capacity. Views stay good.
    // Copies transferCount particles of src from srcStartId on.
    static bool CopySubRangeToPage(CParticlePage &dst, const CParticlePage &src, u32 srcStartId, u32 transferCount);
    // Copies all particles of the view; as CopySubRangeToPage.
    static bool CopyPageToPage(CParticlePage &dst, const CParticlePageView &src);
    // Copies what fits of the view's particles from position srcStart in it on; returns the position behind the last
    // one copied, srcStart when there was none. As CopySubRangeToPage otherwise.
    static u32 TransferPageToPage(CParticlePage &dst, const CParticlePageView &src, u32 srcStart);

    // Pages whose capacity is not PageSize() wait to be emptied into pages that have it: counts those that hold
    // particles. SetPageSize counts all of them. Expects the lock. O(pages).
    void ComputePendingResizes_NoLock();
    // Empties up to maxPageCountToProcess waiting pages that hold particles, and drops empty ones that it meets.
    // When no page can be had, which is reported, what is left of the page in progress is lost: ParticleCount() before
    // and after tells how many particles. Page indices change; views keep the emptied pages, as they were. Takes the
    // lock. O(pages), and a copy of each particle in the emptied ones.
    void ResizePending(u32 maxPageCountToProcess);
    // As counted last; takes no lock.
    bool HasPendingResizes() const { return Threads::LoadShared(m_PageCount_OutOfSync) != 0; }

    // Makes this stream an independent copy of other, which nobody changes meanwhile: its settings, and copies of its
    // pages that hold particles; what this stream held is released first. When memory is refused, the pages copied so
    // far stay and are counted. Page indices are new; views keep the former pages. Takes this stream's lock.
    void DeepCopy(const CParticleStream_MainMemory &other);

    // Binds the stream to def, with its constant data and, for each of its fields, the index of the constant's block
    // or CGuid::INVALID. A stream that holds particles keeps the fields that both definitions share by name, converted
    // where type or storage size differ; new fields are zero. Pages keep their capacity and empty ones go. All
    // particles go when a page of the present size would exceed the largest block. Nothing happens when def is bound
    // already; null is reported and changes nothing. Every page is replaced by one of the new layout, or gone: page
    // indices change, and views keep the former pages. The old definition and constant data are read during the call.
    // When memory is refused, the particles of each page that can not be made are lost, and nothing is reported:
    // ParticleCount() before and after tells how many. Takes the lock, for the pages: the owner alone binds.
    // O(particles).
    void BindStreamDef(const SParticleStreamDef *def, const TMemoryView<const S64Bytes> &constantData,
                       const TStridedMemoryView<const CGuid> &constantDataFieldSlot,
                       const SParticleImplementationCache &cache);

    // The same for a definition without constants. True when it is bound; false, and nothing changed, for null and for
    // a definition with a constant field, which are reported.
    bool BindStreamDef(const SParticleStreamDef *def);

    // Drops every page without particles; the order of the others changes, views stay good. pageReindexer may be null;
    // of its PageCount() entries, entry k becomes the new index of the page that was at k, or CGuid::INVALID. Takes the
    // lock; the list must not be changed by another thread meanwhile. Pages that waited to be resized stay counted:
    // while HasPendingResizes(), recount with ComputePendingResizes_NoLock before the next pass. O(pages).
    void GarbageCollectOldPages(TMemoryView<CGuid> *pageReindexer);

    // Pages, particles, slots and bytes at this moment. Takes the lock. O(pages * fields).
    SParticleStreamStats ComputeStats() const;

protected:
    // Bytes of the raw block of a page: each column rounded up to 16, added up in wrapping 32-bit arithmetic.
    static u32 _ComputePageSizeInBytes(u32 pageSize, const SParticleStreamDef *streamDef);
    // Makes an empty page of pageSize particles in a raw block of pageSizeInBytes bytes. Null when memory is refused
    // or the columns exceed the block.
    PParticlePage AllocNewPage_NoLock(u32 pageSize, u32 pageSizeInBytes, bool addToPageList);
    void _ResizePending_NoLock(u32 maxPageCountToProcess); // ResizePending; expects the lock
    u32 _RecomputeParticleCount() const;                   // the pages' sum; takes the lock when there are pages
    // Lowers the page size when its pages would exceed the allocator's cap; true when it did.
    bool _ClampPageSizeToAllocatorCapsIFN();
    void _DEBUG_CheckParticleCountConsistency() const; // reports when the pages' sum is not the count; takes the lock

private:
    CParticleStream_MainMemory(const CParticleStream_MainMemory &);
    CParticleStream_MainMemory &operator=(const CParticleStream_MainMemory &);

    static bool Startup() { return true; }
    static void Shutdown() {}

    static constexpr u32 kDefaultPageSize = 1024; // particles

    class CResizePass;
    struct SRebuild;

    // The same as AllocNewPage_NoLock, but leaves the rows before firstFreshRow as they are: the caller writes them.
    PParticlePage _AllocNewPage_NoLock(u32 pageSize, u32 pageSizeInBytes, bool addToPageList, u32 firstFreshRow);
    void _LayOutPage(CParticlePage &page) const;
    CGuid _ConstantSlot(u32 streamId) const; // past the slot table's end: INVALID, after a report
    u8 *_ConstantBlock(CGuid cstId) const;   // requires cstId < m_ConstantData.Count()
    SMediumMemoryReport _ComputeMemoryUsage() const;
    inline u32 _EnterLock() const;
    u32 _EnterLockToRender() const;
    TZ_NOINLINE void _WaitBehindRenderer() const;
    inline u32 _CountLock() const;
    inline bool _LeaveLock() const;
    inline u32 _SumOfPages() const;
    inline PParticlePage _FindPageWithRoom_NoLock(u32 minCount) const;
    inline CPageListIndex *_PageIndex_NoLock() const; // valid; null when the list is to be walked
    u32 _DeepCopyPages_NoLock(const CParticleStream_MainMemory &other);
    void _RebuildPages_NoLock(const SRebuild &rebuild);
    u32 _RebuildPage_NoLock(u32 i, const SRebuild &rebuild);
    void _RebindConstantField(u32 streamId, SParticleStreamField &field) const;
    bool _HasBadConstantField() const;

    // What is read without the lock is read and written by Threads::LoadShared and StoreShared.
    u32 m_PageSize;        // particles
    u32 m_PageSizeInBytes; // bytes; 0 while unbound
    const SParticleStreamDef *m_StreamDef;
    TMemoryView<const S64Bytes> m_ConstantData;
    TStridedMemoryView<const CGuid> m_ConstantDataFieldSlot;
    CPageList m_Pages;
    Threads::CCriticalSection m_PagesProtectCS;
    u32 m_PageCount_OutOfSync; // pages that wait to be resized; may be left too high
    TAtomic<u32> m_ParticleCount;
    mutable u32 m_PagesLocked; // nesting depth of the page lock; written by its holder
    mutable CGuid m_ThreadOwningLock;
    mutable bool m_IsRendererWaiting = false;
    mutable std::mutex m_RendererTurn;  // held by the thread that waits in LockPagesToRender
    mutable CPageListIndex m_PageIndex; // follows m_Pages; see _PageIndex_NoLock
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

// The same lock by the operations for threads that draw: waiting for it opens a profiler scope.
class CScopedPagesRenderLock : public CNonCopyable
{
public:
    // Waits for the lock.
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
