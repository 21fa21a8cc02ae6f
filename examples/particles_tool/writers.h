#pragma once
// Writers of files. Each returns false if the file cannot be written completely.

#include "columns.h"

namespace ParticlesTool
{
// Writes comma-separated values: a line of names, then one line per particle.
bool WriteCsv(const std::string &path, const CParticleStream_MainMemory &stream, const std::vector<SColumn> &columns);

// Writes points in binary PLY. The first positionCount columns, one to three, become x, y and z.
bool WritePly(const std::string &path, const CParticleStream_MainMemory &stream, const std::vector<SColumn> &columns,
              u32 positionCount);

// Draws the particles by two columns, scaled to the columns' ranges. More particles make a pixel brighter.
bool WritePng(const std::string &path, const CParticleStream_MainMemory &stream, const SColumn (&axes)[2], u32 width,
              u32 height);
} // namespace ParticlesTool
