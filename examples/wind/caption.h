#pragma once
// The caption below the map: the scale of the speeds and the forecast.

#include "image.h"
#include "palette.h"

namespace Wind
{
void AddCaption(SImage &map, const CPalette &palette, const std::string &forecast);
} // namespace Wind
