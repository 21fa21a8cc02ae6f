#include "drawing.h"

#include "motion.h"

#include <algorithm>

namespace Wind
{
namespace
{
constexpr float kMinStrength = 0.01f; // fainter particles are not visible

// Fades a particle in and out; life is its age as a share of its lifetime.
float Opacity(float life, const CFloat2 &fade) { return std::min({1.0f, life / fade.m_X, (1.0f - life) / fade.m_Y}); }

SColor Tinted(const SColor &color, const CFloat3 &tint, float strength)
{
    return {color.m_Red * tint.m_X * strength, color.m_Green * tint.m_Y * strength, color.m_Blue * tint.m_Z * strength};
}
} // namespace

void DrawPage(const CParticlePageView &page, const SFields &fields, const CPalette &palette, CCanvas &canvas)
{
    const auto positions = page.Column<CFloat2>(fields.m_Position);
    const auto previous = page.Column<CFloat2>(fields.m_PreviousPosition);
    const auto lifetimes = page.Column<float>(fields.m_Lifetime);
    const auto brightness = page.Column<float>(fields.m_Brightness);
    const auto tints = page.Column<CFloat3>(fields.m_Tint);
    const auto fades = page.Column<CFloat2>(fields.m_Fade); // a constant: stride 0
    const auto speeds = Speeds(page, fields);
    WithAges(page, fields,
             [&](const auto &ages)
             {
                 for (u32 i = 0; i < ages.Count(); ++i)
                 {
                     const float strength = brightness[i] * Opacity(float(ages[i]) / lifetimes[i], fades[i]);
                     if (strength < kMinStrength)
                         continue;
                     canvas.DrawLine(canvas.Project(previous[i].m_X, previous[i].m_Y),
                                     canvas.Project(positions[i].m_X, positions[i].m_Y),
                                     Tinted(palette.ColorOfSpeed(speeds[i]), tints[i], strength));
                 }
             });
}
} // namespace Wind
