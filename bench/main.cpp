// Runs the rows and prints them as a table, each line when its row is done.
//   --quick           one round: shows that everything works
//   --rounds N        so many rounds a row; 25 unless said
//   --shapes          other sizes of particles and pages, instead of the table
//   --ours-alone      without the other sides, for a profiler
//   --filter REGEX    only the rows whose "group: work" matches
//   --json FILE       the same as JSON
//   --markdown FILE   the same as a text to be read: machine, date, table
// Ends with status 1 when the runtime reported anything, whatever the figures. Each row runs in a process of its own.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <regex>

#include <unistd.h>

#include <tz_particles/include/ps_runtime.h>

#include "block_peers.h"
#include "child.h"

namespace Bench
{

namespace
{

struct SOptions
{
    unsigned m_RoundCount = 25;
    bool m_ShowsShapes = false;
    bool m_IsOursAlone = false;
    std::string m_Filter;
    std::string m_JsonPath;
    std::string m_MarkdownPath;
};

SOptions g_Options;
std::vector<SRowResult> g_Results;
unsigned g_ReportCount = 0;

int CountReport(const Assert::SReport &report, void *)
{
    std::fprintf(stderr, "%s:%d: %s\n", report.m_File, report.m_Line, report.m_Message);
    __atomic_fetch_add(&g_ReportCount, 1, __ATOMIC_RELAXED);
    return Assert::Result_Ignore;
}

double Measure(const SSide &side)
{
    CMeter meter;
    side.m_Run(meter);
    return meter.Sum();
}

SRowResult RunSidesInTurn(const SRow &row, std::vector<SSide> sides)
{
    if (g_Options.m_IsOursAlone)
        sides.erase(
            std::remove_if(sides.begin(), sides.end(), [](const SSide &side) { return side.m_Kind != Side_Ours; }),
            sides.end());
    for (const SSide &side : sides)
        Measure(side); // warms caches and free lists, and is forgotten
    SRowResult result = {row, sides, std::vector<std::vector<double>>(sides.size())};
    std::vector<size_t> order(sides.size());
    std::iota(order.begin(), order.end(), size_t(0));
    for (unsigned round = 0; round < g_Options.m_RoundCount; ++round)
    {
        // In no order: what one side leaves in the caches meets every other one.
        for (size_t i = order.size(); i > 1; --i)
            std::swap(order[i - 1], order[Scramble(round * 64 + u32(i)) % i]);
        for (const size_t side : order)
            result.m_Values[side].push_back(Measure(sides[side]));
    }
    return result;
}

// In the row's own process; the runtime starts and ends in it.
SRowResult MeasureRow(const SRow &row, const std::function<void(const RunSides &)> &body)
{
    SRowResult result;
    Assert::SetHandler(&CountReport, nullptr);
    if (!Particles::Startup())
        std::exit(1);
    body([&](const std::vector<SSide> &sides) { result = RunSidesInTurn(row, sides); });
    Particles::Shutdown();
    if (g_ReportCount != 0)
        std::exit(1);
    return result;
}

bool ReadOptions(int count, char **arguments)
{
    for (int i = 1; i < count; ++i)
    {
        const std::string option = arguments[i];
        const char *value = i + 1 < count ? arguments[i + 1] : nullptr;
        const bool isFlag = option == "--quick" || option == "--shapes" || option == "--ours-alone";
        if (option == "--quick")
            g_Options.m_RoundCount = 1;
        else if (option == "--shapes")
            g_Options.m_ShowsShapes = true;
        else if (option == "--ours-alone")
            g_Options.m_IsOursAlone = true;
        if (isFlag)
            continue;
        if (value == nullptr)
            return false;
        if (option == "--rounds")
            g_Options.m_RoundCount = unsigned(std::clamp(std::atoi(value), 1, 1000));
        else if (option == "--filter")
            g_Options.m_Filter = value;
        else if (option == "--json")
            g_Options.m_JsonPath = value;
        else if (option == "--markdown")
            g_Options.m_MarkdownPath = value;
        else
            return false;
        ++i;
    }
    return true;
}

void AddTableRows()
{
    AddSpawnRows();
    AddLifeRows();
    AddPassRows();
    AddRemovalRows();
    AddDeepCopyRows();
    AddConversionRows();
    AddRebindRows();
    AddPageListRows();
    AddBlockRows();
    AddMemoryRows();
    AddLockRows();
}

template <typename _Print>
bool WriteFile(const std::string &path, _Print print)
{
    if (path.empty())
        return true;
    std::FILE *file = std::fopen(path.c_str(), "w");
    if (file == nullptr)
    {
        std::fprintf(stderr, "%s: can not be written\n", path.c_str());
        return false;
    }
    print(file);
    return std::fclose(file) == 0;
}

std::string Summary()
{
    size_t targetCount = 0, heldCount = 0;
    for (const SRowResult &result : g_Results)
    {
        for (const SComparison &comparison : result.Judged())
        {
            ++targetCount;
            heldCount += comparison.IsHeld() ? 1 : 0;
        }
    }
    return std::to_string(heldCount) + " of " + std::to_string(targetCount) + " targets are held.";
}

bool WriteResults()
{
    const bool isJsonWritten = WriteFile(g_Options.m_JsonPath, [](std::FILE *file) { PrintJson(file, g_Results); });
    return WriteFile(g_Options.m_MarkdownPath,
                     [](std::FILE *file)
                     {
                         std::fprintf(file, "%s; medians over %u rounds.\n\n", MachineAndDate().c_str(),
                                      g_Options.m_RoundCount);
                         PrintTableHead(file);
                         for (const SRowResult &result : g_Results)
                             PrintTableLine(file, result);
                         std::fprintf(file, "\n%s\n", Summary().c_str());
                     }) &&
           isJsonWritten;
}

int Run()
{
    std::printf("%s; medians over %u rounds\n\n", MachineAndDate().c_str(), g_Options.m_RoundCount);
    PrintTableHead(stdout);
    if (g_Options.m_ShowsShapes)
    {
        AddShapeRows();
        AddHandOverRows();
    }
    else
        AddTableRows();
    std::printf("\n%s\n", Summary().c_str());
    return WriteResults() && !g_Results.empty() ? 0 : 1;
}

} // namespace

void AddRow(const SRow &row, const std::function<void(const RunSides &)> &body)
{
    if (!std::regex_search(row.m_Group + ": " + row.m_Work, std::regex(g_Options.m_Filter)))
        return;
    g_Results.push_back(MeasureInChild(row, [&] { return MeasureRow(row, body); }));
    PrintTableLine(stdout, g_Results.back());
    std::fflush(stdout);
}

} // namespace Bench

int main(int argc, char **argv)
{
    if (!Bench::ReadOptions(argc, argv))
    {
        std::fprintf(stderr,
                     "usage: %s [--quick] [--rounds N] [--shapes] [--ours-alone] [--filter REGEX] [--json FILE] "
                     "[--markdown FILE]\n",
                     argv[0]);
        return 2;
    }
    Bench::MakeRoomForBlockPeers(argv);
    return Bench::Run();
}
