#pragma once
// The program's output: progress, and a table at the end.

#include "wind_run.h"

#include <cstdio>

namespace Wind
{
// A progress bar on a terminal; otherwise a line at every tenth of the run.
class CProgress
{
public:
    CProgress(std::FILE *out, u32 frameCount);

    void Show(u32 framesDone, u32 liveCount);

private:
    void _ShowBar(u32 framesDone, u32 liveCount) const;

    std::FILE *m_Out;
    u32 m_FrameCount;
    bool m_IsTerminal;
    u32 m_ShownTenths = 0;
};

// Prints the time of each phase in nanoseconds per particle and frame, then figures of pages and particles.
void PrintTable(std::FILE *out, const CWindRun &run);
} // namespace Wind
