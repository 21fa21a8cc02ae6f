// Copies between pages, and pending resizes.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_address_sanitizer.h>
#include <tz_kernel/include/kr_mem_utils.h>

namespace Tessaly
{

namespace
{

constexpr u32 kMinAvailableCount = 64; // free slots that an existing page needs to be a destination

bool IsWithinCapacity(const CParticlePage &page, u32 first, u32 count) { return u64(first) + count <= page.Capacity(); }

// Copies count particles of one field. Of two storage sizes the smaller is copied.
void CopyRun(const SParticleStreamField &dstField, u32 dstStartId, const SParticleStreamField &srcField, u32 srcStartId,
             u32 count)
{
    const u32 dstStorageSize = dstField.m_Definition.m_StorageSize;
    const u32 srcStorageSize = srcField.m_Definition.m_StorageSize;
    const u32 byteCount = TZMin(dstStorageSize, srcStorageSize) * count;
    if (byteCount == 0 || dstField.m_RawDataPtr == null || srcField.m_RawDataPtr == null)
        return; // a host may have cleared a field
    u8 *dst = dstField.m_RawDataPtr + dstStorageSize * dstStartId;
    const u8 *src = srcField.m_RawDataPtr + srcStorageSize * srcStartId;
    if (Mem::kIsAddressSanitized && u64(srcStartId) + count > srcField.m_ParticleCount)
        return Mem::CopyPoisoned(dst, src, byteCount); // the range may include free slots
    Mem::Copy(dst, src, byteCount);
}

} // namespace

bool CParticleStream_MainMemory::CopySubRangeToPage(CParticlePage &dst, const CParticlePage &src, u32 srcStartId,
                                                    u32 transferCount)
{
    TZ_ASSERT(transferCount <= dst.Capacity() - dst.ParticleCount());
    if (transferCount == 0)
        return true;
    if (!IsWithinCapacity(src, srcStartId, transferCount))
        return false;
    const u32 oldCount = dst.ParticleCount();
    // Readers are checked before slots are taken: the handler of a report must not find slots that are not written.
    const CGuid dstStartId = dst.PrepareForWriting() ? dst.AllocateParticles(transferCount) : CGuid::INVALID;
    if (!TZ_VERIFY(dstStartId.Valid() && dst.PrepareForWriting()))
    {
        if (dstStartId.Valid())
            dst._SetParticleCount(oldCount);
        return false;
    }
    const u32 fieldCount = TZMin(src.m_Streams_Unsafe.Count(), dst.m_Streams_Unsafe.Count());
    for (u32 j = 0; j < fieldCount; ++j)
    {
        const SParticleStreamField &srcField = src.m_Streams_Unsafe[j];
        const SParticleStreamField &dstField = dst.m_Streams_Unsafe[j];
        TZ_ASSERT(srcField.m_Definition == dstField.m_Definition);
        if (dstField.m_Definition.m_StorageSize != 0)
            CopyRun(dstField, dstStartId, srcField, srcStartId, transferCount);
    }
    return true;
}

bool CParticleStream_MainMemory::CopyPageToPage(CParticlePage &dst, const CParticlePageView &src)
{
    TZ_ASSERT(src.ParticleCount() <= dst.Capacity() - dst.ParticleCount());
    const PCParticlePage srcPage = src.OriginalPage();
    if (src.Empty() || srcPage == null || dst.StreamsCount() == 0)
        return true;
    const u32 srcStartId = src.FirstParticle();
    const u32 transferCount = src.ParticleCount();
    if (!IsWithinCapacity(*srcPage, srcStartId, transferCount))
        return false;
    const u32 oldCount = dst.ParticleCount();
    const CGuid dstStartId = dst.PrepareForWriting() ? dst.AllocateParticles(transferCount) : CGuid::INVALID;
    if (!TZ_VERIFY(dstStartId.Valid() && dst.PrepareForWriting()))
    {
        if (dstStartId.Valid())
            dst._SetParticleCount(oldCount);
        return false;
    }
    const u32 fieldCount = TZMin(srcPage->StreamsCount(), dst.StreamsCount());
    for (u32 j = 0; j < fieldCount; ++j)
    {
        const SParticleStreamField &srcField = srcPage->Stream(CGuid(j));
        const SParticleStreamField &dstField = dst.Stream(CGuid(j));
        if (dstField.m_Definition.m_StorageSize == 0)
            continue;
        TZ_ASSERT(srcField.m_Definition == dstField.m_Definition);
        CopyRun(dstField, dstStartId, srcField, srcStartId, transferCount);
    }
    return true;
}

u32 CParticleStream_MainMemory::TransferPageToPage(CParticlePage &dst, const CParticlePageView &src, u32 srcStart)
{
    const u32 totalParticleCount = src.ParticleCount();
    if (srcStart > totalParticleCount)
        return srcStart;
    const u32 availableSpace = dst.Capacity() - dst.ParticleCount();
    const u32 transferCount = TZMin(totalParticleCount - srcStart, availableSpace);
    if (transferCount == 0)
        return srcStart;
    const PCParticlePage srcPage = src.OriginalPage();
    if (srcPage == null || !CopySubRangeToPage(dst, *srcPage, src.FirstParticle() + srcStart, transferCount))
        return srcStart;
    return srcStart + transferCount;
}

void CParticleStream_MainMemory::ComputePendingResizes_NoLock()
{
    u32 outOfSyncCount = 0;
    for (const PParticlePage &page : m_Pages.View())
        outOfSyncCount += !page->Empty() && page->Capacity() != m_PageSize ? 1 : 0;
    Threads::StoreShared(m_PageCount_OutOfSync, outOfSyncCount);
}

void CParticleStream_MainMemory::ResizePending(u32 maxPageCountToProcess)
{
    _DEBUG_CheckParticleCountConsistency();
    LockPages();
    _ResizePending_NoLock(maxPageCountToProcess);
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
}

// One pass over the page list.
//
// Destinations are searched from the end down. A page that was passed over never qualifies later in the pass, since its
// free slots do not grow: the search goes on where it left off.
//
// A new destination's rows are not filled where particles will be copied to. The old pages are kept until these rows
// are written: destroying a page calls the memory service, whose hook may read the new page. With all rows filled,
// resizes from 512 to 4096 particles take 1.2 to 1.3 times as long.
class CParticleStream_MainMemory::CResizePass
{
public:
    CResizePass(CParticleStream_MainMemory &stream, u32 maxPageCountToProcess)
        : m_Stream(stream)
        , m_Pages(stream.m_Pages)
        , m_MaxPageCountToProcess(maxPageCountToProcess)
        , m_DestinationEnd(stream.m_Pages.Count())
    {
    }
    ~CResizePass() { m_Pages.MoveToBufferStart(); }

    // There is an old page in progress, or one to start with.
    bool HasWork() const
    {
        return m_OldPage != null || (m_ProcessedPages < m_MaxPageCountToProcess && m_Stream.m_PageCount_OutOfSync != 0);
    }
    u32 OldAccCount() const { return m_OldAccCount; }
    u32 NewAccCount() const { return m_NewAccCount; }

    // Finds the next old page. Returns false when there is none: the counter was too high, and becomes 0.
    bool FindOldPage();
    // Returns the next destination; null when no page can be made.
    PParticlePage ChooseDestination();
    // Moves particles into newPage until it is full or the work is done. Returns false when newPage was made for them
    // and cannot be written: the page in progress is back in the list then, with the particles that were not copied.
    bool FillDestination(CParticlePage &newPage);

private:
    void _TakeOldPage();
    u32 _CountRowsToCome() const;
    void _Keep(PParticlePage &&takenPage);
    bool _TransferOldPage(CParticlePage &newPage, u32 &dstSpaceLeft);
    void _PutBackOldPage();

    CParticleStream_MainMemory &m_Stream;
    CPageList &m_Pages;
    const u32 m_MaxPageCountToProcess;
    u32 m_ProcessedPages = 0; // old pages that held particles and whose move has started
    u32 m_OldAccCount = 0;    // sum of their particle counts
    u32 m_NewAccCount = 0;    // particles copied so far
    u32 m_OldPageIndex = 0;   // pages before this one have the current capacity
    u32 m_DestinationEnd;     // pages from here on were passed over or are full
    PParticlePage m_OldPage;  // in progress; not in the list any more
    u32 m_OldStart = 0;       // its first particle not yet copied
    bool m_IsDestinationFresh = false;
    static constexpr u32 kMaxKeptPages = 16;
    PParticlePage m_KeptPages[kMaxKeptPages]; // those that the current destination was filled from
    u32 m_KeptCount = 0;
};

bool CParticleStream_MainMemory::CResizePass::FindOldPage()
{
    if (m_OldPage != null)
        return true;
    for (; m_OldPageIndex < m_Pages.Count(); ++m_OldPageIndex)
    {
        if (m_Pages.RawDataPointer()[m_OldPageIndex]->Capacity() != m_Stream.m_PageSize)
            return true;
    }
    Threads::StoreShared(m_Stream.m_PageCount_OutOfSync, 0);
    return false;
}

PParticlePage CParticleStream_MainMemory::CResizePass::ChooseDestination()
{
    while (m_DestinationEnd != 0)
    {
        const PParticlePage &page = m_Pages.RawDataPointer()[--m_DestinationEnd];
        if (page->Capacity() == m_Stream.m_PageSize && page->FreeCount() >= kMinAvailableCount)
            return page;
    }
    m_IsDestinationFresh = true;
    return m_Stream._AllocNewPage_NoLock(m_Stream.m_PageSize, m_Stream.m_PageSizeInBytes, true, _CountRowsToCome());
}

// A lower bound of the particles that the next destination receives from pages that are kept until they are copied. It
// ends at a page with other fields, which does not write all bytes of its rows.
u32 CParticleStream_MainMemory::CResizePass::_CountRowsToCome() const
{
    if (m_OldPage != null && !m_OldPage->_HasFieldsOf(*m_Stream.m_StreamDef))
        return 0;
    u32 rowCount = m_OldPage != null ? m_OldPage->ParticleCount() - m_OldStart : 0;
    const u32 maxPageCount =
        TZMin(TZMin(kMaxKeptPages - 1, m_Stream.m_PageCount_OutOfSync), m_MaxPageCountToProcess - m_ProcessedPages);
    u32 pageCount = 0;
    for (u32 i = m_OldPageIndex; i < m_Pages.Count() && pageCount < maxPageCount && rowCount < m_Stream.m_PageSize; ++i)
    {
        const CParticlePage &page = *m_Pages.RawDataPointer()[i].Get();
        if (page.Capacity() == m_Stream.m_PageSize)
            continue;
        if (!page._HasFieldsOf(*m_Stream.m_StreamDef))
            break;
        rowCount += page.ParticleCount();
        ++pageCount;
    }
    return TZMin(rowCount, m_Stream.m_PageSize);
}

bool CParticleStream_MainMemory::CResizePass::FillDestination(CParticlePage &newPage)
{
    u32 dstSpaceLeft = newPage.FreeCount();
    bool isAccepting = true;
    do
    {
        if (!FindOldPage())
            break;
        if (m_OldPage == null)
            _TakeOldPage();
        if (m_OldPage != null)
            isAccepting = _TransferOldPage(newPage, dstSpaceLeft);
    } while (isAccepting && dstSpaceLeft != 0 && HasWork());
    for (u32 i = 0; i < m_KeptCount; ++i)
        m_KeptPages[i] = null;
    m_KeptCount = 0;
    if (isAccepting || !m_IsDestinationFresh)
        return true;
    _PutBackOldPage();
    return false;
}

// Takes the old page that was found out of the list. An empty one is not processed.
void CParticleStream_MainMemory::CResizePass::_TakeOldPage()
{
    CPageListIndex::Detach(*m_Pages.RawDataPointer()[m_OldPageIndex]);
    m_OldPage = m_Pages.Take_KeepOrder(m_OldPageIndex);
    m_DestinationEnd -= m_DestinationEnd > m_OldPageIndex ? 1 : 0;
    const u32 outOfSyncCount = m_Stream.m_PageCount_OutOfSync;
    TZ_ASSERT_TEXT("m_PageCount_OutOfSync > 0", outOfSyncCount > 0);
    Threads::StoreShared(m_Stream.m_PageCount_OutOfSync, outOfSyncCount > 0 ? outOfSyncCount - 1 : 0);
    if (m_OldPage->Empty())
        return _Keep(std::move(m_OldPage));
    m_ProcessedPages += 1;
    m_OldAccCount += m_OldPage->ParticleCount();
    m_OldStart = 0;
}

// Keeps a page that was taken out of the list until the destination is written. A page beyond kMaxKeptPages is released
// at once: _CountRowsToCome has not counted it.
void CParticleStream_MainMemory::CResizePass::_Keep(PParticlePage &&takenPage)
{
    const PParticlePage page = std::move(takenPage);
    if (m_KeptCount < kMaxKeptPages)
        m_KeptPages[m_KeptCount++] = page;
}

// Copies as much of the old page as the destination takes. Returns false when nothing was copied.
bool CParticleStream_MainMemory::CResizePass::_TransferOldPage(CParticlePage &newPage, u32 &dstSpaceLeft)
{
    const u32 oldEnd = TransferPageToPage(newPage, CParticlePageView(*m_OldPage), m_OldStart);
    const u32 actuallyTransferred = oldEnd - m_OldStart;
    const u32 totalToTransfer = m_OldPage->ParticleCount() - m_OldStart;
    const u32 totalTransferrable = TZMin(totalToTransfer, dstSpaceLeft);
    TZ_ASSERT(totalTransferrable != 0);
    TZ_ASSERT(actuallyTransferred == TZMin(totalToTransfer, dstSpaceLeft));
    dstSpaceLeft -= actuallyTransferred;
    m_NewAccCount += actuallyTransferred;
    if (oldEnd == m_OldPage->ParticleCount())
    {
        _Keep(std::move(m_OldPage));
        m_OldStart = 0;
        return true;
    }
    TZ_ASSERT(dstSpaceLeft == 0);
    m_OldStart = oldEnd;
    return actuallyTransferred != 0;
}

void CParticleStream_MainMemory::CResizePass::_PutBackOldPage()
{
    if (m_OldStart != 0 && !m_OldPage->PrepareForWriting())
        return;
    if (m_OldStart != 0)
        m_OldPage->_DropFirstParticles(m_OldStart);
    if (!m_Pages.PushBack(m_OldPage).Valid())
        return;
    m_OldAccCount -= m_OldPage->ParticleCount();
    m_OldPage = null;
    Threads::StoreShared(m_Stream.m_PageCount_OutOfSync, m_Stream.m_PageCount_OutOfSync + 1);
}

void CParticleStream_MainMemory::_ResizePending_NoLock(u32 maxPageCountToProcess)
{
    TZ_ASSERT(m_PageCount_OutOfSync <= m_Pages.Count());
    if (maxPageCountToProcess == 0 || m_PageCount_OutOfSync == 0)
        return;
    CResizePass pass(*this, maxPageCountToProcess);
    while (pass.HasWork())
    {
        TZ_ASSERT(m_PageCount_OutOfSync <= m_Pages.Count());
        if (!pass.FindOldPage())
            break;
        const PParticlePage newPage = pass.ChooseDestination();
        if (!TZ_VERIFY(newPage != null))
            break;
        TZ_ASSERT(!newPage->Full() && newPage->Capacity() == m_PageSize);
        if (!pass.FillDestination(*newPage))
            break;
    }
    const u32 oldAccCount = pass.OldAccCount();
    const u32 newAccCount = pass.NewAccCount();
    TZ_ASSERT(oldAccCount <= m_ParticleCount.Load());
    if (oldAccCount != newAccCount)
    {
        TZ_ASSERT(oldAccCount > newAccCount);
        m_ParticleCount.FetchSub(oldAccCount - newAccCount);
    }
}

} // namespace Tessaly
