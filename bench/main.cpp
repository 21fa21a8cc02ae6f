// Runs the rows and prints them as a table, each line when its row is done.
//   --quick      few rounds: shows that everything works
//   all other arguments are Google Benchmark's: --benchmark_filter, --benchmark_out=FILE for JSON, ...
// Ends with status 1 when the runtime reported anything, whatever the figures.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include <tz_particles/include/ps_runtime.h>

#include "row.h"

namespace Bench
{

namespace
{

unsigned g_RoundCount = 21;
unsigned g_ReportCount = 0;

int CountReport(const Assert::SReport &report, void *)
{
    std::fprintf(stderr, "%s:%d: %s\n", report.m_File, report.m_Line, report.m_Message);
    __atomic_fetch_add(&g_ReportCount, 1, __ATOMIC_RELAXED);
    return Assert::Result_Ignore;
}

double Measure(const Side &side)
{
    CStopwatch watch;
    side(watch);
    return double(watch.Nanoseconds());
}

double Quantile(std::vector<double> values, double part)
{
    std::sort(values.begin(), values.end());
    return values[size_t(part * double(values.size() - 1) + 0.5)];
}

void RunRow(benchmark::State &state, const SRow &row, const Side &ours, const Side &reference)
{
    std::vector<double> oursTimes, referenceTimes, ratios;
    for ([[maybe_unused]] auto _ : state)
    {
        Measure(ours); // warms caches and free lists, and is forgotten
        Measure(reference);
        for (unsigned round = 0; round < g_RoundCount; ++round)
        {
            const bool oursFirst = round % 2 == 0;
            const double first = Measure(oursFirst ? ours : reference);
            const double second = Measure(oursFirst ? reference : ours);
            oursTimes.push_back(oursFirst ? first : second);
            referenceTimes.push_back(oursFirst ? second : first);
            ratios.push_back(oursTimes.back() / referenceTimes.back());
        }
        state.SetIterationTime(Quantile(oursTimes, 0.5) * 1e-9);
    }
    state.counters["ours_ns"] = Quantile(oursTimes, 0.5) / row.m_ItemCount;
    state.counters["reference_ns"] = Quantile(referenceTimes, 0.5) / row.m_ItemCount;
    state.counters["ratio"] = Quantile(ratios, 0.5);
    state.counters["ratio_q1"] = Quantile(ratios, 0.25);
    state.counters["ratio_q3"] = Quantile(ratios, 0.75);
    state.counters["target"] = row.m_Target;
    state.SetLabel(row.m_Reference + '|' + row.m_ItemName);
}

class CTableReporter : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context &) override
    {
        std::printf("%-53s %-38s %19s %-9s %6s %15s %6s\n", "row", "limit or peer", "ns: ours, peer", "each", "ratio",
                    "(quartiles)", "target");
        return true;
    }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs)
        {
            if (run.run_type == Run::RT_Iteration)
                _PrintRow(run);
        }
        std::fflush(stdout);
    }

    void Finalize() override
    {
        std::printf("%u of %u rows hold their target; medians over %u rounds\n", m_HeldCount, m_RowCount, g_RoundCount);
    }

private:
    void _PrintRow(const Run &run)
    {
        const auto counter = [&](const char *name) { return double(run.counters.at(name)); };
        const size_t separator = run.report_label.find('|');
        const bool isHeld = counter("ratio") <= counter("target");
        std::printf("%-53s %-38s %9.2f %9.2f %-9s %6.3f (%6.3f-%6.3f) %6.2f %s\n", run.run_name.function_name.c_str(),
                    run.report_label.substr(0, separator).c_str(), counter("ours_ns"), counter("reference_ns"),
                    run.report_label.substr(separator + 1).c_str(), counter("ratio"), counter("ratio_q1"),
                    counter("ratio_q3"), counter("target"), isHeld ? "held" : "not held");
        m_RowCount += 1;
        m_HeldCount += isHeld ? 1 : 0;
    }

    unsigned m_RowCount = 0;
    unsigned m_HeldCount = 0;
};

void AddAllRows()
{
    AddBirthRows();
    AddColumnRows();
    AddLockRows();
    AddBlockRows();
    AddCopyRows();
    AddConversionRows();
    AddPageListRows();
}

// Takes out of the arguments what is ours.
int TakeOwnArguments(int count, char **arguments)
{
    int kept = 0;
    for (int i = 0; i < count; ++i)
    {
        if (std::strcmp(arguments[i], "--quick") == 0)
            g_RoundCount = 3;
        else
            arguments[kept++] = arguments[i];
    }
    return kept;
}

} // namespace

s64 CStopwatch::_Now()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return s64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void AddRow(const SRow &row, const std::function<void(const RunSides &)> &body)
{
    const auto run = [=](benchmark::State &state)
    { body([&](const Side &ours, const Side &reference) { RunRow(state, row, ours, reference); }); };
    benchmark::RegisterBenchmark(row.m_Title.c_str(), run)->Iterations(1)->UseManualTime();
}

} // namespace Bench

int main(int argc, char **argv)
{
    argc = Bench::TakeOwnArguments(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    Tessaly::Assert::SetHandler(&Bench::CountReport, nullptr);
    if (!Tessaly::Particles::Startup())
        return 1;
    Bench::AddAllRows();
    Bench::CTableReporter table;
    benchmark::RunSpecifiedBenchmarks(&table);
    benchmark::Shutdown();
    Tessaly::Particles::Shutdown();
    return Bench::g_ReportCount == 0 ? 0 : 1;
}
