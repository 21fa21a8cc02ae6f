// Frames of an effect that grows from nothing to a million particles and vanishes again, while a second thread takes
// the render lock: what single frames take, not what an operation takes on the average.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace Bench
{

// What the thread that owns the particles does in a frame, in this order.
enum EFrameStep
{
    Step_ForEach,
    Step_RemoveIf,
    Step_Births,
    Step_Collect,
    Step_Resize,
    Step_Update,
    Step_Count,
};

// Nanoseconds of one frame.
struct SFrameTimes
{
    double m_Steps[Step_Count];       // processor time of the owner: neither preemption nor waiting counts
    double m_LongestHold[Step_Count]; // of the lock, at a time
    double m_RenderWait;              // the render thread's longest wait for the lock that ended in this frame

    double Sum() const;
};

// One side in several runs. The same births and deaths happen in each of them, so what differs was done by others: the
// least figure of a frame counts. Waits meet another moment in each run, so each run's worst counts.
struct SFrameSide
{
    std::string m_Name;
    std::vector<SFrameTimes> m_Frames;      // all but the waits: the least of the runs; the waits: of the last run
    std::vector<double> m_WorstRenderWaits; // of each run

    std::vector<double> Sums() const; // frame by frame
};

// Runs ours and the peers in turn, each run in a process of its own. Ours is the first.
std::vector<SFrameSide> MeasureFrames(unsigned runCount);

void PrintFrames(std::FILE *file, const std::vector<SFrameSide> &sides);

// Writes a PNG: time over frames for each side. False when it could not be written.
bool DrawFrames(const std::string &path, const std::vector<SFrameSide> &sides);

} // namespace Bench
