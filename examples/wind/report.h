#pragma once
// What the program tells while it runs and when it is done.

#include "wind_run.h"

#include <cstdio>

namespace Wind
{
// A bar that grows on a terminal; a plain line at every tenth elsewhere.
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

// The phases in nanoseconds per particle and frame, then what became of the pages and the particles.
void PrintTable(std::FILE *out, const CWindRun &run);
} // namespace Wind
