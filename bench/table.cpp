// Medians, and how the table is written.
#include "table.h"

#include <algorithm>
#include <ctime>
#include <fstream>

#include <unistd.h>

namespace Bench
{

namespace
{

std::string Decimals(double value, int decimals)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

// Three digits that matter, or as many as stand before the point.
std::string Digits(double value) { return Decimals(value, value < 1 ? 3 : value < 10 ? 2 : value < 100 ? 1 : 0); }

void Append(std::string &list, const std::string &entry) { list += list.empty() ? entry : ", " + entry; }

std::string Named(const std::string &name, const std::string &text) { return name.empty() ? text : name + " " + text; }

// "name figure" for each side of a kind.
std::string Figures(const SRowResult &result, ESide kind)
{
    std::string list;
    for (size_t i = 0; i < result.m_Sides.size(); ++i)
    {
        if (result.m_Sides[i].m_Kind == kind)
            Append(list, Named(result.m_Sides[i].m_Name, Digits(result.Figure(i))));
    }
    return list;
}

SComparison Compare(const SRowResult &result, size_t ours, size_t other)
{
    std::vector<double> ratios;
    for (size_t round = 0; round < result.m_Values[ours].size(); ++round)
        ratios.push_back(result.m_Values[ours][round] / result.m_Values[other][round]);
    return {result.m_Sides[ours].m_Name,
            result.m_Sides[other].m_Name,
            Quantile(ratios, 0.5),
            {Quantile(ratios, 0.25), Quantile(ratios, 0.75)},
            result.m_Sides[other].m_Target};
}

// The side of the fastest peer; the number of sides when there is none.
size_t BestPeer(const SRowResult &result)
{
    size_t best = result.m_Sides.size();
    for (size_t i = 0; i < result.m_Sides.size(); ++i)
    {
        if (result.m_Sides[i].m_Kind == Side_Peer &&
            (best == result.m_Sides.size() || result.Figure(i) < result.Figure(best)))
            best = i;
    }
    return best;
}

std::string FirstLineAfter(const char *path, const std::string &key)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
    {
        if (line.compare(0, key.size(), key) == 0)
            return line.substr(std::min(line.size(), line.find_first_not_of(" \t:", key.size())));
    }
    return "unknown";
}

std::string HugePages()
{
    const std::string modes = FirstLineAfter("/sys/kernel/mm/transparent_hugepage/enabled", "");
    const size_t begin = modes.find('['), end = modes.find(']');
    return begin < end && end != std::string::npos ? modes.substr(begin + 1, end - begin - 1) : modes;
}

// "held", or which targets are not, and why.
std::string Verdict(const SRowResult &result)
{
    std::string missed;
    for (const SComparison &comparison : result.Judged())
    {
        if (!comparison.IsHeld())
            Append(missed, Named(comparison.m_Ours, "NOT held beside " + comparison.m_Beside));
    }
    if (missed.empty())
        return result.Judged().empty() ? "" : "held";
    return missed + (result.m_Row.m_Reason.empty() ? "" : ": " + result.m_Row.m_Reason);
}

} // namespace

double Quantile(std::vector<double> values, double part)
{
    std::sort(values.begin(), values.end());
    return values[size_t(part * double(values.size() - 1) + 0.5)];
}

double SRowResult::Figure(size_t side) const { return Quantile(m_Values[side], 0.5) / m_Row.m_ItemCount; }

std::vector<SComparison> SRowResult::Comparisons() const
{
    const size_t best = m_Row.m_BestPeerTarget != 0.0 ? BestPeer(*this) : m_Sides.size();
    std::vector<SComparison> comparisons;
    for (size_t ours = 0; ours < m_Sides.size(); ++ours)
    {
        for (size_t other = 0; other < m_Sides.size(); ++other)
        {
            if (m_Sides[ours].m_Kind != Side_Ours || m_Sides[other].m_Kind == Side_Ours)
                continue;
            comparisons.push_back(Compare(*this, ours, other));
            if (other == best)
                comparisons.back().m_Target = m_Row.m_BestPeerTarget;
        }
    }
    return comparisons;
}

std::vector<SComparison> SRowResult::Judged() const
{
    std::vector<SComparison> judged = Comparisons();
    judged.erase(std::remove_if(judged.begin(), judged.end(),
                                [](const SComparison &comparison) { return comparison.m_Target == 0.0; }),
                 judged.end());
    return judged;
}

void PrintTableHead(std::FILE *file)
{
    std::fprintf(file, "| %-58s | %-16s | %-34s | %-60s | %-7s | %-38s | %-10s | %s |\n", "work", "figures", "limit",
                 "peers", "ours", "ratio", "target", "held");
    std::fprintf(file, "|---|---|---|---|---|---|---|---|\n");
}

void PrintTableLine(std::FILE *file, const SRowResult &result)
{
    std::string ratios, targets;
    const bool isJudged = !result.Judged().empty();
    for (const SComparison &comparison : isJudged ? result.Judged() : result.Comparisons())
    {
        Append(ratios, Named(comparison.m_Ours, Decimals(comparison.m_Ratio, 2) + " of " + comparison.m_Beside));
        if (isJudged)
            Append(targets, Decimals(comparison.m_Target, 2));
    }
    std::fprintf(file, "| %-58s | %-16s | %-34s | %-60s | %-7s | %-38s | %-10s | %s |\n",
                 (result.m_Row.m_Group + ": " + result.m_Row.m_Work).c_str(), result.m_Row.m_Unit.c_str(),
                 Figures(result, Side_Limit).c_str(), Figures(result, Side_Peer).c_str(),
                 Figures(result, Side_Ours).c_str(), ratios.c_str(), targets.c_str(), Verdict(result).c_str());
}

void PrintJson(std::FILE *file, const std::vector<SRowResult> &results)
{
    static const char *const kKinds[] = {"ours", "limit", "peer"};
    std::fprintf(file, "{\n  \"machine\": \"%s\",\n  \"rows\": [", MachineAndDate().c_str());
    const char *separator = "";
    for (const SRowResult &result : results)
    {
        std::fprintf(file,
                     "%s\n    {\"group\": \"%s\", \"work\": \"%s\", \"unit\": \"%s\", \"rounds\": %zu, \"sides\": [",
                     separator, result.m_Row.m_Group.c_str(), result.m_Row.m_Work.c_str(), result.m_Row.m_Unit.c_str(),
                     result.m_Values.front().size());
        separator = "";
        for (size_t i = 0; i < result.m_Sides.size(); ++i)
        {
            std::fprintf(file, "%s\n      {\"kind\": \"%s\", \"name\": \"%s\", \"figure\": %.6g}", separator,
                         kKinds[result.m_Sides[i].m_Kind], result.m_Sides[i].m_Name.c_str(), result.Figure(i));
            separator = ",";
        }
        std::fprintf(file, "], \"comparisons\": [");
        separator = "";
        for (const SComparison &comparison : result.Comparisons())
        {
            std::fprintf(
                file, "%s\n      {\"ours\": \"%s\", \"beside\": \"%s\", \"ratio\": %.6g, \"quartiles\": [%.6g, %.6g]",
                separator, comparison.m_Ours.c_str(), comparison.m_Beside.c_str(), comparison.m_Ratio,
                comparison.m_RatioQuartiles[0], comparison.m_RatioQuartiles[1]);
            if (comparison.m_Target != 0.0)
                std::fprintf(file, ", \"target\": %.6g, \"held\": %s", comparison.m_Target,
                             comparison.IsHeld() ? "true" : "false");
            std::fprintf(file, "}");
            separator = ",";
        }
        std::fprintf(file, "]}");
        separator = ",";
    }
    std::fprintf(file, "\n  ]\n}\n");
}

std::string MachineAndDate()
{
    char date[32];
    const time_t now = time(nullptr);
    std::strftime(date, sizeof(date), "%Y-%m-%d", gmtime(&now));
    return FirstLineAfter("/proc/cpuinfo", "model name") + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) +
           " processors, last-level cache of " + FirstLineAfter("/sys/devices/system/cpu/cpu0/cache/index3/size", "") +
           ", " + std::to_string(sysconf(_SC_PAGESIZE) >> 10) + " KiB pages, huge pages by " + HugePages() + ", g++ " +
           __VERSION__ + ", " + date;
}

} // namespace Bench
