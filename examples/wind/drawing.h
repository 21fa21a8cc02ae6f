#pragma once
// Draws a page: a line a particle, from where it was to where it is.

#include "canvas.h"
#include "layout.h"

namespace Wind
{
void DrawPage(const CParticlePageView &page, const SFields &fields, const CPalette &palette, CCanvas &canvas);
} // namespace Wind
