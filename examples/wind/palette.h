#pragma once
// Wind speed as colour: calm air is dark and blue, a storm bright and warm. The lightness rises steadily with the
// speed, so that the picture keeps its order for every eye.

#include <tz_defs.h>

#include <array>

namespace Wind
{
using namespace Tessaly;

struct SColor
{
    float m_Red, m_Green, m_Blue; // linear light
};

// From the perceptual space OKLCH: lightness and chroma from 0 to 1, hue in degrees.
SColor ColorFromPerception(float lightness, float chroma, float hueInDegrees);

class CPalette
{
public:
    static constexpr float kFastestSpeed = 30.0f; // metres per second: the end of the scale

    CPalette();

    const SColor &ColorOfSpeed(float metresPerSecond) const;

private:
    static constexpr u32 kEntryCount = 256;

    std::array<SColor, kEntryCount> m_Colors;
};
} // namespace Wind
