#include "drawing.h"

#include "motion.h"

#include <algorithm>

namespace Wind
{
namespace
{
constexpr float kFaintest = 0.01f; // of the average: what is fainter is not seen

// How much of a particle is seen at a point of its life, from 0 at birth to 1 and back to 0 at death.
float Presence(float life, const CFloat2 &fade) { return std::min({1.0f, life / fade.m_X, (1.0f - life) / fade.m_Y}); }

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
    const auto fades = page.Column<CFloat2>(fields.m_Fade); // a constant: the same element for every particle
    const auto speeds = Speeds(page, fields);
    WithAges(page, fields,
             [&](const auto &ages)
             {
                 for (u32 i = 0; i < ages.Count(); ++i)
                 {
                     const float strength = brightness[i] * Presence(float(ages[i]) / lifetimes[i], fades[i]);
                     if (strength < kFaintest)
                         continue;
                     canvas.DrawLine(canvas.Project(previous[i].m_X, previous[i].m_Y),
                                     canvas.Project(positions[i].m_X, positions[i].m_Y),
                                     Tinted(palette.ColorOfSpeed(speeds[i]), tints[i], strength));
                 }
             });
}
} // namespace Wind
