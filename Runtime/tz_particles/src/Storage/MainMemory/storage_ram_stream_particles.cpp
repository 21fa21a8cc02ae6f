// Births, deaths, and the live count.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_profiler.h>

namespace Tessaly
{

inline CPageListIndex *CParticleStream_MainMemory::_PageIndex_NoLock() const
{
    const u32 pageCount = m_Pages.Count();
    if (pageCount < CPageListIndex::kMinPageCount)
        return null;
    const bool isValid =
        m_PageIndex.IsValidFor(pageCount) || (m_PageIndex.NoteQuery() && m_PageIndex.Build(m_Pages.View()));
    return isValid ? &m_PageIndex : null;
}

inline PParticlePage CParticleStream_MainMemory::_FindPageWithFreeSlots_NoLock(u32 minCount) const
{
    if (CPageListIndex *index = _PageIndex_NoLock())
    {
        const CGuid pageId = index->FindFirst(m_Pages.View(), minCount);
        return pageId.Valid() ? m_Pages.RawDataPointer()[pageId.Get()] : PParticlePage();
    }
    for (const PParticlePage &page : m_Pages.View())
    {
        if (page.Get()->FreeCount() >= minCount)
            return page;
    }
    return null;
}

TZ_FORCEINLINE u32 CParticleStream_MainMemory::_SumOfPages() const
{
    if (m_Pages.Empty())
        return 0;
    LockPages();
    u32 sum = 0;
    if (CPageListIndex *index = _PageIndex_NoLock())
        sum = index->ParticleCount();
    else
    {
        for (const PParticlePage &page : m_Pages.View())
            sum += page.Get()->ParticleCount();
    }
    UnlockPages();
    return sum;
}

u32 CParticleStream_MainMemory::_RecomputeParticleCount() const { return _SumOfPages(); }

void CParticleStream_MainMemory::_DEBUG_CheckParticleCountConsistency() const
{
    LockPages();
    const u32 realPCount = _SumOfPages();
    TZ_ASSERT(realPCount == m_ParticleCount.Load());
    UnlockPages();
}

CParticlePageView CParticleStream_MainMemory::AllocateParticlesIFP(u32 wishedCount, u32 minCountHint)
{
    TZ_PROFILE_SCOPE_COLORED("AllocateParticlesIFP", CFloat4(0.8f, 0.2f, 1.0f, 1.0f));
    if (minCountHint == 0 || minCountHint > wishedCount)
        minCountHint = wishedCount;
    _DEBUG_CheckParticleCountConsistency();

    CGuid startId;
    LockPages();
    PParticlePage page = _FindPageWithFreeSlots_NoLock(minCountHint);
    if (page == null)
        page = AllocNewPage_NoLock(true);
    if (page != null)
    {
        wishedCount = TZMin(page->FreeCount(), wishedCount);
        startId = page->AllocateParticles(wishedCount);
        TZ_ASSERT(startId.Valid());
        TZ_ASSERT(startId + wishedCount == page->ParticleCount());
        if (startId.Valid())
            m_ParticleCount.Add(wishedCount);
    }
    UnlockPages();

    if (!startId.Valid())
    {
        _DEBUG_CheckParticleCountConsistency();
        return CParticlePageView();
    }
    TZ_ASSERT(page->ParticleCount() >= startId + wishedCount);
    _DEBUG_CheckParticleCountConsistency();
    return CParticlePageView(std::move(page), startId, wishedCount);
}

u32 CParticleStream_MainMemory::AllocateParticles(u32 count, TArray<CParticlePageView> &outViews)
{
    u32 served = 0;
    while (served < count)
    {
        // The entry is added first: when its memory is refused, no particles have been taken.
        if (!outViews.PushBack(CParticlePageView()).Valid())
            break;
        CParticlePageView &view = outViews.Last();
        view = AllocateParticlesIFP(count - served, 1);
        if (view.Empty())
        {
            outViews.Remove(outViews.Count() - 1);
            break;
        }
        served += view.ParticleCount();
    }
    return served;
}

u32 CParticleStream_MainMemory::RemoveParticles(CGuid pageId, const TMemoryView<const u32> &indices,
                                                TMemoryView<SParticleMove> *outMoves)
{
    const CScopedPagesLock lock(*this);
    if (!TZ_VERIFY_MESSAGE(pageId < m_Pages.Count(), "there is no page %u: the stream has %u", pageId.Get(),
                           m_Pages.Count()))
    {
        if (outMoves != null)
            outMoves->m_Count = 0;
        return 0;
    }
    const u32 removedCount = m_Pages.RawDataPointer()[pageId.Get()]->RemoveParticles(indices, outMoves);
    m_ParticleCount.FetchSub(removedCount);
    return removedCount;
}

void CParticleStream_MainMemory::RegisterDeadCount(u32 deadCount)
{
    m_ParticleCount.FetchSub(deadCount);
    _DEBUG_CheckParticleCountConsistency();
    TZ_ASSERT(s32(m_ParticleCount.Load()) >= 0);
}

void CParticleStream_MainMemory::RegisterBornCount(u32 bornCount)
{
    m_ParticleCount.Add(bornCount);
    _DEBUG_CheckParticleCountConsistency();
}

void CParticleStream_MainMemory::RegisterBornCount_NoConsistencyCheck(u32 bornCount) { m_ParticleCount.Add(bornCount); }

} // namespace Tessaly
