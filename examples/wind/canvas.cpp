#include "canvas.h"

#include <algorithm>
#include <cmath>

namespace Wind
{
namespace
{
constexpr SColor kBackground = {0.0022f, 0.0030f, 0.0065f};
constexpr float kExposure = 1.0f;

float Luminance(const SColor &color)
{
    return 0.2126f * color.m_Red + 0.7152f * color.m_Green + 0.0722f * color.m_Blue;
}

// Keeps the hue of dim light; bright light becomes whiter.
SColor ToneMap(const SColor &light)
{
    const float luminance = Luminance(light) * kExposure;
    const float mapped = 1.0f - std::exp(-luminance);
    const float scale = luminance > 0.0f ? kExposure * mapped / luminance : 0.0f;
    const float white = mapped * mapped * mapped * 0.35f;
    const auto channel = [&](float value, float ground)
    { return ground + value * scale * (1.0f - white) + mapped * white; };
    return {channel(light.m_Red, kBackground.m_Red), channel(light.m_Green, kBackground.m_Green),
            channel(light.m_Blue, kBackground.m_Blue)};
}
} // namespace

CCanvas::CCanvas(u32 width, u32 height)
    : m_Width(width)
    , m_Height(height)
    , m_Light(size_t(width) * height, SColor{0.0f, 0.0f, 0.0f})
{
}

SPoint CCanvas::Project(float longitude, float latitude) const
{
    return {(longitude + 180.0f) * float(m_Width) / 360.0f, (90.0f - latitude) * float(m_Height) / 180.0f};
}

void CCanvas::DrawLine(const SPoint &from, const SPoint &to, const SColor &light)
{
    const float width = float(m_Width);
    float stepX = to.m_X - from.m_X;
    stepX -= width * std::round(stepX / width);
    const float stepY = to.m_Y - from.m_Y;
    const float length = std::sqrt(stepX * stepX + stepY * stepY);
    const u32 count = u32(length) + 1;
    const float part = 1.0f / float(count);
    const float energy = length * part;
    const SColor dot = {light.m_Red * energy, light.m_Green * energy, light.m_Blue * energy};
    for (u32 i = 0; i < count; ++i)
    {
        const float along = (float(i) + 0.5f) * part;
        _Splat(from.m_X + stepX * along, from.m_Y + stepY * along, dot);
    }
}

void CCanvas::Fade(float keep)
{
    for (SColor &light : m_Light)
    {
        light.m_Red *= keep;
        light.m_Green *= keep;
        light.m_Blue *= keep;
    }
}

SImage CCanvas::ToImage() const
{
    SImage image(m_Width, m_Height);
    u8 *bytes = image.m_Bytes.data();
    for (const SColor &light : m_Light)
    {
        const SColor shown = ToneMap(light);
        *bytes++ = ScreenByte(shown.m_Red);
        *bytes++ = ScreenByte(shown.m_Green);
        *bytes++ = ScreenByte(shown.m_Blue);
    }
    return image;
}

// Adds light to the four pixels around a point, by bilinear weights. x may be up to one width outside the canvas.
void CCanvas::_Splat(float x, float y, const SColor &light)
{
    const float fromLeft = x - 0.5f + float(m_Width);
    const float fromTop = std::max(0.0f, y - 0.5f);
    const u32 steps = u32(fromLeft); // truncation is floor: both are positive
    const u32 row = std::min(u32(fromTop), m_Height - 1);
    const float weightRight = fromLeft - float(steps);
    const float weightBottom = fromTop - float(row);
    const u32 column = steps % m_Width;
    const u32 nextColumn = column + 1 < m_Width ? column + 1 : 0;
    const u32 nextRow = std::min(row + 1, m_Height - 1);
    _Add(column, row, light, (1.0f - weightRight) * (1.0f - weightBottom));
    _Add(nextColumn, row, light, weightRight * (1.0f - weightBottom));
    _Add(column, nextRow, light, (1.0f - weightRight) * weightBottom);
    _Add(nextColumn, nextRow, light, weightRight * weightBottom);
}

void CCanvas::_Add(u32 x, u32 y, const SColor &light, float weight)
{
    SColor &pixel = m_Light[size_t(y) * m_Width + x];
    pixel.m_Red += light.m_Red * weight;
    pixel.m_Green += light.m_Green * weight;
    pixel.m_Blue += light.m_Blue * weight;
}
} // namespace Wind
