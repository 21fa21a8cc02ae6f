// Page-to-page copies, and pending resizes, which live on them.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_address_sanitizer.h>
#include <tz_kernel/include/kr_mem_utils.h>

namespace Tessaly
{

namespace
{

constexpr u32 kMinAvailableCount = 64; // free slots, in particles, that make an existing page a destination

bool IsWithinCapacity(const CParticlePage &page, u32 first, u32 count) { return u64(first) + count <= page.Capacity(); }

// Copies count particles of one field. Of two storage sizes the smaller is copied.
void CopyRun(const SParticleStreamField &dstField, u32 dstStartId, const SParticleStreamField &srcField, u32 srcStartId,
             u32 count)
{
    const u32 dstStorageSize = dstField.m_Definition.m_StorageSize;
    const u32 srcStorageSize = srcField.m_Definition.m_StorageSize;
    const u32 byteCount = TZMin(dstStorageSize, srcStorageSize) * count;
    if (byteCount == 0)
        return;
    u8 *dst = dstField.m_RawDataPtr + dstStorageSize * dstStartId;
    const u8 *src = srcField.m_RawDataPtr + srcStorageSize * srcStartId;
    if (Mem::kIsAddressSanitized && u64(srcStartId) + count > srcField.m_ParticleCount)
        return Mem::CopyPoisoned(dst, src, byteCount); // a range reaches to the source's capacity, not to its count
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
    const CGuid dstStartId = dst.AllocateParticles(transferCount);
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
    const CGuid dstStartId = dst.AllocateParticles(transferCount);
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
    m_PageCount_OutOfSync = outOfSyncCount;
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
// Pages taken out leave a gap, which moves along with the search for the next one: pages that stay slide down over it,
// one move each, where closing it each time would move the whole rest of the list. While the pass runs, the list is
//
//   [0, m_GapStart) pages that stay   [m_GapStart, m_GapEnd) null   [m_GapEnd, Count()) not searched yet, or new
//
// The gap is closed before the pass or a copy reports, so that a handler finds the list as it is. While a destination
// is made (memory services, and what page allocation reports) it may be open: the list then holds null references,
// which the walks that only look skip.
//
// Destinations are looked for from the end down. A page that was passed over never qualifies later in the pass (its
// room does not grow), so that search goes on where it left off, too.
class CParticleStream_MainMemory::CResizePass
{
public:
    CResizePass(CParticleStream_MainMemory &stream, u32 maxPageCountToProcess)
        : m_Stream(stream)
        , m_Pages(stream.m_Pages)
        , m_PageSize(stream.m_PageSize)
        , m_MaxPageCountToProcess(maxPageCountToProcess)
        , m_DestinationEnd(stream.m_Pages.Count())
    {
    }

    // Old pages wait, or one is in progress.
    bool HasWork() const
    {
        return m_OldPage != null || (m_ProcessedPages < m_MaxPageCountToProcess && m_Stream.m_PageCount_OutOfSync != 0);
    }
    u32 PageCount() const { return m_Pages.Count() - (m_GapEnd - m_GapStart); }
    u32 OldAccCount() const { return m_OldAccCount; }
    u32 NewAccCount() const { return m_NewAccCount; }
    bool HasOldPage() const { return m_OldPage != null; }
    bool IsDestinationFresh() const { return m_IsDestinationFresh; }

    // True when there is an old page to empty. Otherwise the counter was too high: it becomes 0.
    bool FindOldPage();
    // The next destination; null when none can be had.
    PParticlePage ChooseDestination();
    // Moves particles into newPage until it is full or the work is done. False when it refuses them.
    bool FillDestination(CParticlePage &newPage);
    // Puts a page in progress, with what was not copied of it, back into the list.
    void PutBackOldPage();

    // Makes the list whole. Returns false: it stands behind conditions that are about to be reported.
    bool CloseGap();

private:
    bool _StartOldPage();
    bool _TransferOldPage(CParticlePage &newPage, u32 &dstSpaceLeft);
    void _TakeOldPage();
    void _MovePageDown();

    CParticleStream_MainMemory &m_Stream;
    TArray<PParticlePage> &m_Pages;
    const u32 m_PageSize;
    const u32 m_MaxPageCountToProcess;
    u32 m_ProcessedPages = 0; // old pages that held particles and whose move has started
    u32 m_OldAccCount = 0;    // sum of their particle counts
    u32 m_NewAccCount = 0;    // particles copied so far
    u32 m_GapStart = 0;
    u32 m_GapEnd = 0;
    u32 m_DestinationEnd;    // pages from here on are no destinations any more
    PParticlePage m_OldPage; // the page being emptied, out of the list
    u32 m_OldStart = 0;      // its first particle not yet copied
    bool m_IsDestinationFresh = false;
};

bool CParticleStream_MainMemory::CResizePass::FindOldPage()
{
    for (; m_GapEnd < m_Pages.Count(); _MovePageDown())
    {
        if (m_Pages.RawDataPointer()[m_GapEnd]->Capacity() != m_PageSize)
            return true;
    }
    m_Stream.m_PageCount_OutOfSync = 0;
    return false;
}

// The page behind the gap stays: it changes places with the gap's first entry.
void CParticleStream_MainMemory::CResizePass::_MovePageDown()
{
    if (m_DestinationEnd == m_GapEnd)
        m_DestinationEnd = m_GapStart;
    if (m_GapStart != m_GapEnd)
        TZSwap(m_Pages.RawDataPointer()[m_GapStart], m_Pages.RawDataPointer()[m_GapEnd]);
    ++m_GapStart;
    ++m_GapEnd;
}

void CParticleStream_MainMemory::CResizePass::_TakeOldPage()
{
    if (m_DestinationEnd == m_GapEnd)
        m_DestinationEnd = m_GapStart;
    m_OldPage = std::move(m_Pages.RawDataPointer()[m_GapEnd]);
    m_Stream._LeavePageIndex_NoLock(*m_OldPage);
    ++m_GapEnd;
    const u32 waitingCount = m_Stream.m_PageCount_OutOfSync;
    TZ_ASSERT_TEXT("m_PageCount_OutOfSync > 0", waitingCount > 0 || CloseGap());
    m_Stream.m_PageCount_OutOfSync = waitingCount > 0 ? waitingCount - 1 : 0;
}

bool CParticleStream_MainMemory::CResizePass::CloseGap()
{
    if (m_GapStart == m_GapEnd)
        return false;
    m_Pages.Remove_AndKeepOrder(m_GapStart, m_GapEnd);
    if (m_DestinationEnd >= m_GapEnd)
        m_DestinationEnd -= m_GapEnd - m_GapStart;
    m_GapEnd = m_GapStart;
    return false;
}

PParticlePage CParticleStream_MainMemory::CResizePass::ChooseDestination()
{
    m_IsDestinationFresh = false;
    while (m_DestinationEnd != 0)
    {
        if (m_DestinationEnd > m_GapStart && m_DestinationEnd <= m_GapEnd)
            m_DestinationEnd = m_GapStart; // steps over the gap
        if (m_DestinationEnd == 0)
            break;
        const PParticlePage &page = m_Pages.RawDataPointer()[--m_DestinationEnd];
        if (page->Capacity() == m_PageSize && page->FreeCount() >= kMinAvailableCount)
            return page;
    }
    if (m_Pages.Count() == m_Pages.Capacity())
        CloseGap(); // the list grows only when it is truly full
    m_IsDestinationFresh = true;
    // Its rows are filled behind the particles that it gets.
    return m_Stream._AllocNewPage_NoLock(m_PageSize, m_Stream.m_PageSizeInBytes, true, m_PageSize);
}

// Takes the next old page out of the list. False when there was none, or an empty one, which is dropped.
bool CParticleStream_MainMemory::CResizePass::_StartOldPage()
{
    if (!FindOldPage())
        return false;
    _TakeOldPage();
    if (m_OldPage->Empty())
    {
        m_OldPage = null;
        return false;
    }
    m_ProcessedPages += 1;
    m_OldAccCount += m_OldPage->ParticleCount();
    m_OldStart = 0;
    return true;
}

// Copies what fits of the old page. False when nothing was copied.
bool CParticleStream_MainMemory::CResizePass::_TransferOldPage(CParticlePage &newPage, u32 &dstSpaceLeft)
{
    if (!newPage.PrepareForWriting())
        CloseGap(); // the copy is about to report
    const u32 oldEnd = TransferPageToPage(newPage, CParticlePageView(*m_OldPage), m_OldStart);
    const u32 actuallyTransferred = oldEnd - m_OldStart;
    const u32 totalToTransfer = m_OldPage->ParticleCount() - m_OldStart;
    const u32 totalTransferrable = TZMin(totalToTransfer, dstSpaceLeft);
    if (totalTransferrable == 0 || actuallyTransferred != totalTransferrable)
        CloseGap();
    TZ_ASSERT(totalTransferrable != 0);
    TZ_ASSERT(actuallyTransferred == TZMin(totalToTransfer, dstSpaceLeft));
    dstSpaceLeft -= actuallyTransferred;
    m_NewAccCount += actuallyTransferred;
    if (oldEnd == m_OldPage->ParticleCount())
    {
        m_OldPage = null;
        m_OldStart = 0;
        return true;
    }
    TZ_ASSERT(dstSpaceLeft == 0);
    m_OldStart = oldEnd;
    return actuallyTransferred != 0;
}

bool CParticleStream_MainMemory::CResizePass::FillDestination(CParticlePage &newPage)
{
    u32 dstSpaceLeft = newPage.FreeCount();
    bool isAccepting = true;
    do
    {
        if (m_OldPage != null || _StartOldPage())
            isAccepting = _TransferOldPage(newPage, dstSpaceLeft);
    } while (isAccepting && dstSpaceLeft != 0 && HasWork());
    if (m_IsDestinationFresh)
        newPage._FillFreshRows(newPage.ParticleCount());
    return isAccepting;
}

void CParticleStream_MainMemory::CResizePass::PutBackOldPage()
{
    if (m_OldPage == null || (m_OldStart != 0 && !m_OldPage->PrepareForWriting()))
        return;
    if (m_OldStart != 0)
        m_OldPage->_DropFirstParticles(m_OldStart);
    const u32 particleCount = m_OldPage->ParticleCount();
    if (m_GapStart != m_GapEnd)
        m_Pages.RawDataPointer()[--m_GapEnd] = std::move(m_OldPage);
    else if (!m_Pages.PushBack(m_OldPage).Valid())
        return;
    m_OldPage = null;
    m_OldAccCount -= particleCount;
    m_Stream.m_PageCount_OutOfSync = m_Stream.m_PageCount_OutOfSync + 1;
}

void CParticleStream_MainMemory::_ResizePending_NoLock(u32 maxPageCountToProcess)
{
    TZ_ASSERT(m_PageCount_OutOfSync <= m_Pages.Count());
    if (maxPageCountToProcess == 0 || m_PageCount_OutOfSync == 0)
        return;
    CResizePass pass(*this, maxPageCountToProcess);
    while (pass.HasWork())
    {
        TZ_ASSERT_TEXT("m_PageCount_OutOfSync <= m_Pages.Count()",
                       m_PageCount_OutOfSync <= pass.PageCount() || pass.CloseGap());
        if (!pass.HasOldPage() && !pass.FindOldPage())
            break;
        const PParticlePage newPage = pass.ChooseDestination();
        if (newPage == null)
            pass.CloseGap();
        if (!TZ_VERIFY(newPage != null))
            break;
        TZ_ASSERT(!newPage->Full() && newPage->Capacity() == m_PageSize);
        if (!pass.FillDestination(*newPage) && pass.IsDestinationFresh())
        {
            pass.PutBackOldPage();
            break;
        }
    }
    pass.CloseGap();
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
