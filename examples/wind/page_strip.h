#pragma once
// The life of a page list as a picture: a row a moment, from the top down; in it a cell a page, as wide as its
// capacity. The fuller a page the brighter its cell; the later it was born the warmer. Beside the rows stand the pages
// that were resized and collected then.

#include "image.h"
#include "page_diary.h"

#include <string>

namespace Wind
{
class CPageStrip
{
public:
    explicit CPageStrip(u32 frameCount);

    // To be called each frame; takes a row every few frames.
    void Record(const CParticleStream_MainMemory &stream, const CPageDiary &diary, u32 frame);
    // After Record: how many pages were emptied into others of the new size, and how many were dropped.
    void AddCare(u64 resizedCount, u64 collectedCount);
    // A line across the picture, with this text.
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
    struct SPlot; // where things stand on the sheet

    void _PaintCells(const SPlot &plot) const;
    void _PaintCare(const SPlot &plot, double left, u64 SRow::*count, const char *name) const;
    void _PaintAxes(const SPlot &plot) const;
    void _PaintLegend(const SPlot &plot) const;
    void _PaintMarks(const SPlot &plot) const;

    u32 m_FrameCount;
    u32 m_FramesPerRow;
    std::vector<SRow> m_Rows;
    std::vector<SMark> m_Marks;
};
} // namespace Wind
