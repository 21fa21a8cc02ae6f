// Processes the pages of a stream on several threads: with a task library (oneTBB), and with two plain threads.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

#include <tbb/parallel_for.h>
#include <tz_particles/include/ps_for_each.h>
#include <tz_particles/include/ps_runtime.h>
using namespace Tessaly;

// Executors: each calls task(index) once for every index below count, and returns when all calls have returned.
const auto kTaskExecutor = [](u32 count, const auto &task) { tbb::parallel_for(0u, count, task); };
const auto kTwoThreadExecutor = [](u32 count, const auto &task)
{
    std::atomic<u32> next{0};
    const auto work = [&]
    {
        for (u32 index = next++; index < count; index = next++)
            task(index);
    };
    std::thread other(work);
    work();
    other.join();
};

int main()
{
    if (!Particles::Startup())
        return 1;
    u32 faultCount = 0;
    {
        SParticleStreamDef def;
        const CGuid value = def.Add("value", BaseType_Float);
        CParticleStream_MainMemory stream(1024); // particles a page
        stream.BindStreamDef(&def);
        TArray<CParticlePageView> born;
        stream.AllocateParticles(100000, born);
        Particles::ForEach<float>(stream, value, [](float &v) { v = 1.0f; });

        std::atomic<u32> pageCount{0};
        const auto doubleValues = [&](const CParticlePageView &page)
        {
            for (float &v : page.DenseColumnForWriting<float>(value))
                v *= 2.0f;
            ++pageCount;
        };
        Particles::ForEachPageOn(kTaskExecutor, stream, doubleValues);
        Particles::ForEachPageOn(kTwoThreadExecutor, stream, doubleValues);
        Particles::ForEach<const float>(stream, value, [&](float v) { faultCount += v != 4.0f ? 1 : 0; });
        faultCount += pageCount != 2 * stream.PageCount() ? 1 : 0;
        std::printf("%u particles in %u pages, %u faults\n", stream.ParticleCount(), stream.PageCount(), faultCount);
    }
    Particles::Shutdown();
    return faultCount != 0;
}
