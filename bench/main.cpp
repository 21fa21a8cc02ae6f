// Runs the rows and prints them as a table, each line when its row is done; --help lists the options.
// Ends with status 1 when the runtime reported anything or an output could not be written, whatever the figures. Each
// row runs in a process of its own.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <regex>

#include <CLI/CLI.hpp>

#include <tz_particles/include/ps_runtime.h>

#include "block_peers.h"
#include "child.h"
#include "frames.h"

namespace Bench
{

namespace
{

void AddTableRows()
{
    AddSpawnRows();
    AddLifeRows();
    AddPassRows();
    AddForEachRows();
    AddRemovalRows();
    AddDeepCopyRows();
    AddConversionRows();
    AddRebindRows();
    AddPageListRows();
    AddBlockRows();
    AddMemoryRows();
    AddLockRows();
}

struct SOptions
{
    unsigned m_RoundCount = 25;
    void (*m_AddRows)() = &AddTableRows;
    bool m_IsOursAlone = false;
    std::regex m_Filter{""}; // matches all
    std::string m_JsonPath;
    std::string m_MarkdownPath;
    std::string m_FramesPath;
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

// Whether the stream took everything until now.
bool IsWritten(std::FILE *stream) { return std::fflush(stream) == 0 && std::ferror(stream) == 0; }

std::string RegexProblem(const std::string &text)
{
    try
    {
        const std::regex regex(text);
        return "";
    }
    catch (const std::regex_error &)
    {
        return "'" + text + "' is no regular expression";
    }
}

// Ends the program on --help, and with 2 on a bad command line.
void ReadOptions(int argc, char **argv)
{
    CLI::App app("Runs the benchmarks and prints a table: ours beside limits and peers.", "tessaly_bench");
    app.add_option("--rounds", g_Options.m_RoundCount, "rounds a row (25)")->check(CLI::Range(1, 1000))->type_name("N");
    app.add_flag_callback(
        "--quick", [] { g_Options.m_RoundCount = 1; }, "one round: shows that everything works");
    app.add_flag_callback(
        "--shapes", [] { g_Options.m_AddRows = &AddShapeRows; },
        "other sizes of particles and pages, instead of the table");
    app.add_flag("--ours-alone", g_Options.m_IsOursAlone, "without the other sides, for a profiler");
    app.add_option_function<std::string>(
           "--filter", [](const std::string &text) { g_Options.m_Filter = text; },
           "only the rows whose \"group: work\" matches this regular expression")
        ->check(RegexProblem)
        ->type_name("REGEX");
    app.add_option("--json", g_Options.m_JsonPath, "write the same there as JSON")->type_name("FILE");
    app.add_option("--markdown", g_Options.m_MarkdownPath, "write the same there as a text: machine, date, table")
        ->type_name("FILE");
    app.add_option("--frames", g_Options.m_FramesPath,
                   "frames beside a render thread, instead of the table; drawn there as a PNG")
        ->type_name("FILE");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp &)
    {
        std::fputs(app.help().c_str(), stdout);
        std::exit(IsWritten(stdout) ? 0 : 1);
    }
    catch (const CLI::ParseError &error)
    {
        std::fprintf(stderr, "tessaly_bench: %s\n", error.what());
        std::exit(2);
    }
}

template <typename _Print>
bool WriteFile(const std::string &path, _Print print)
{
    if (path.empty())
        return true;
    std::FILE *file = std::fopen(path.c_str(), "w");
    if (file != nullptr)
        print(file);
    const bool isWritten = file != nullptr && IsWritten(file);
    if (!isWritten)
        std::fprintf(stderr, "tessaly_bench: %s can not be written\n", path.c_str());
    if (file != nullptr)
        std::fclose(file);
    return isWritten;
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

int RunFrames()
{
    const unsigned runCount = TZMax(1u, g_Options.m_RoundCount / 5);
    std::printf("%s; %u runs\n\n", MachineAndDate().c_str(), runCount);
    const std::vector<SFrameSide> sides = MeasureFrames(runCount);
    PrintFrames(stdout, sides);
    const bool isDrawn = DrawFrames(g_Options.m_FramesPath, sides);
    if (!isDrawn)
        std::fprintf(stderr, "tessaly_bench: %s can not be written\n", g_Options.m_FramesPath.c_str());
    const auto print = [&](std::FILE *file)
    {
        std::fprintf(file, "%s; %u runs.\n\n", MachineAndDate().c_str(), runCount);
        PrintFrames(file, sides);
    };
    if (!IsWritten(stdout))
        std::fprintf(stderr, "tessaly_bench: the output can not be written\n");
    return WriteFile(g_Options.m_MarkdownPath, print) && isDrawn && IsWritten(stdout) ? 0 : 1;
}

int Run()
{
    if (!g_Options.m_FramesPath.empty())
        return RunFrames();
    std::printf("%s; medians over %u rounds\n\n", MachineAndDate().c_str(), g_Options.m_RoundCount);
    PrintTableHead(stdout);
    g_Options.m_AddRows();
    std::printf("\n%s\n", Summary().c_str());
    const bool areResultsWritten = WriteResults();
    if (!IsWritten(stdout))
        std::fprintf(stderr, "tessaly_bench: the output can not be written\n");
    else if (g_Results.empty())
        std::fprintf(stderr, "tessaly_bench: no row matches the filter\n");
    else
        return areResultsWritten ? 0 : 1;
    return 1;
}

} // namespace

void AddRow(const SRow &row, const std::function<void(const RunSides &)> &body)
{
    if (!std::regex_search(row.m_Group + ": " + row.m_Work, g_Options.m_Filter))
        return;
    g_Results.push_back(MeasureInChild(row, [&] { return MeasureRow(row, body); }));
    PrintTableLine(stdout, g_Results.back());
    std::fflush(stdout);
}

} // namespace Bench

int main(int argc, char **argv)
{
    Bench::ReadOptions(argc, argv);
    Bench::ReserveTlsForBlockPeers(argv);
    return Bench::Run();
}
