// How Google Benchmark runs the workloads. A row of the table is several sides that do the same work; each registers as
// "row/side", and rows.txt tells which stand beside each other.
#pragma once

#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <benchmark/benchmark.h>

#include <tz_particles/include/ps_runtime.h>

#include <workloads/particles.h>

namespace Bench
{

template <typename _Workload, typename = void>
constexpr bool kHasPrepare = false;
template <typename _Workload>
constexpr bool kHasPrepare<_Workload, std::void_t<decltype(&_Workload::Prepare)>> = true;

// Registers a side: _Workload{args...}, whose Run deals with itemCount items. Where it has a Prepare, that goes before
// each Run, untimed. It is made before its first repetition and, if _IsKept, kept for the others; with ->Threads(2)
// there are two, and itemCount is of each.
template <typename _Workload, bool _IsKept = true, typename... _Args>
benchmark::internal::Benchmark *Add(const std::string &name, u32 itemCount, const _Args &...args)
{
    const auto kept = std::make_shared<std::array<std::unique_ptr<_Workload>, 2>>();
    const auto repetition = [=](benchmark::State &state)
    {
        std::unique_ptr<_Workload> &mine = (*kept)[size_t(state.thread_index())];
        if (mine == null)
            mine.reset(new _Workload{args...});
        _Workload &workload = *mine;
        for (auto _ : state)
        {
            if constexpr (kHasPrepare<_Workload>)
            {
                state.PauseTiming();
                workload.Prepare();
                state.ResumeTiming();
            }
            workload.Run();
            benchmark::ClobberMemory();
        }
        state.SetItemsProcessed(state.iterations() * itemCount / state.threads());
        if (!_IsKept)
            mine.reset();
    };
    return benchmark::RegisterBenchmark(name.c_str(), repetition)->Iterations(1);
}

// Calls work between Startup and Shutdown. Returns the program's status: 1 when the library reported anything.
template <typename _Work>
int RunWithRuntime(_Work work)
{
    static std::atomic<int> status{0};
    const auto print = [](const Assert::SReport &report, void *) -> int
    {
        std::fprintf(stderr, "%s:%d: %s\n", report.m_File, report.m_Line, report.m_Message);
        status = 1;
        return Assert::Result_Ignore;
    };
    Assert::SetHandler(print, nullptr);
    if (!Particles::Startup())
        return 1;
    work();
    Particles::Shutdown();
    return status;
}

inline void RunBenchmarks()
{
    benchmark::RunSpecifiedBenchmarks();
    benchmark::ClearRegisteredBenchmarks(); // and with them what they kept
}

} // namespace Bench
