// Runs the sides of a row in turn; clocks; threads that work side by side.
#include "row.h"

#include <ctime>
#include <thread>

#include <sched.h>

namespace Bench
{

namespace
{

double Nanoseconds(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return double(now.tv_sec) * 1e9 + double(now.tv_nsec);
}

} // namespace

double CMeter::ThreadNanoseconds() { return Nanoseconds(CLOCK_THREAD_CPUTIME_ID); }

double CMeter::WallNanoseconds() { return Nanoseconds(CLOCK_MONOTONIC); }

double CRendezvous::_Now() const
{
    return m_ThreadCount == 1 ? CMeter::ThreadNanoseconds() : CMeter::WallNanoseconds();
}

void CRendezvous::_WaitForAll()
{
    const unsigned ticket = __atomic_fetch_add(&m_ArrivedCount, 1, __ATOMIC_ACQ_REL);
    const unsigned everyone = (ticket / m_ThreadCount + 1) * m_ThreadCount;
    while (__atomic_load_n(&m_ArrivedCount, __ATOMIC_ACQUIRE) < everyone)
        sched_yield();
}

void CRendezvous::Begin(unsigned thread)
{
    _WaitForAll();
    if (thread == 0)
        m_Begin = _Now();
    _WaitForAll();
}

void CRendezvous::End(unsigned thread)
{
    ClobberMemory();
    _WaitForAll();
    if (thread == 0)
        m_Meter.Add(_Now() - m_Begin);
}

void RunOnThreads(unsigned threadCount, CMeter &meter, const std::function<void(unsigned thread, CRendezvous &)> &body)
{
    CRendezvous rendezvous(threadCount, meter);
    std::vector<std::thread> others;
    for (unsigned thread = 1; thread < threadCount; ++thread)
        others.emplace_back([&, thread] { body(thread, rendezvous); });
    body(0, rendezvous);
    for (std::thread &other : others)
        other.join();
}

} // namespace Bench
