#include "page_chart.h"

#include "sheet.h"

#include <algorithm>

namespace Wind
{
namespace
{
constexpr u32 kMaxRowCount = 120;
constexpr double kNarrowestWithGap = 4.0; // pixels: only wider cells have a gap to the next one
constexpr double kWidth = 1440.0;         // of the sheet, in units
constexpr double kLeft = 70.0, kTop = 84.0, kRight = 160.0, kBottom = 58.0; // margins of the rows
constexpr double kBarWidth = 50.0, kBarStep = 66.0;                         // of the bars
constexpr double kTextSize = 13.0;
constexpr SColor kBarColor = {0.60f, 0.30f, 0.08f}, kMarkColor = {0.9f, 0.9f, 0.9f};

SColor CellColor(float fill, float birth)
{
    return ColorFromPerception(0.14f + 0.72f * fill, 0.03f + 0.11f * fill, 235.0f + 190.0f * birth);
}

// The distance of an axis's ticks: a round number, with at most ten ticks.
u64 TickStep(u64 whole)
{
    for (u64 step = 1;; step *= 10)
    {
        for (const u64 factor : {u64(1), u64(2), u64(5)})
        {
            if (whole <= step * factor * 10)
                return step * factor;
        }
    }
}
} // namespace

struct CPageChart::SPlot
{
    CSheet &m_Sheet;
    double m_Unit;            // pixels
    double m_Width, m_Height; // of the rows
    u64 m_SlotCount;          // of the widest row

    double X(u64 slots) const { return kLeft + m_Width * double(slots) / double(m_SlotCount); }
    double Y(double row, size_t rowCount) const { return kTop + m_Height * row / double(rowCount); }
};

CPageChart::CPageChart(u32 frameCount)
    : m_FrameCount(frameCount)
    , m_FramesPerRow((frameCount + kMaxRowCount - 1) / kMaxRowCount)
{
}

void CPageChart::Record(const CParticleStream_MainMemory &stream, const CPageBirths &births, u32 frame)
{
    if (frame % m_FramesPerRow != 0)
        return;
    SRow row;
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const CParticlePage &page = *stream.Page(CGuid(i));
        row.m_Cells.push_back({page.Capacity(), float(page.ParticleCount()) / float(page.Capacity()),
                               float(births.BirthFrame(i)) / float(m_FrameCount)});
    }
    m_Rows.push_back(std::move(row));
}

void CPageChart::AddMaintenance(u64 resizedCount, u64 collectedCount)
{
    m_Rows.back().m_ResizedCount += resizedCount;
    m_Rows.back().m_CollectedCount += collectedCount;
}

void CPageChart::Mark(u32 frame, const std::string &text) { m_Marks.push_back({frame, text}); }

SImage CPageChart::Paint(u32 width, u32 height) const
{
    u64 slotCount = 1;
    for (const SRow &row : m_Rows)
    {
        u64 slots = 0;
        for (const SCell &cell : row.m_Cells)
            slots += cell.m_Capacity;
        slotCount = std::max(slotCount, slots);
    }
    const double unit = double(width) / kWidth;
    CSheet sheet(width, height, unit);
    const SPlot plot = {sheet, unit, kWidth - kLeft - kRight, std::max(1.0, height / unit - kTop - kBottom), slotCount};
    _PaintCells(plot);
    _PaintMaintenance(plot, kWidth - kRight + 14.0, &SRow::m_ResizedCount, "resized");
    _PaintMaintenance(plot, kWidth - kRight + 14.0 + kBarStep, &SRow::m_CollectedCount, "collected");
    _PaintAxes(plot);
    _PaintLegend(plot);
    _PaintMarks(plot);
    return sheet.Image();
}

void CPageChart::_PaintCells(const SPlot &plot) const
{
    for (size_t r = 0; r < m_Rows.size(); ++r)
    {
        const double top = plot.Y(double(r), m_Rows.size()), bottom = plot.Y(double(r + 1), m_Rows.size());
        u64 slots = 0;
        for (const SCell &cell : m_Rows[r].m_Cells)
        {
            const double left = plot.X(slots);
            slots += cell.m_Capacity;
            double width = plot.X(slots) - left;
            if (width * plot.m_Unit >= kNarrowestWithGap)
                width -= 1.0 / plot.m_Unit;
            plot.m_Sheet.Fill(left, top, width, bottom - top, CellColor(cell.m_Fill, cell.m_Birth));
        }
    }
}

// Draws a bar per row: the number of pages.
void CPageChart::_PaintMaintenance(const SPlot &plot, double left, u64 SRow::*count, const char *name) const
{
    u64 most = 1;
    for (const SRow &row : m_Rows)
        most = std::max(most, row.*count);
    for (size_t r = 0; r < m_Rows.size(); ++r)
    {
        const double top = plot.Y(double(r), m_Rows.size()), bottom = plot.Y(double(r + 1), m_Rows.size());
        plot.m_Sheet.Fill(left, top, kBarWidth * double(m_Rows[r].*count) / double(most), bottom - top, kBarColor);
    }
    plot.m_Sheet.Fill(left - 2.0, kTop, 1.0, plot.m_Height, kTextColor);
    plot.m_Sheet.Write(left, kTop - 8.0, 0.0, name, kTextSize);
    plot.m_Sheet.Write(left, kTop + plot.m_Height + 20.0, 0.0, "up to " + WithSeparators(most), kTextSize);
}

void CPageChart::_PaintAxes(const SPlot &plot) const
{
    const double bottom = kTop + plot.m_Height;
    for (u64 slots = 0; slots <= plot.m_SlotCount; slots += TickStep(plot.m_SlotCount))
    {
        plot.m_Sheet.Fill(plot.X(slots) - 0.5, bottom, 1.0, 5.0, kTextColor);
        plot.m_Sheet.Write(plot.X(slots), bottom + 20.0, 0.5, WithSeparators(slots), kTextSize);
    }
    for (u64 frame = 0; frame <= m_FrameCount; frame += TickStep(m_FrameCount))
    {
        const double y = plot.Y(double(frame) / m_FramesPerRow, m_Rows.size());
        plot.m_Sheet.Fill(kLeft - 5.0, y - 0.5, 5.0, 1.0, kTextColor);
        plot.m_Sheet.Write(kLeft - 10.0, y + 4.5, 1.0, WithSeparators(frame), kTextSize);
    }
    plot.m_Sheet.Write(kLeft - 10.0, kTop - 20.0, 1.0, "frame", kTextSize);
    plot.m_Sheet.Write(kLeft, bottom + 44.0, 0.0,
                       "pages across, in the order of the page list, each as wide as its capacity in particles",
                       kTextSize);
    plot.m_Sheet.Write(kWidth - kRight + 14.0, kTop - 26.0, 0.0, "pages", kTextSize);
}

void CPageChart::_PaintLegend(const SPlot &plot) const
{
    CSheet &sheet = plot.m_Sheet;
    sheet.Write(kLeft, 28.0, 0.0, "The pages that hold the wind's particles", 18.0);
    double x = kLeft;
    const auto write = [&](const std::string &text)
    {
        sheet.Write(x, 58.0, 0.0, text, kTextSize);
        x += sheet.TextWidth(text, kTextSize) + 8.0;
    };
    const auto scale = [&](const std::string &from, const std::string &to, const auto &color)
    {
        write(from);
        sheet.FillScale(x, 47.0, 120.0, 12.0, color);
        x += 128.0;
        write(to);
        x += 30.0;
    };
    scale("fill: empty", "full", [](float part) { return CellColor(part, 0.0f); });
    scale("hue: made in frame 0", WithSeparators(m_FrameCount), [](float part) { return CellColor(0.8f, part); });

    u32 smallest = ~0u, largest = 0;
    for (const SRow &row : m_Rows)
    {
        for (const SCell &cell : row.m_Cells)
        {
            smallest = std::min(smallest, cell.m_Capacity);
            largest = std::max(largest, cell.m_Capacity);
        }
    }
    for (const u32 capacity : {smallest, largest})
    {
        if (capacity > largest)
            break; // no page was recorded
        const double width = std::min(plot.X(capacity) - kLeft, 120.0);
        write((capacity == smallest ? "page size: " : "") + WithSeparators(capacity));
        sheet.Fill(x, 47.0, width, 12.0, CellColor(0.8f, 0.0f));
        x += width + 14.0;
        if (smallest == largest)
            break;
    }
}

void CPageChart::_PaintMarks(const SPlot &plot) const
{
    for (const SMark &mark : m_Marks)
    {
        const double y = plot.Y(double(mark.m_Frame) / m_FramesPerRow, m_Rows.size());
        plot.m_Sheet.DashedLine(kLeft, y, plot.m_Width, kMarkColor);
        const double right = kLeft + plot.m_Width - 8.0, width = plot.m_Sheet.TextWidth(mark.m_Text, kTextSize);
        plot.m_Sheet.Fill(right - width - 4.0, y - 20.0, width + 8.0, 17.0, kBackgroundColor);
        plot.m_Sheet.Write(right, y - 7.0, 1.0, mark.m_Text, kTextSize);
    }
}
} // namespace Wind
