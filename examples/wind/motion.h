#pragma once
// What happens to the particles of a page in a frame. Each function is given a view on the page and works on its
// columns.

#include "layout.h"
#include "wind_field.h"

namespace Wind
{
// Where a particle is after a step of `seconds`, and how fast the wind was on its way.
struct SStep
{
    float m_Longitude, m_Latitude; // degrees
    float m_Speed;                 // metres per second
};

SStep StepWithWind(const CWindField &field, float longitude, float latitude, float seconds);

// Gives newborn particles all that is alike in every one of them.
void StartLife(const CParticlePageView &newborn, const SFields &fields, const CFloat3 &tint);

// Carries the particles with the wind; notes where they were and how fast they are.
void Advect(const CParticlePageView &page, const SFields &fields, const CWindField &field, float seconds);

// Makes the particles a frame older.
void Age(const CParticlePageView &page, const SFields &fields);

// Removes the particles of the whole stream that have lived their life, and tells how many.
u32 RemoveDead(CParticleStream_MainMemory &stream, const SFields &fields);

// The columns that are not laid out alike in the two layouts. The speed is a field, or the position's third component.
TStridedMemoryView<const float> Speeds(const CParticlePageView &page, const SFields &fields);
TStridedMemoryView<float> SpeedsForWriting(const CParticlePageView &page, const SFields &fields);

// Calls `use` with the column of ages, which are whole numbers in one layout and floats in the other.
template <typename _Use>
void WithAges(const CParticlePageView &page, const SFields &fields, const _Use &use)
{
    if (fields.m_AgeIsInteger)
        use(page.Column<s32>(fields.m_Age));
    else
        use(page.Column<float>(fields.m_Age));
}
} // namespace Wind
