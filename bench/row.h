// One row of the table: our way to do some work, and beside it a limit or a peer that does the same work.
//
// Both sides run in turn, round by round, and the row's figure is the median of the rounds' ratios: what else the
// machine does hits both. Time is the processor time of the calling thread.
#pragma once

#include <functional>
#include <string>

#include <benchmark/benchmark.h>

#include "workloads.h"

namespace Bench
{

using namespace Workloads;

// A side starts it behind its preparations and stops it before it tidies up; what it measures adds up.
class CStopwatch
{
public:
    void Start() { m_Nanoseconds -= _Now(); }
    void Stop() { m_Nanoseconds += _Now(); }
    s64 Nanoseconds() const { return m_Nanoseconds; }

    template <typename _Work>
    void Time(_Work work)
    {
        Start();
        work();
        benchmark::ClobberMemory();
        Stop();
    }

private:
    static s64 _Now();

    s64 m_Nanoseconds = 0;
};

struct SRow
{
    std::string m_Title;     // what is done
    std::string m_Reference; // what it is compared with
    double m_Target;         // the ratio to stay at or below
    double m_ItemCount;      // of one round; the table gives nanoseconds for each
    const char *m_ItemName;
};

using Side = std::function<void(CStopwatch &)>;
using RunSides = std::function<void(const Side &ours, const Side &reference)>;

// Adds a row. body prepares what the sides share, and calls its argument once.
void AddRow(const SRow &row, const std::function<void(const RunSides &)> &body);

// The rows, by theme.
void AddBirthRows();
void AddColumnRows();
void AddLockRows();
void AddBlockRows();
void AddCopyRows();
void AddConversionRows();
void AddPageListRows();

} // namespace Bench
