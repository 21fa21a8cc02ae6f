// Iteration over particles: the parts that do not depend on the types.
#include <tz_particles/include/ps_for_each.h>

namespace Tessaly
{
namespace Internal
{

namespace
{

bool HasColumn(const CParticlePage &page, const SColumnRequest &request)
{
    const u32 id = request.m_FieldId.Get();
    const bool isThere = id < page.StreamsCount();
    TZ_ASSERT_MESSAGE(isThere, "there is no field %u: the stream has %u", id, page.StreamsCount());
    if (!isThere)
        return false;
    const SParticleStreamField &field = page.Streams().Data()[id];
    const u32 stride = field.m_Definition.m_StorageSize;
    const bool isWritable = !request.m_IsWritten || !field.IsConstant();
    TZ_ASSERT_MESSAGE(isWritable, "field %u is a constant: use a const type", id);
    if (!isWritable)
        return false;
    const u32 valueSize = field.IsConstant() ? u32(sizeof(S64Bytes)) : stride;
    const bool isWhole = request.m_TypeSize <= valueSize;
    TZ_ASSERT_MESSAGE(isWhole, "a type of %u bytes does not fit field %u, whose values have %u bytes",
                      request.m_TypeSize, id, valueSize);
    if (!isWhole)
        return false;
    const bool hasData = field.m_RawDataPtr != null;
    TZ_ASSERT_MESSAGE(hasData, "field %u has no data: its constant was not found when the page was made", id);
    if (!hasData)
        return false;
    const bool isAligned = (ureg(field.m_RawDataPtr) | stride) % request.m_TypeAlignment == 0;
    TZ_ASSERT_MESSAGE(isAligned, "a type aligned to %u bytes does not fit field %u, whose values lie %u bytes apart",
                      request.m_TypeAlignment, id, stride);
    return isAligned;
}

void ReportChange(const CParticleStream_MainMemory &stream, u32 pageId, bool isIntact)
{
    TZ_ASSERT_MESSAGE(isIntact,
                      "the stream was changed during the iteration: after page %u it has %u particles in %u pages",
                      pageId, stream.ParticleCount(), stream.PageCount());
}

} // namespace

bool HasColumns(const CParticlePage &page, const TColumnRequests &requests)
{
    for (const SColumnRequest &request : requests)
    {
        if (!HasColumn(page, request))
            return false;
    }
    return true;
}

bool CanServe(const CParticleStream_MainMemory &stream, const TColumnRequests &requests, bool removesParticles)
{
    bool areWritten = removesParticles;
    for (const SColumnRequest &request : requests)
        areWritten = areWritten || request.m_IsWritten;
    bool isFirst = true;
    for (u32 i = 0; i < stream.PageCount() && (isFirst || areWritten); ++i)
    {
        const CParticlePage &page = *stream._UnsafePage(i).Get();
        if (page.Empty())
            continue;
        if (isFirst && !HasColumns(page, requests))
            return false;
        isFirst = false;
        const bool isReady = !areWritten || page.ReadyToWrite();
        TZ_ASSERT_MESSAGE(isReady, "page %u has readers: it can not be written", i);
        if (!isReady)
            return false;
    }
    return true;
}

CPageWalk::CPageWalk(const CParticleStream_MainMemory &stream)
    : m_Stream(stream)
    , m_IsIntact(true)
    , m_PageCount(stream.PageCount())
    , m_StreamParticleCount(stream.ParticleCount())
    , m_PageParticleCount(0)
{
}

bool CPageWalk::Next()
{
    if (!CheckIntact())
        return false;
    if (m_Stream._YieldToRenderer_NoLock())
    {
        m_PageCount = m_Stream.PageCount();
        m_StreamParticleCount = m_Stream.ParticleCount();
    }
    for (++m_PageId; m_PageId < m_PageCount; ++m_PageId)
    {
        const PParticlePage &page = m_Stream._UnsafePage(m_PageId);
        m_PageParticleCount = page.Get()->ParticleCount();
        if (m_PageParticleCount == 0)
            continue;
        m_Page = page;
        return true;
    }
    return false;
}

bool CPageWalk::CheckIntact()
{
    if (m_PageId.Valid() && m_IsIntact)
    {
        m_IsIntact = m_Stream.PageCount() == m_PageCount && m_Stream.ParticleCount() == m_StreamParticleCount &&
                     m_Stream._UnsafePage(m_PageId) == m_Page && m_Page.Get()->ParticleCount() == m_PageParticleCount;
        ReportChange(m_Stream, m_PageId, m_IsIntact);
    }
    return m_IsIntact;
}

void CPageWalk::CountRemoved(u32 count)
{
    m_StreamParticleCount -= count;
    m_PageParticleCount -= count;
}

CPageTasks::CPageTasks(const CParticleStream_MainMemory &stream)
    : m_Stream(stream)
    , m_PageCount(stream.PageCount())
{
    if (!m_Pages.Reserve(m_PageCount))
        return;
    const CScopedPagesLock lock(stream); // nested, so that the walk does not yield to a render thread
    for (CPageWalk walk(stream); walk.Next();)
        m_Pages.PushBackUnsafe(CParticlePageView(walk.Page()));
}

const CParticlePageView *CPageTasks::Find(u32 index) const
{
    const bool isThere = index < Count();
    TZ_ASSERT_MESSAGE(isThere, "there is no task %u: the executor was given %u", index, Count());
    return isThere ? m_Pages.RawDataPointer() + index : null;
}

void CPageTasks::CheckIntact() const
{
    const CScopedPagesLock lock(m_Stream); // nested, as in the constructor
    u32 index = 0;
    bool isIntact = m_Stream.PageCount() == m_PageCount;
    for (CPageWalk walk(m_Stream); walk.Next(); ++index)
    {
        const CParticlePageView *view = index < Count() ? m_Pages.RawDataPointer() + index : null;
        isIntact = isIntact && view != null && view->OriginalPage() == &walk.Page() && view->IsFullPageView();
    }
    ReportChange(m_Stream, index, isIntact && index == Count());
}

} // namespace Internal
} // namespace Tessaly
