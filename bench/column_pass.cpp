// Compiled twice, under two names: for what the benchmarks are built for, and for the processor that they run on.
// Includes nothing of the library: an inline function compiled for this processor must not replace one of the others'.
void TESSALY_PASS_NAME(float *position, const float *velocity, float step, unsigned count);

void TESSALY_PASS_NAME(float *position, const float *velocity, float step, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
        position[i] += velocity[i] * step;
}
