// One row of the table: our way to do some work, and beside it limits and peers that do the same.
//
// All sides of a row run round by round, each round in another order, and a ratio is the median over the rounds of ours
// by theirs: what else the machine does hits all. A side measures nanoseconds, or anything else that is to be small
// (bytes).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "workloads.h"

namespace Bench
{

using namespace Workloads;

// Keeps what work wrote, and what it reads, from being optimised away.
inline void ClobberMemory() { __asm__ volatile("" ::: "memory"); }
template <typename _Type>
void Keep(const _Type &value)
{
    __asm__ volatile("" : : "r,m"(value) : "memory");
}

// What a side measures: it adds up.
class CMeter
{
public:
    // The processor time of the calling thread, so that other programs do not count.
    template <typename _Work>
    void Time(_Work work)
    {
        const double begin = ThreadNanoseconds();
        work();
        ClobberMemory();
        Add(ThreadNanoseconds() - begin);
    }
    void Add(double value) { m_Sum += value; }
    double Sum() const { return m_Sum; }

    static double ThreadNanoseconds();
    static double WallNanoseconds();

private:
    double m_Sum = 0.0;
};

enum ESide
{
    Side_Ours,
    Side_Limit,
    Side_Peer,
};

struct SSide
{
    ESide m_Kind;
    std::string m_Name;
    std::function<void(CMeter &)> m_Run;
    double m_Target; // each of ours by this side is to stay at or below; 0: shown beside, no more
};

inline SSide Ours(std::function<void(CMeter &)> run) { return {Side_Ours, "", std::move(run), 0.0}; }
inline SSide Ours(std::string name, std::function<void(CMeter &)> run)
{
    return {Side_Ours, std::move(name), std::move(run), 0.0};
}
inline SSide Limit(std::string name, double target, std::function<void(CMeter &)> run)
{
    return {Side_Limit, std::move(name), std::move(run), target};
}
inline SSide Peer(std::string name, double target, std::function<void(CMeter &)> run)
{
    return {Side_Peer, std::move(name), std::move(run), target};
}

struct SRow
{
    std::string m_Group; // a filter finds "group: work"
    std::string m_Work;
    double m_ItemCount;            // of one round; the table gives the measured for each
    std::string m_Unit;            // of the figures: "ns a particle"
    double m_BestPeerTarget = 0.0; // ours by the fastest of the peers is to stay at or below; 0: no such target
    std::string m_Reason = {};     // for a target that is not held everywhere: what stands against it
};

// Measures a row. Most have one side of ours; the others name theirs.
using RunSides = std::function<void(std::vector<SSide> sides)>;

// Runs a row in a process of its own, and prints it. body prepares what the sides share, and calls its argument once.
void AddRow(const SRow &row, const std::function<void(const RunSides &)> &body);

// What threads do at the same time, each of it in a function of its own: it prepares, calls Begin, works, calls End
// and tidies up. Measured is the wall clock's time from the last Begin to the last End, with one thread its processor
// time.
class CRendezvous
{
public:
    CRendezvous(unsigned threadCount, CMeter &meter)
        : m_ThreadCount(threadCount)
        , m_Meter(meter)
    {
    }

    void Begin(unsigned thread);
    void End(unsigned thread);

private:
    void _WaitForAll();
    double _Now() const;

    unsigned m_ThreadCount;
    CMeter &m_Meter;
    unsigned m_ArrivedCount = 0;
    double m_Begin = 0.0;
};

void RunOnThreads(unsigned threadCount, CMeter &meter, const std::function<void(unsigned thread, CRendezvous &)> &body);

// The rows, by theme.
void AddSpawnRows();
void AddLifeRows();
void AddPassRows();
void AddForEachRows();
void AddRemovalRows();
void AddDeepCopyRows();
void AddConversionRows();
void AddRebindRows();
void AddPageListRows();
void AddBlockRows();
void AddMemoryRows();
void AddLockRows();
void AddShapeRows(); // on demand

} // namespace Bench
