// What the owner of a stream knows of the machinery that evaluates it.
#pragma once

namespace Tessaly
{

// Compiled implementations for streams of other kinds; a main-memory stream takes it and reads nothing of it.
struct SParticleImplementationCache
{
};

} // namespace Tessaly
