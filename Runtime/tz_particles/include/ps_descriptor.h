// Records of the particle evaluation that a stream's owner passes to the stream.
#pragma once

namespace Tessaly
{

// Compiled implementations for streams of other kinds. A main-memory stream does not read it.
struct SParticleImplementationCache
{
};

} // namespace Tessaly
