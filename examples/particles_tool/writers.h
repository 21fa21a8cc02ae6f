#pragma once
// What the particles are turned into. Each gives false when the file does not take all of it.

#include "columns.h"

namespace ParticlesTool
{
// Comma-separated values, a particle a line, below a line of names.
bool WriteCsv(const std::string &path, const CParticleStream_MainMemory &stream, const std::vector<SColumn> &columns);

// Points in binary PLY. The columns of the place come first, one to three, and become x, y and z.
bool WritePly(const std::string &path, const CParticleStream_MainMemory &stream, const std::vector<SColumn> &columns,
              u32 placeCount);

// A picture of where the particles are, by two columns within their ranges: the more, the brighter.
bool WritePng(const std::string &path, const CParticleStream_MainMemory &stream, const SColumn (&axes)[2], u32 width,
              u32 height);
} // namespace ParticlesTool
