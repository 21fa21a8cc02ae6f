// The stream's life, swap, page lock and queries.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_profiler.h>

namespace Tessaly
{

namespace
{

// Exchanges members that other threads may read without the lock.
template <typename _Type>
void SwapShared(_Type &a, _Type &b)
{
    const _Type oldA = a;
    Threads::StoreShared<__ATOMIC_RELEASE>(a, b);
    Threads::StoreShared<__ATOMIC_RELEASE>(b, oldA);
}

} // namespace

CParticleStream_MainMemory::CParticleStream_MainMemory(u32 pageSize)
    : m_PageSize(pageSize)
    , m_PageSizeInBytes(0)
    , m_StreamDef(null)
    , m_PageCount_OutOfSync(0)
    , m_ParticleCount(0)
    , m_PagesLocked(0)
    , m_ThreadOwningLock(CGuid::INVALID)
{
    if (m_PageSize == 0)
        m_PageSize = kDefaultPageSize;
}

void CParticleStream_MainMemory::Clear()
{
    _DEBUG_CheckParticleCountConsistency();
    LockPages();
    for (const PParticlePage &page : m_Pages.View())
    {
        CPageListIndex::Detach(*page);
        page->Clear();
    }
    while (!m_Pages.Empty())
        m_Pages.Take_KeepOrder(0);
    m_Pages.MoveToBufferStart();
    m_ParticleCount.Store(0);
    Threads::StoreShared(m_PageCount_OutOfSync, 0);
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
}

void CParticleStream_MainMemory::Cleanup()
{
    _DEBUG_CheckParticleCountConsistency();
    CPageListIndex pageIndex;
    TArray<PParticlePage> pageList;
    LockPages();
    for (const PParticlePage &page : m_Pages.View())
        CPageListIndex::Detach(*page);
    m_PageIndex.Swap(pageIndex);
    m_Pages.Swap(pageList);
    m_ParticleCount.Store(0);
    UnlockPages();
    Threads::StoreShared(m_PageCount_OutOfSync, 0);
    // Pages are destroyed outside the lock: freeing them does not extend it.
    for (PParticlePage &page : pageList.ViewForWriting())
        page = null;
    _DEBUG_CheckParticleCountConsistency();
}

void CParticleStream_MainMemory::Swap(CParticleStream_MainMemory &other)
{
    _DEBUG_CheckParticleCountConsistency();
    TZ_ASSERT_TEXT("m_PagesLocked == 0", Threads::LoadShared(m_PagesLocked) == 0);
    LockPages();
    TZ_ASSERT_TEXT("other.m_PagesLocked == 0", Threads::LoadShared(other.m_PagesLocked) == 0);
    SwapShared(m_PageSize, other.m_PageSize);
    TZSwap(m_PageSizeInBytes, other.m_PageSizeInBytes);
    SwapShared(m_StreamDef, other.m_StreamDef);
    TZSwap(m_ParticleCount, other.m_ParticleCount);
    m_Pages.Swap(other.m_Pages);
    SwapShared(m_PageCount_OutOfSync, other.m_PageCount_OutOfSync);
    m_PageIndex.Swap(other.m_PageIndex);
    for (CParticleStream_MainMemory *stream : {this, &other})
    {
        for (const PParticlePage &page : stream->m_Pages.View())
        {
            CPageListIndex::Detach(*page);
            page->ReassignParentStream(stream);
        }
    }
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
}

void CParticleStream_MainMemory::LockPagesToRender() const
{
    TZ_PROFILE_SCOPE("CParticleStream_MainMemory::LockPagesToRender");
    if (_EnterLockToRender() != 1)
        TZ_ASSERT(m_ThreadOwningLock == CCurrentThread::ThreadID());
}

void CParticleStream_MainMemory::UnlockPagesToRender() const
{
    if (TZ_LIKELY(_LeaveLock()))
        return;
    TZ_ASSERT_TEXT("m_PagesLocked != 0", Threads::LoadShared(m_PagesLocked) != 0);
    TZ_ASSERT_TEXT("m_ThreadOwningLock == CCurrentThread::ThreadID()",
                   Threads::LoadShared(m_ThreadOwningLock) == CCurrentThread::ThreadID());
}

// A mutex is not fair: a thread that unlocks it and locks it again at once gets it before a waiting thread has woken
// up. So the render thread holds m_RendererTurn while it waits, and threads that come later wait for that mutex first.
u32 CParticleStream_MainMemory::_EnterLockToRender() const
{
    if (LockedByCurrentThread())
        return _EnterLock();
    const std::lock_guard<std::mutex> turn(m_RendererTurn);
    Threads::StoreShared(m_IsRendererWaiting, true);
    m_PagesProtectCS.Lock();
    Threads::StoreShared(m_IsRendererWaiting, false);
    return _CountLock();
}

void CParticleStream_MainMemory::_WaitForRenderer() const
{
    if (!LockedByCurrentThread())
        const std::lock_guard<std::mutex> turn(m_RendererTurn);
}

bool CParticleStream_MainMemory::_YieldToRenderer_NoLock() const
{
    if (!Threads::LoadShared(m_IsRendererWaiting))
        return false;
    UnlockPages();
    LockPages();
    return true;
}

CGuid CParticleStream_MainMemory::StreamId(CStringId nameGUID) const
{
    _DEBUG_CheckParticleCountConsistency();
    const SParticleStreamDef *def = GetStreamDef();
    if (def != null)
        return def->StreamId(nameGUID);
    TZ_VERIFY(m_StreamDef != null);
    return CGuid::INVALID;
}

u32 CParticleStream_MainMemory::StreamsCount() const
{
    const SParticleStreamDef *def = GetStreamDef();
    return def != null ? def->m_StreamDef.Count() : 0;
}

const SParticleStreamFieldDef &CParticleStream_MainMemory::StreamDef(CGuid streamId) const
{
    static const SParticleStreamFieldDef emptyRecord;
    const SParticleStreamDef *def = GetStreamDef();
    if (def == null)
        return emptyRecord;
    const SParticleStreamFieldDef &fieldDef = def->m_StreamDef[streamId]; // reports an index out of range
    return streamId < def->m_StreamDef.Count() ? fieldDef : emptyRecord;
}

} // namespace Tessaly
