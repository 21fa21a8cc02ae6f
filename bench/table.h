// The table: what was measured, as lines of Markdown that are readable on a terminal too, and as JSON.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "row.h"

namespace Bench
{

// Ours beside another side: medians over the rounds, and the quartiles.
struct SComparison
{
    std::string m_Ours; // its name, where there are several
    std::string m_Beside;
    double m_Ratio;
    double m_RatioQuartiles[2];
    double m_Target; // 0: none

    bool IsHeld() const { return m_Ratio < m_Target + 0.005; } // by the two decimals that are shown
};

struct SRowResult
{
    SRow m_Row;
    std::vector<SSide> m_Sides;
    std::vector<std::vector<double>> m_Values; // of each side, round by round

    double Figure(size_t side) const; // median, for each item
    std::vector<SComparison> Comparisons() const;
    std::vector<SComparison> Judged() const; // those that have a target
};

// The value that so large a part of all values lies below: 0.5 gives the median.
double Quantile(std::vector<double> values, double part);

void PrintTableHead(std::FILE *file);
void PrintTableLine(std::FILE *file, const SRowResult &result);
void PrintJson(std::FILE *file, const std::vector<SRowResult> &results);

// Where and when the table was made, in one line.
std::string MachineAndDate();

} // namespace Bench
