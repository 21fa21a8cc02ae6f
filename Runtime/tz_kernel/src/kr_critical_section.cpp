// The critical section: construction, destruction and TryLock.
#include "../include/kr_threads_basics.h"

namespace Tessaly::Threads
{

TZ_REPLACEABLE CCriticalSection::CCriticalSection()
    : m_Owner(CGuid::INVALID)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_CS, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

TZ_REPLACEABLE CCriticalSection::~CCriticalSection() { pthread_mutex_destroy(&m_CS); }

TZ_REPLACEABLE bool CCriticalSection::TryLock() const
{
    if (pthread_mutex_trylock(&m_CS) != 0)
        return false;
    __atomic_store_n(&m_Owner, CCurrentThread::ThreadID(), __ATOMIC_RELAXED);
    return true;
}

} // namespace Tessaly::Threads
