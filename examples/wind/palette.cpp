#include "palette.h"

#include <algorithm>
#include <cmath>

namespace Wind
{
namespace
{
struct SStop
{
    float m_Speed, m_Lightness, m_Chroma, m_Hue;
};

constexpr SStop kStops[] = {
    {0.0f, 0.28f, 0.10f, 290.0f},  {4.0f, 0.40f, 0.14f, 266.0f},  {8.0f, 0.54f, 0.13f, 238.0f},
    {12.0f, 0.68f, 0.12f, 200.0f}, {15.0f, 0.77f, 0.11f, 160.0f}, {18.0f, 0.83f, 0.14f, 100.0f},
    {22.0f, 0.86f, 0.15f, 75.0f},  {26.0f, 0.89f, 0.10f, 45.0f},  {30.0f, 0.96f, 0.04f, 20.0f},
};

float Mix(float a, float b, float weightOfB) { return a + (b - a) * weightOfB; }

SColor ColorBetweenStops(float speed)
{
    const SStop *upper = std::begin(kStops) + 1;
    while (upper + 1 != std::end(kStops) && upper->m_Speed < speed)
        ++upper;
    const SStop &a = upper[-1];
    const SStop &b = *upper;
    const float weight = (speed - a.m_Speed) / (b.m_Speed - a.m_Speed);
    return ColorFromPerception(Mix(a.m_Lightness, b.m_Lightness, weight), Mix(a.m_Chroma, b.m_Chroma, weight),
                               Mix(a.m_Hue, b.m_Hue, weight));
}

float Cube(float value) { return value * value * value; }
} // namespace

SColor ColorFromPerception(float lightness, float chroma, float hueInDegrees)
{
    const float hue = hueInDegrees * 3.14159265f / 180.0f;
    const float a = chroma * std::cos(hue);
    const float b = chroma * std::sin(hue);

    const float longCone = Cube(lightness + 0.3963377774f * a + 0.2158037573f * b);
    const float middleCone = Cube(lightness - 0.1055613458f * a - 0.0638541728f * b);
    const float shortCone = Cube(lightness - 0.0894841775f * a - 1.2914855480f * b);

    return {std::max(0.0f, 4.0767416621f * longCone - 3.3077115913f * middleCone + 0.2309699292f * shortCone),
            std::max(0.0f, -1.2684380046f * longCone + 2.6097574011f * middleCone - 0.3413193965f * shortCone),
            std::max(0.0f, -0.0041960863f * longCone - 0.7034186147f * middleCone + 1.7076147010f * shortCone)};
}

CPalette::CPalette()
{
    for (u32 i = 0; i < kEntryCount; ++i)
        m_Colors[i] = ColorBetweenStops(kFastestSpeed * float(i) / float(kEntryCount - 1));
}

const SColor &CPalette::ColorOfSpeed(float metresPerSecond) const
{
    const float entry = metresPerSecond * (float(kEntryCount - 1) / kFastestSpeed);
    return m_Colors[u32(std::clamp(entry, 0.0f, float(kEntryCount - 1)))];
}
} // namespace Wind
