// Bodies of storage_ram_stream.h.
#pragma once

#include "storage_ram_stream.h"

namespace Tessaly
{

inline SMediumMemoryReport CParticleStream_MainMemory::ComputeMemoryUsage() const { return _ComputeMemoryUsage(); }

inline const PParticlePage &CParticleStream_MainMemory::Page(CGuid pageId) const { return m_Pages[pageId]; }

// Returns the depth that the lock has now.
inline u32 CParticleStream_MainMemory::_EnterLock() const
{
    m_PagesProtectCS.Lock();
    const u32 depth = m_PagesLocked + 1;
    m_PagesLocked = depth;
    if (depth == 1)
        m_ThreadOwningLock = CGuid(CCurrentThread::ThreadID());
    return depth;
}

// Misuse changes nothing: a count of 0 stays, and nobody releases what another thread holds.
inline void CParticleStream_MainMemory::_LeaveLock(u32 threadId) const
{
    const u32 depth = m_PagesLocked;
    if (depth == 0 || !(m_ThreadOwningLock == threadId))
        return;
    m_PagesLocked = depth - 1;
    // Before the mutex is released: the next owner finds the field empty.
    if (depth == 1)
        m_ThreadOwningLock = CGuid::INVALID;
    m_PagesProtectCS.Unlock();
}

} // namespace Tessaly
