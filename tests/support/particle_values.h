// Values that tell particles apart: every particle has a number, and from it follows what each of its stored fields
// holds, by the field's name, so that a value can be followed through copies, removals and rebindings. Fields of four
// bytes and more hold a different value for each number.
#pragma once

#include <vector>

#include <gtest/gtest.h>

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

namespace Tessaly
{
namespace Tests
{

// Gives the view's particles the numbers firstNumber, firstNumber + 1, ... in every stored field.
void FillParticles(const CParticlePageView &view, u32 firstNumber);
// The same for all particles of a stream, page after page.
void FillParticles(const CParticleStream_MainMemory &stream, u32 firstNumber);

// Whether the particles of page from first on are those numbers, in every stored field.
::testing::AssertionResult HoldsParticles(const CParticlePage &page, u32 first, const std::vector<u32> &numbers);
// Whether the page holds exactly the particles firstNumber ... firstNumber + count - 1.
::testing::AssertionResult HoldsRun(const CParticlePage &page, u32 firstNumber, u32 count);
// Whether every stored column reads fresh from particle first to its end, rounding to 16 bytes included.
::testing::AssertionResult IsFreshFrom(const CParticlePage &page, u32 first);

std::vector<u32> Numbers(u32 first, u32 count); // first, first + 1, ...

} // namespace Tests
} // namespace Tessaly
