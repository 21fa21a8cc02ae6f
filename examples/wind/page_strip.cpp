#include "page_strip.h"

#include "palette.h"

#include <algorithm>

namespace Wind
{
namespace
{
constexpr u32 kMaxRowCount = 120;
constexpr u32 kNarrowestWithGap = 5; // pixels: a smaller cell has no room for a gap to the next

SColor CellColor(float fill, float birth)
{
    return ColorFromPerception(0.14f + 0.72f * fill, 0.03f + 0.11f * fill, 235.0f + 190.0f * birth);
}

void FillRectangle(SImage &image, u32 left, u32 top, u32 right, u32 bottom, const SColor &color)
{
    const u8 bytes[3] = {ScreenByte(color.m_Red), ScreenByte(color.m_Green), ScreenByte(color.m_Blue)};
    for (u32 y = top; y < bottom; ++y)
    {
        for (u32 x = left; x < right; ++x)
            std::copy(bytes, bytes + 3, image.Pixel(x, y));
    }
}

// Leaves a gap between two cells where there is room for it.
u32 EndOfCell(u32 start, u32 end) { return end >= start + kNarrowestWithGap ? end - 1 : end; }
} // namespace

CPageStrip::CPageStrip(u32 frameCount)
    : m_FrameCount(frameCount)
    , m_FramesPerRow((frameCount + kMaxRowCount - 1) / kMaxRowCount)
{
}

void CPageStrip::Record(const CParticleStream_MainMemory &stream, const CPageDiary &diary, u32 frame)
{
    if (frame % m_FramesPerRow != 0)
        return;
    Row row;
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const CParticlePage &page = *stream.Page(CGuid(i));
        row.push_back({page.Capacity(), float(page.ParticleCount()) / float(page.Capacity()),
                       float(diary.BirthFrame(i)) / float(m_FrameCount)});
    }
    m_Rows.push_back(std::move(row));
}

SImage CPageStrip::Paint(u32 width, u32 height) const
{
    u64 mostSlots = 1;
    for (const Row &row : m_Rows)
    {
        u64 slots = 0;
        for (const SCell &cell : row)
            slots += cell.m_Capacity;
        mostSlots = std::max(mostSlots, slots);
    }

    SImage image(width, height);
    const auto edge = [](u64 part, u64 whole, u32 length) { return u32(part * length / whole); };
    for (size_t r = 0; r < m_Rows.size(); ++r)
    {
        const u32 top = edge(r, m_Rows.size(), height);
        const u32 bottom = edge(r + 1, m_Rows.size(), height);
        u64 slots = 0;
        for (const SCell &cell : m_Rows[r])
        {
            const u32 left = edge(slots, mostSlots, width);
            slots += cell.m_Capacity;
            const u32 right = EndOfCell(left, edge(slots, mostSlots, width));
            FillRectangle(image, left, top, right, bottom, CellColor(cell.m_Fill, cell.m_Birth));
        }
    }
    return image;
}
} // namespace Wind
