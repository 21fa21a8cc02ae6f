// Bodies of storage_ram_stream.h.
#pragma once

#include <tz_kernel/include/kr_profiler.h>

#include "storage_ram_stream.h"

namespace Tessaly
{

inline SMediumMemoryReport CParticleStream_MainMemory::ComputeMemoryUsage() const { return _ComputeMemoryUsage(); }

inline const PParticlePage &CParticleStream_MainMemory::Page(CGuid pageId) const
{
    const PParticlePage &page = m_Pages[pageId]; // reports an index out of range
    return pageId < m_Pages.Count() ? page : Internal::MissingElement<const PParticlePage>();
}

// Returns the nesting depth of the lock.
inline u32 CParticleStream_MainMemory::_EnterLock() const
{
    if (TZ_UNLIKELY(Threads::LoadShared(m_IsRendererWaiting)))
        _WaitForRenderer();
    m_PagesProtectCS.Lock();
    return _CountLock();
}

inline u32 CParticleStream_MainMemory::_CountLock() const
{
    const u32 depth = m_PagesLocked + 1;
    Threads::StoreShared(m_PagesLocked, depth);
    if (depth == 1)
        Threads::StoreShared(m_ThreadOwningLock, CCurrentThread::_KnownThreadID());
    return depth;
}

// Returns false, and changes nothing, for an unlock without a lock or by a thread that does not hold it.
inline bool CParticleStream_MainMemory::_LeaveLock() const
{
    const u32 depth = Threads::LoadShared(m_PagesLocked);
    if (TZ_UNLIKELY(depth == 0 || Threads::LoadShared(m_ThreadOwningLock) != CCurrentThread::_KnownThreadID()))
        return false;
    Threads::StoreShared(m_PagesLocked, depth - 1);
    // Before the mutex is released: the next owner finds the field empty.
    if (depth == 1)
        Threads::StoreShared(m_ThreadOwningLock, CGuid::INVALID);
    m_PagesProtectCS.Unlock();
    return true;
}

inline bool CParticleStream_MainMemory::LockedByCurrentThread() const
{
    return Threads::LoadShared(m_PagesLocked) != 0 &&
           Threads::LoadShared(m_ThreadOwningLock) == CCurrentThread::ThreadID();
}

// Each of the four lock operations has assertion sites of its own, and only two open a scope.

inline void CParticleStream_MainMemory::LockPages() const
{
    if (_EnterLock() != 1)
        TZ_ASSERT_TEXT("m_ThreadOwningLock == CCurrentThread::ThreadID()",
                       m_ThreadOwningLock == CCurrentThread::_KnownThreadID());
}

inline void CParticleStream_MainMemory::UnlockPages() const
{
    TZ_PROFILE_SCOPE("CParticleStream_MainMemory::UnlockPages");
    if (TZ_LIKELY(_LeaveLock()))
        return;
    TZ_ASSERT_TEXT("m_PagesLocked != 0", Threads::LoadShared(m_PagesLocked) != 0);
    TZ_ASSERT_TEXT("m_ThreadOwningLock == CCurrentThread::ThreadID()",
                   Threads::LoadShared(m_ThreadOwningLock) == CCurrentThread::ThreadID());
}

} // namespace Tessaly
