// Passes over columns, compiled twice: for what the benchmarks are built for, and for the processor they run on. Both
// sides of a row call the same code, not each a copy of its own that the compiler lays out in another way.
#pragma once

namespace Bench
{

// position[i] += velocity[i] * step, count floats.
using PassOverColumns = void (*)(float *position, const float *velocity, float step, unsigned count);

void MoveRows_Baseline(float *position, const float *velocity, float step, unsigned count);
void MoveRows_Native(float *position, const float *velocity, float step, unsigned count);

} // namespace Bench
