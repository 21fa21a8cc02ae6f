// Compiled twice, TESSALY_PASS_NAME being one name of the header and then the other. It includes nothing of the
// library: an inline function compiled for this processor must not stand in for the one that others call.
#include "column_passes.h"

namespace Bench
{

void TESSALY_PASS_NAME(float *position, const float *velocity, float step, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
        position[i] += velocity[i] * step;
}

} // namespace Bench
