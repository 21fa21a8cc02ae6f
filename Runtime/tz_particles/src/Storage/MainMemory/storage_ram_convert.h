// Conversion of a field's column when a stream moves to a new definition. The library's own; not installed.
#pragma once

#include <tz_particles/include/Storage/MainMemory/storage_ram_page.h>

namespace Tessaly
{

// Writes particleCount rows of dstStream: the leading components of the rows of srcStream, converted, and behind them
// zero where the destination's type is larger than the source's, else kFreshParticleByte. Each row is read and written
// at its field's stride; a constant source (stride 0) is repeated.
//
// As many components as the smaller type has (dstStream's, when both are of one size), and no more than lie within both
// rows. Between types of 32-bit components: the bits as they are where both are floating point or neither is; float to
// integer drops the fraction, NaN and what does not fit 32 signed bits give -2147483648; integer to float rounds to
// nearest even and reads every integer as signed. Where a component is narrower or wider, values are converted: an
// integer as by a C cast, a float or double to an integer by way of the rule above.
void ConvertField(const SParticleStreamField &srcStream, const SParticleStreamField &dstStream, u32 particleCount);

} // namespace Tessaly
