// Conversion of a field's column when a stream moves to a new definition. The library's own; not installed.
#pragma once

#include <tz_particles/include/Storage/MainMemory/storage_ram_page.h>

namespace Tessaly
{

// Writes particleCount rows of dstStream from those of srcStream, each at its field's stride; a constant source is
// repeated. A row gets as many components as the smaller type has (dstStream's type, when both have one size) and as
// lie within both rows; the rest is zero where dstStream's type is the larger one, else kFreshParticleByte.
// Values: between types of 32-bit components, the same bits where both are floating point or neither is; float to
//         integer drops the fraction, and NaN and what does not fit 32 signed bits give -2147483648; integer to float
//         reads every integer as signed and rounds to nearest even. Where a component has another width: integers as by
//         a C cast, float or double to integer by the rule above and then a C cast, anything to float or double by
//         value.
void ConvertField(const SParticleStreamField &srcStream, const SParticleStreamField &dstStream, u32 particleCount);

} // namespace Tessaly
