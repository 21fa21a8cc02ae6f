// Bodies of storage_ram_stream.h.
#pragma once

#include "storage_ram_stream.h"

namespace Tessaly
{

inline SMediumMemoryReport CParticleStream_MainMemory::ComputeMemoryUsage() const { return _ComputeMemoryUsage(); }

inline const PParticlePage &CParticleStream_MainMemory::Page(CGuid pageId) const { return m_Pages[pageId]; }

} // namespace Tessaly
