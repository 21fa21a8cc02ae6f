// Thread statistics: counters of single threads, each on a cache line of its own to avoid false sharing.
#include "../include/kr_threads_basics.h"

namespace Tessaly
{

namespace
{

constexpr u32 kCounterCount = 64;

struct alignas(64) SCounter
{
    u64 m_Unlocks;
};

SCounter g_Counters[kCounterCount];

} // namespace

TZ_REPLACEABLE void CThreadStats::RegisterCSUnlock()
{
    static u32 threadCount = 0;
    // The first 63 threads have a counter of their own, all others share the first one.
    static thread_local const u32 thread = __atomic_add_fetch(&threadCount, 1, __ATOMIC_RELAXED);
    u64 *unlocks = &g_Counters[thread < kCounterCount ? thread : 0].m_Unlocks;
    if (thread < kCounterCount)
        _OwnUnlocks() = unlocks;
    __atomic_fetch_add(unlocks, 1, __ATOMIC_RELAXED);
}

TZ_REPLACEABLE u64 CThreadStats::CSUnlockCount()
{
    u64 count = 0;
    for (const SCounter &counter : g_Counters)
        count += __atomic_load_n(&counter.m_Unlocks, __ATOMIC_RELAXED);
    return count;
}

} // namespace Tessaly
