// How the frames' figures are written.
#include <algorithm>

#include "frames.h"
#include "table.h"

namespace Bench
{

namespace
{

constexpr size_t kNeighbourCount = 100;
constexpr double kNeighbourTarget = 4.0, kVectorTarget = 0.1, kHoldTarget = 250e3; // the last one in nanoseconds

double Worst(const std::vector<double> &values) { return *std::max_element(values.begin(), values.end()); }

// The worst frame beside the median of the frames around it.
double WorstByNeighbours(const std::vector<double> &sums)
{
    double worst = 0.0;
    for (size_t i = 0; i < sums.size(); ++i)
    {
        const size_t first = std::min(i - std::min(i, kNeighbourCount / 2), sums.size() - kNeighbourCount);
        const auto begin = sums.begin() + std::ptrdiff_t(first);
        worst = std::max(worst, sums[i] / Quantile({begin, begin + std::ptrdiff_t(kNeighbourCount)}, 0.5));
    }
    return worst;
}

// The worst frame without its passes over all particles: what the storage itself adds.
double WorstWithoutPasses(const SFrameSide &side)
{
    double worst = 0.0;
    for (const SFrameTimes &frame : side.m_Frames)
        worst = std::max(worst, frame.Sum() - frame.m_Steps[Step_ForEach] - frame.m_Steps[Step_RemoveIf]);
    return worst;
}

void PrintQuantiles(std::FILE *file, const char *name, const std::vector<double> &nanoseconds)
{
    std::fprintf(file, "| %-24s |", name);
    for (const double part : {0.5, 0.99, 0.999, 1.0})
        std::fprintf(file, " %7.1f |", Quantile(nanoseconds, part) * 1e-3);
}

void PrintTarget(std::FILE *file, const char *what, double figure, const char *format, double target)
{
    std::fprintf(file, "- %s: ", what);
    std::fprintf(file, format, figure, target);
    std::fprintf(file, figure <= target ? ", held\n" : ", NOT held\n");
}

// The worst hold of the lock in each step, in nanoseconds.
std::vector<double> LongestHolds(const SFrameSide &side)
{
    std::vector<double> holds(Step_Count, 0.0);
    for (const SFrameTimes &frame : side.m_Frames)
    {
        for (size_t step = 0; step < Step_Update; ++step) // which does not take it
            holds[step] = std::max(holds[step], frame.m_LongestHold[step]);
    }
    return holds;
}

} // namespace

void PrintFrames(std::FILE *file, const std::vector<SFrameSide> &sides)
{
    const SFrameSide &ours = sides.front(), &vectors = sides[1];
    const std::vector<double> holds = LongestHolds(ours);
    std::fprintf(file,
                 "| frames, us               | median  | p99     | p99.9   | worst   | by neighbours | longest hold | "
                 "render wait |\n|---|---|---|---|---|---|---|---|\n");
    for (const SFrameSide &side : sides)
    {
        PrintQuantiles(file, side.m_Name.c_str(), side.Sums());
        std::fprintf(file, " %13.1f | %12.1f | %7.1f to %.1f |\n", WorstByNeighbours(side.Sums()),
                     Worst(LongestHolds(side)) * 1e-3, Quantile(side.m_WorstRenderWaits, 0.0) * 1e-3,
                     Quantile(side.m_WorstRenderWaits, 0.5) * 1e-3);
    }
    std::fprintf(file, "\n| ours, us a frame         | median  | p99     | p99.9   | worst   | longest hold |\n"
                       "|---|---|---|---|---|---|\n");
    static const char *const kSteps[Step_Count] = {
        "ForEach", "RemoveIf", "births in bursts", "GarbageCollectOldPages", "ResizePending(2)", "Update"};
    for (size_t step = 0; step < Step_Count; ++step)
    {
        std::vector<double> times;
        for (const SFrameTimes &frame : ours.m_Frames)
            times.push_back(frame.m_Steps[step]);
        PrintQuantiles(file, kSteps[step], times);
        std::fprintf(file, " %12.1f |\n", holds[step] * 1e-3);
    }
    std::fprintf(file, "\n");
    PrintTarget(file, "worst frame beside the median of the 100 around it", WorstByNeighbours(ours.Sums()),
                "%.1f, target %.0f", kNeighbourTarget);
    PrintTarget(file, "worst frame beside the vectors' worst one", Worst(ours.Sums()) / Worst(vectors.Sums()),
                "%.2f, target %.2f", kVectorTarget);
    PrintTarget(file, "the same without ForEach and RemoveIf", WorstWithoutPasses(ours) / WorstWithoutPasses(vectors),
                "%.2f, target %.2f", kVectorTarget);
    PrintTarget(file, "longest hold of the lock", Worst(holds) * 1e-3, "%.0f us, target %.0f", kHoldTarget * 1e-3);
    PrintTarget(file, "the render thread's longest wait", Quantile(ours.m_WorstRenderWaits, 0.0) * 1e-3,
                "%.0f us, target: the longest hold, %.0f", Worst(holds) * 1e-3);
}

} // namespace Bench
