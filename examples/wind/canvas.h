#pragma once
// The picture while it is drawn: light is added in linear floats, fades from frame to frame, and is tone-mapped at the
// end. The canvas is a map of the whole globe, with 180 W at its left edge and north up.

#include "image.h"
#include "palette.h"

#include <vector>

namespace Wind
{
struct SPoint
{
    float m_X, m_Y; // in pixels
};

class CCanvas
{
public:
    CCanvas(u32 width, u32 height);

    // Converts a place in degrees to pixels.
    SPoint Project(float longitude, float latitude) const;

    // Adds light along the line, in proportion to its length. A line across the date line wraps from one edge to the
    // other.
    void DrawLine(const SPoint &from, const SPoint &to, const SColor &light);

    void Fade(float keep); // multiplies all light

    SImage ToImage() const;

private:
    void _Splat(float x, float y, const SColor &light);
    void _Add(u32 x, u32 y, const SColor &light, float weight);

    u32 m_Width, m_Height;
    std::vector<SColor> m_Light;
};
} // namespace Wind
