#pragma once
// The simulation of a frame. Each function works on the columns of one page, except RemoveDead.

#include "layout.h"
#include "wind_field.h"

namespace Wind
{
// A particle's place after a step of the given seconds, and the speed of the wind during the step.
struct SStep
{
    float m_Longitude, m_Latitude; // degrees
    float m_Speed;                 // metres per second
};

SStep StepWithWind(const CWindField &field, float longitude, float latitude, float seconds);

// Writes the fields that are the same in all new particles.
void StartLife(const CParticlePageView &newborn, const SFields &fields, const CFloat3 &tint);

// Moves the particles with the wind; stores their previous positions and their speeds.
void Advect(const CParticlePageView &page, const SFields &fields, const CWindField &field, float seconds);

// Adds one frame to the ages.
void Age(const CParticlePageView &page, const SFields &fields);

// Removes the stream's particles whose age has reached their lifetime. Returns how many.
u32 RemoveDead(CParticleStream_MainMemory &stream, const SFields &fields);

// The speeds: a field of their own in the first layout, the position's third component in the edited one.
TStridedMemoryView<const float> Speeds(const CParticlePageView &page, const SFields &fields);
TStridedMemoryView<float> SpeedsForWriting(const CParticlePageView &page, const SFields &fields);

// Calls use with the column of ages: integers in one layout, floats in the other.
template <typename _Use>
void WithAges(const CParticlePageView &page, const SFields &fields, const _Use &use)
{
    if (fields.m_AgeIsInteger)
        use(page.Column<s32>(fields.m_Age));
    else
        use(page.Column<float>(fields.m_Age));
}
} // namespace Wind
