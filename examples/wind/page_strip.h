#pragma once
// The life of a page list as a picture: a row a moment, from the top down; in it a cell a page, as wide as its
// capacity. The fuller a page the brighter its cell; the later it was born the warmer.

#include "image.h"
#include "page_diary.h"

namespace Wind
{
class CPageStrip
{
public:
    explicit CPageStrip(u32 frameCount);

    // To be called each frame; takes a row every few frames.
    void Record(const CParticleStream_MainMemory &stream, const CPageDiary &diary, u32 frame);

    SImage Paint(u32 width, u32 height) const;

private:
    struct SCell
    {
        u32 m_Capacity;
        float m_Fill;  // 0 to 1
        float m_Birth; // 0 at the start of the run, 1 at its end
    };
    using Row = std::vector<SCell>;

    u32 m_FrameCount;
    u32 m_FramesPerRow;
    std::vector<Row> m_Rows;
};
} // namespace Wind
