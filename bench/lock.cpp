// The uncontended page lock.
#include <cstdlib>

#include <pthread.h>

#include <tz_kernel/include/kr_profiler.h>

#include "row.h"

namespace Bench
{

namespace
{

constexpr u32 kPairCount = 100000;

// A bare mutex of the page lock's kind.
class CRecursiveMutex
{
public:
    CRecursiveMutex()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_Mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~CRecursiveMutex() { pthread_mutex_destroy(&m_Mutex); }

    pthread_mutex_t m_Mutex;
};

// What a profiler scope costs that nobody listens to.
void LoadAndBranch()
{
    if (Profiler::CProfiler::Sink() != null)
        std::abort();
}

template <typename _Work>
void TimePairs(CMeter &meter, _Work work)
{
    meter.Time(
        [&]
        {
            for (u32 i = 0; i < kPairCount; ++i)
                work();
        });
}

} // namespace

void AddLockRows()
{
    const auto body = [](const RunSides &run)
    {
        const CParticleStream_MainMemory stream(0);
        CRecursiveMutex bare;
        const auto ours = [&]
        {
            stream.LockPages();
            stream.UnlockPages();
        };
        const auto limit = [&]
        {
            pthread_mutex_lock(&bare.m_Mutex);
            LoadAndBranch();
            pthread_mutex_unlock(&bare.m_Mutex);
            LoadAndBranch();
        };
        run({Ours([&](CMeter &meter) { TimePairs(meter, ours); }),
             Limit("recursive mutex pair, two branches", 1.5, [&](CMeter &meter) { TimePairs(meter, limit); })});
    };
    AddRow({"lock", "LockPages and UnlockPages", kPairCount, "ns a pair"}, body);
}

} // namespace Bench
