#pragma once
// The picture while it is drawn: light adds up in linear floats, fades from frame to frame, and is toned down to what a
// screen can show at the end. The canvas is a map of the whole globe, 180 W at the left, north up.

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

    // Where a place on the globe, in degrees, lies on the canvas.
    SPoint Project(float longitude, float latitude) const;

    // Adds `light` along the line, as much to each pixel of its length. Takes the short way around the globe: a line
    // across the date line leaves at one edge and comes in at the other.
    void DrawLine(const SPoint &from, const SPoint &to, const SColor &light);

    void Fade(float keep); // multiplies all light

    SImage Develop() const;

private:
    void _Splat(float x, float y, const SColor &light);
    void _Add(u32 x, u32 y, const SColor &light, float weight);

    u32 m_Width, m_Height;
    std::vector<SColor> m_Light;
};
} // namespace Wind
