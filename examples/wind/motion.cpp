#include "motion.h"

#include <tz_particles/include/ps_for_each.h>

#include <algorithm>
#include <cmath>

namespace Wind
{
namespace
{
constexpr float kMetresPerDegree = 111195.0f;
constexpr float kRadiansPerDegree = 3.14159265f / 180.0f;
constexpr float kNarrowestCircle = 0.02f; // of the equator's length: limits steps in degrees near a pole
constexpr float kLastLatitude = 89.9f;

// The distance that the wind covers in that time, in degrees.
CFloat2 DegreesOfStep(const SWind &wind, float latitude, float seconds)
{
    const float circle = std::max(kNarrowestCircle, std::cos(latitude * kRadiansPerDegree));
    const float degreesPerSpeed = seconds / kMetresPerDegree;
    return {wind.m_East * degreesPerSpeed / circle, wind.m_North * degreesPerSpeed};
}

float WrapLongitude(float longitude)
{
    if (longitude >= 180.0f)
        return longitude - 360.0f;
    return longitude < -180.0f ? longitude + 360.0f : longitude;
}

template <typename _Type>
void Fill(const TStridedMemoryView<_Type> &column, const _Type &value)
{
    for (u32 i = 0; i < column.Count(); ++i)
        column[i] = value;
}

template <typename _Number>
void AddFrame(const TStridedMemoryView<_Number> &ages)
{
    for (u32 i = 0; i < ages.Count(); ++i)
        ages[i] += _Number(1);
}

void AddDistance(const TStridedMemoryView<float> &distances, const TStridedMemoryView<float> &speeds, float seconds)
{
    for (u32 i = 0; i < distances.Count(); ++i)
        distances[i] += speeds[i] * seconds * 0.001f;
}
} // namespace

SStep StepWithWind(const CWindField &field, float longitude, float latitude, float seconds)
{
    const CFloat2 half = DegreesOfStep(field.Sample(longitude, latitude), latitude, seconds * 0.5f);
    const SWind wind = field.Sample(longitude + half.m_X, latitude + half.m_Y);
    const CFloat2 step = DegreesOfStep(wind, latitude + half.m_Y, seconds);
    return {WrapLongitude(longitude + step.m_X), std::clamp(latitude + step.m_Y, -kLastLatitude, kLastLatitude),
            std::sqrt(wind.m_East * wind.m_East + wind.m_North * wind.m_North)};
}

void StartLife(const CParticlePageView &newborn, const SFields &fields, const CFloat3 &tint)
{
    if (fields.m_AgeIsInteger)
        Fill(newborn.ColumnForWriting<s32>(fields.m_Age), 0);
    else
        Fill(newborn.ColumnForWriting<float>(fields.m_Age), 0.0f);
    Fill(SpeedsForWriting(newborn, fields), 0.0f);
    if (fields.m_Travelled.Valid())
        Fill(newborn.ColumnForWriting<float>(fields.m_Travelled), 0.0f);
    if (fields.m_TintIsStored)
        Fill(newborn.ColumnForWriting<CFloat3>(fields.m_Tint), tint);
}

void Advect(const CParticlePageView &page, const SFields &fields, const CWindField &field, float seconds)
{
    const auto positions = page.ColumnForWriting<CFloat2>(fields.m_Position);
    const auto previous = page.ColumnForWriting<CFloat2>(fields.m_PreviousPosition);
    const auto speeds = SpeedsForWriting(page, fields);
    for (u32 i = 0; i < positions.Count(); ++i)
    {
        CFloat2 &position = positions[i];
        const SStep step = StepWithWind(field, position.m_X, position.m_Y, seconds);
        previous[i] = position;
        position = {step.m_Longitude, step.m_Latitude};
        speeds[i] = step.m_Speed;
    }
    if (fields.m_Travelled.Valid())
        AddDistance(page.ColumnForWriting<float>(fields.m_Travelled), speeds, seconds);
}

void Age(const CParticlePageView &page, const SFields &fields)
{
    if (fields.m_AgeIsInteger)
        AddFrame(page.ColumnForWriting<s32>(fields.m_Age));
    else
        AddFrame(page.ColumnForWriting<float>(fields.m_Age));
}

u32 RemoveDead(CParticleStream_MainMemory &stream, const SFields &fields)
{
    const auto isOver = [](auto age, float lifetime) { return float(age) >= lifetime; };
    if (fields.m_AgeIsInteger)
        return Particles::RemoveIf<const s32, const float>(stream, fields.m_Age, fields.m_Lifetime, isOver);
    return Particles::RemoveIf<const float, const float>(stream, fields.m_Age, fields.m_Lifetime, isOver);
}

TStridedMemoryView<const float> Speeds(const CParticlePageView &page, const SFields &fields)
{
    if (fields.m_Speed.Valid())
        return page.Column<float>(fields.m_Speed);
    const auto positions = page.Column<CFloat3>(fields.m_Position);
    return {&positions[0].m_Z, positions.Count(), positions.Stride()};
}

TStridedMemoryView<float> SpeedsForWriting(const CParticlePageView &page, const SFields &fields)
{
    if (fields.m_Speed.Valid())
        return page.ColumnForWriting<float>(fields.m_Speed);
    const auto positions = page.ColumnForWriting<CFloat3>(fields.m_Position);
    return {&positions[0].m_Z, positions.Count(), positions.Stride()};
}
} // namespace Wind
