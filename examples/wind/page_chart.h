#pragma once
// A chart of the page list over time. Each row shows one frame, with a cell per page, as wide as the page's capacity.
// The brightness of a cell shows how full the page is, its hue when the page was made. Bars beside the rows show how
// many pages were resized and collected.

#include "image.h"
#include "page_births.h"

#include <string>

namespace Wind
{
class CPageChart
{
public:
    explicit CPageChart(u32 frameCount);

    // Call it each frame; it records every few frames.
    void Record(const CParticleStream_MainMemory &stream, const CPageBirths &births, u32 frame);
    // Adds to the last row how many pages were resized and collected. Call it after Record.
    void AddMaintenance(u64 resizedCount, u64 collectedCount);
    // Adds a line across the chart, with this text.
    void Mark(u32 frame, const std::string &text);

    SImage Paint(u32 width, u32 height) const;

private:
    struct SCell
    {
        u32 m_Capacity;
        float m_Fill;  // 0 to 1
        float m_Birth; // 0 at the start of the run, 1 at its end
    };
    struct SRow
    {
        std::vector<SCell> m_Cells;
        u64 m_ResizedCount = 0, m_CollectedCount = 0;
    };
    struct SMark
    {
        u32 m_Frame;
        std::string m_Text;
    };
    struct SPlot; // the geometry of the chart

    void _PaintCells(const SPlot &plot) const;
    void _PaintMaintenance(const SPlot &plot, double left, u64 SRow::*count, const char *name) const;
    void _PaintAxes(const SPlot &plot) const;
    void _PaintLegend(const SPlot &plot) const;
    void _PaintMarks(const SPlot &plot) const;

    u32 m_FrameCount;
    u32 m_FramesPerRow;
    std::vector<SRow> m_Rows;
    std::vector<SMark> m_Marks;
};
} // namespace Wind
