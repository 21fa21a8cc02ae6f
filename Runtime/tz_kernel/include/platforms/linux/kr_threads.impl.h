// Inline bodies of kr_threads_basics.h, on POSIX threads.
#pragma once

#include "../../kr_threads_basics.h"

namespace Tessaly
{

inline u32 CCurrentThread::_KnownThreadID()
{
    static thread_local u32 id __attribute__((tls_model("initial-exec"))) = 0; // 0: not yet known
    if (TZ_UNLIKELY(id == 0))
        id = ThreadID();
    return id;
}

inline u64 *&CThreadStats::_OwnUnlocks()
{
    static thread_local u64 *unlocks __attribute__((tls_model("initial-exec"))) = null;
    return unlocks;
}

inline void CThreadStats::_CountCSUnlock()
{
    u64 *unlocks = _OwnUnlocks();
    if (TZ_UNLIKELY(unlocks == null))
        return RegisterCSUnlock();
    __atomic_store_n(unlocks, __atomic_load_n(unlocks, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
}

namespace Threads
{

inline void CCriticalSection::Lock() const
{
    pthread_mutex_lock(&m_CS);
    __atomic_store_n(&m_Owner, CCurrentThread::_KnownThreadID(), __ATOMIC_RELAXED);
}

inline void CCriticalSection::Unlock() const
{
    CThreadStats::_CountCSUnlock();
    // Written before the release: afterwards it could overwrite the id of the next holder.
    __atomic_store_n(&m_Owner, CGuid::INVALID.Get(), __ATOMIC_RELAXED);
    pthread_mutex_unlock(&m_CS);
}

} // namespace Threads
} // namespace Tessaly
