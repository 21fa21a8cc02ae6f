#pragma once
// What stands below the map: the scale of the speeds, and which forecast it shows.

#include "image.h"
#include "palette.h"

namespace Wind
{
void AddCaption(SImage &map, const CPalette &palette, const std::string &forecast);
} // namespace Wind
