#pragma once
// Draws a line for each particle of a page, from its previous to its current position.

#include "canvas.h"
#include "layout.h"

namespace Wind
{
void DrawPage(const CParticlePageView &page, const SFields &fields, const CPalette &palette, CCanvas &canvas);
} // namespace Wind
