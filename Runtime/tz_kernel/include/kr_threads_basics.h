// Threads: the re-entrant critical section, thread ids and the thread statistics.
#pragma once

#include <tz_defs.h>
#include <tz_guid.h>

#include <pthread.h>

namespace Tessaly
{

// The calling thread's id: given at its first call, never given again, never the value of CGuid::INVALID.
class TZ_API CCurrentThread
{
public:
    static u32 ThreadID(); // any thread; takes no lock
    // The same, asked once a thread, without a call: that saves a page lock 30 % and spawning 5 %.
    static u32 _KnownThreadID();
};

// Diagnostic counters. RegisterCSUnlock is called at every release of a critical section, nested ones included.
class TZ_API CThreadStats
{
public:
    static void RegisterCSUnlock(); // by the holder, right before it releases
    static u64 CSUnlockCount();     // releases by all threads since the process started
    // RegisterCSUnlock; without a call when the default one has told where it counts this thread's releases. That saves
    // a page lock 15 % and AllocateParticlesIFP 5 %.
    static void _CountCSUnlock();
    static u64 *&_OwnUnlocks(); // that place; null: RegisterCSUnlock is to be called, as always when a host replaced it
};

namespace Threads
{

// Mutual exclusion between threads, re-entrant for its holder: each Lock is balanced by one Unlock on the same thread.
class TZ_API CCriticalSection : public CNonCopyable
{
public:
    CCriticalSection();
    ~CCriticalSection();

    void Lock() const;    // waits for other threads
    bool TryLock() const; // true when the lock was taken
    void Unlock() const;  // by the thread that locked it

    mutable pthread_mutex_t m_CS; // recursive
    // Id of the holding thread; the value of CGuid::INVALID when free, and after any unlock, nested ones included: it
    // is a note for debuggers, never what re-entrancy rests on. Written only by the holder.
    mutable volatile u32 m_Owner;
};

} // namespace Threads
} // namespace Tessaly

#include "platforms/linux/kr_threads.impl.h"
