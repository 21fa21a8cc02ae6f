#pragma once
// The colours of wind speeds, from dark blue (calm) to bright and warm (storm). The lightness rises with the speed, so
// that the order of the speeds is visible without colour vision, too.

#include <tz_defs.h>

#include <array>

namespace Wind
{
using namespace Tessaly;

struct SColor
{
    float m_Red, m_Green, m_Blue; // linear light
};

// Converts a colour from OKLCH: lightness and chroma from 0 to 1, hue in degrees.
SColor ColorFromPerception(float lightness, float chroma, float hueInDegrees);

class CPalette
{
public:
    static constexpr float kFastestSpeed = 30.0f; // metres per second: the end of the palette

    CPalette();

    const SColor &ColorOfSpeed(float metresPerSecond) const;

private:
    static constexpr u32 kEntryCount = 256;

    std::array<SColor, kEntryCount> m_Colors;
};
} // namespace Wind
