// The stream's life, its exchange with another, its lock, its queries.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_profiler.h>

namespace Tessaly
{

CParticleStream_MainMemory::CParticleStream_MainMemory(u32 pageSize)
    : m_PageSize(pageSize)
    , m_PageSizeInBytes(0)
    , m_StreamDef(null)
    , m_PageCount_OutOfSync(0)
    , m_ParticleCount(0)
    , m_PagesLocked(0)
    , m_ThreadOwningLock(CGuid::INVALID)
{
    if (m_PageSize == 0u)
        m_PageSize = kDefaultPageSize;
}

void CParticleStream_MainMemory::Clear()
{
    _DEBUG_CheckParticleCountConsistency();
    LockPages();
    for (const PParticlePage &page : m_Pages.View())
    {
        _LeavePageIndex_NoLock(*page);
        page->Clear();
    }
    m_Pages.Clear();
    m_ParticleCount.Store(0);
    m_PageCount_OutOfSync = 0;
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
}

void CParticleStream_MainMemory::Cleanup()
{
    _DEBUG_CheckParticleCountConsistency();
    TArray<PParticlePage> pageList;
    LockPages();
    for (const PParticlePage &page : m_Pages.View())
        _LeavePageIndex_NoLock(*page);
    m_PageIndex.Release();
    TZSwap(m_Pages, pageList);
    m_ParticleCount.Store(0);
    UnlockPages();
    m_PageCount_OutOfSync = 0;
    // Pages die outside the lock: their blocks' way home waits for nobody, and nobody for it.
    for (PParticlePage &page : pageList.ViewForWriting())
        page = null;
    _DEBUG_CheckParticleCountConsistency();
}

void CParticleStream_MainMemory::Swap(CParticleStream_MainMemory &other)
{
    _DEBUG_CheckParticleCountConsistency();
    TZ_ASSERT(m_PagesLocked == 0);
    LockPages();
    TZ_ASSERT(other.m_PagesLocked == 0);
    TZSwap(m_PageSize, other.m_PageSize);
    TZSwap(m_PageSizeInBytes, other.m_PageSizeInBytes);
    TZSwap(m_StreamDef, other.m_StreamDef);
    TZSwap(m_ParticleCount, other.m_ParticleCount);
    TZSwap(m_Pages, other.m_Pages);
    TZSwap(m_PageCount_OutOfSync, other.m_PageCount_OutOfSync);
    m_PageIndex.Invalidate();
    other.m_PageIndex.Invalidate();
    for (const PParticlePage &page : m_Pages.View())
        page->ReassignParentStream(this);
    for (const PParticlePage &page : other.m_Pages.View())
        page->ReassignParentStream(&other);
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
}

void CParticleStream_MainMemory::LockPagesToRender() const
{
    TZ_PROFILE_SCOPE("CParticleStream_MainMemory::LockPagesToRender");
    if (_EnterLock() != 1)
        TZ_ASSERT(m_ThreadOwningLock == CCurrentThread::ThreadID());
}

void CParticleStream_MainMemory::UnlockPagesToRender() const
{
    if (TZ_LIKELY(_LeaveLock()))
        return;
    TZ_ASSERT(m_PagesLocked != 0);
    TZ_ASSERT(m_ThreadOwningLock == CCurrentThread::ThreadID());
}

bool CParticleStream_MainMemory::LockedByCurrentThread() const
{
    return m_PagesLocked != 0 && m_ThreadOwningLock == CCurrentThread::ThreadID();
}

CGuid CParticleStream_MainMemory::StreamId(CStringId nameGUID) const
{
    _DEBUG_CheckParticleCountConsistency();
    if (!TZ_VERIFY(m_StreamDef != null))
        return CGuid::INVALID;
    return m_StreamDef->StreamId(nameGUID);
}

u32 CParticleStream_MainMemory::StreamsCount() const
{
    const SParticleStreamDef *def = m_StreamDef;
    return def != null ? def->m_StreamDef.Count() : 0;
}

const SParticleStreamFieldDef &CParticleStream_MainMemory::StreamDef(CGuid streamId) const
{
    static const SParticleStreamFieldDef emptyRecord;
    const SParticleStreamDef *def = m_StreamDef;
    if (def == null)
        return emptyRecord;
    const SParticleStreamFieldDef &fieldDef = def->m_StreamDef[streamId]; // reports an index out of range
    return streamId < def->m_StreamDef.Count() ? fieldDef : emptyRecord;
}

} // namespace Tessaly
