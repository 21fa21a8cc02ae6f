// What one would keep particles in without the library: the peers of a stream, each with the same births.
#pragma once

#include <vector>

#include <plf_colony.h>

#include "workloads.h"

namespace Bench
{

using namespace Workloads;

// What the birth at place i writes: position and life. The other values are what a container makes them: zero, in a
// page kFreshParticleByte.
inline CFloat3 BornPosition(u32 i) { return CFloat3(float(i), float(i) + 0.25f, float(i) + 0.5f); }
constexpr float kBornLife = 10.0f;

// Everyone's births into columns run through this.
TZ_NOINLINE inline void WriteBorn(CFloat3 *position, float *life, u32 count)
{
    for (u32 i = 0; i < count; ++i)
    {
        position[i] = BornPosition(i);
        life[i] = kBornLife;
    }
}

// A vector per column.
struct SColumns
{
    std::vector<CFloat3> m_Position, m_Velocity;
    std::vector<CFloat4> m_Color;
    std::vector<float> m_Life, m_Size;

    u32 Count() const { return u32(m_Life.size()); }
    void Resize(size_t count)
    {
        m_Position.resize(count);
        m_Velocity.resize(count);
        m_Color.resize(count);
        m_Life.resize(count);
        m_Size.resize(count);
    }
    void Birth(u32 count)
    {
        const u32 first = Count();
        Resize(size_t(first) + count);
        WriteBorn(m_Position.data() + first, m_Life.data() + first, count);
    }
    // The last row takes the place of row i; the count is the caller's.
    void Move(u32 last, u32 i)
    {
        m_Position[i] = m_Position[last];
        m_Velocity[i] = m_Velocity[last];
        m_Color[i] = m_Color[last];
        m_Life[i] = m_Life[last];
        m_Size[i] = m_Size[last];
    }
};

// Containers of structs, one after the other, into which a particle is put as most write it: made, and then inserted.
using CStructs = std::vector<SParticle>;
using CColony = plf::colony<SParticle>;

inline SParticle Born(u32 i, float life = kBornLife)
{
    SParticle particle = {};
    particle.m_Position = BornPosition(i);
    particle.m_Life = life;
    return particle;
}

inline void Birth(CStructs &structs, u32 count)
{
    for (u32 i = 0; i < count; ++i)
        structs.push_back(Born(i));
}

inline void Birth(CColony &colony, u32 count)
{
    for (u32 i = 0; i < count; ++i)
        colony.insert(Born(i));
}

// A particle that a careful hand makes in its place, in one go.
struct SInPlace : SParticle
{
    SInPlace(const CFloat3 &position, float life)
        : SParticle{position, CFloat3(0.0f, 0.0f, 0.0f), CFloat4(0.0f, 0.0f, 0.0f, 0.0f), life, 0.0f}
    {
    }
};

using CColonyInPlace = plf::colony<SInPlace>;

inline void Birth(CColonyInPlace &colony, u32 count)
{
    for (u32 i = 0; i < count; ++i)
        colony.emplace(BornPosition(i), kBornLife);
}

// Into a stream: a run of slots of one page.
inline void Birth(CParticleStream_MainMemory &stream, u32 count)
{
    const CParticlePageView view = stream.AllocateParticlesIFP(count, 0);
    WriteBorn(view.DenseColumnForWriting<CFloat3>(CGuid(Field_Position)).Data(),
              view.DenseColumnForWriting<float>(CGuid(Field_Life)).Data(), count);
}

} // namespace Bench
