#include "particles.h"

#include "drawing.h"
#include "motion.h"

#include <tz_particles/include/ps_for_each.h>
#ifdef WIND_HAS_SNAPSHOTS
#    include <tz_snapshot/include/sn_snapshot.h>
#endif

#include <algorithm>
#include <cmath>

namespace Wind
{
namespace
{
constexpr float kSecondsPerFrame = 1500.0f;
constexpr u32 kBurst = 512;            // particles allocated at once, at most
constexpr u32 kShortestLife = 30;      // frames
constexpr u32 kLifeSpread = 60;        // frames; added at random to the shortest life, once per frame
constexpr u32 kLifeSpreadInFrame = 10; // frames; small, so that a frame's particles die together and pages become empty
constexpr float kFadePerFrame = 0.988f; // factor on the picture's light
constexpr float kDegreesPerRadian = 180.0f / 3.14159265f;

// Few particles are bright, so that the picture shows single lines. The average is 1.
float RandomBrightness(CRandom &random)
{
    const float unit = random.Unit();
    const float cube = unit * unit * unit;
    return 8.0f * cube * cube * unit;
}

// A uniformly distributed place on the globe.
CFloat2 RandomPlace(CRandom &random)
{
    const float longitude = 360.0f * random.Unit() - 180.0f;
    return {longitude, std::asin(2.0f * random.Unit() - 1.0f) * kDegreesPerRadian};
}

// False for NaN, too: a file may hold anything.
bool IsOnGlobe(const CFloat2 &place) { return std::abs(place.m_X) <= 360.0f && std::abs(place.m_Y) <= 90.0f; }
} // namespace

CWindParticles::CWindParticles(const CWindField &field, const CLayout &layout, const CFloat3 &tint, u32 pageSize,
                               u32 seed)
    : m_Field(field)
    , m_Tint(tint)
    , m_Random(seed)
    , m_Stream(pageSize)
{
    layout.BindTo(m_Stream);
}

void CWindParticles::Advance(u32 frame, u32 targetCount)
{
    const SFields fields = FindFields(m_Stream);
    const u32 liveCount = m_Stream.ParticleCount();
    _Allocate(fields, targetCount - std::min(targetCount, liveCount));
    m_PageBirths.AddNewPages(m_Stream, frame);
    m_Clock.AddParticleFrames(m_Stream.ParticleCount());
    _Advect(fields);
    _Age(fields);
    _RemoveDead(fields);
}

void CWindParticles::Draw(const CPalette &palette, CCanvas &canvas)
{
    const CScopedPhase phase(m_Clock, Phase_Drawing);
    const SFields fields = FindFields(m_Stream);
    canvas.Fade(kFadePerFrame);
    const CScopedPagesRenderLock lock(m_Stream);
    Particles::ForEachPage(m_Stream, [&](const CParticlePageView &page) { DrawPage(page, fields, palette, canvas); });
}

void CWindParticles::MaintainPages(u32 maxPageCountToResize, u32 frame)
{
    _CollectPages();
    if (m_Stream.HasPendingResizes())
        _ResizePages(maxPageCountToResize, frame);
}

void CWindParticles::ChangePageSize(u32 pageSize) { m_Stream.SetPageSize(pageSize); }

void CWindParticles::EditLayout(const CLayout &layout)
{
    const CScopedPhase phase(m_Clock, Phase_Rebinding);
    m_Clock.AddHandled(Phase_Rebinding, m_Stream.ParticleCount());
    layout.BindTo(m_Stream);
}

void CWindParticles::CopyInto(CWindParticles &outCopy)
{
    const CScopedPhase phase(m_Clock, Phase_Copying);
    outCopy.m_Stream.DeepCopy(m_Stream);
    outCopy.m_PageBirths = m_PageBirths;
    outCopy.m_BirthCount = m_BirthCount;
    outCopy.m_DeathCount = m_DeathCount;
    m_Clock.AddHandled(Phase_Copying, outCopy.m_Stream.ParticleCount());
}

#ifdef WIND_HAS_SNAPSHOTS
bool CWindParticles::Save(const std::string &path, std::string &outError) const
{
    return Snapshot::Save(m_Stream, path.c_str()) || (outError = path + " cannot be written", false);
}

bool CWindParticles::Load(const std::string &path, std::string &outError)
{
    Snapshot::SLoadedDefinition definition; // not used: the stream keeps its own
    if (!Snapshot::Load(path.c_str(), definition, m_Stream))
        return outError = path + " cannot be loaded", false;
    m_BirthCount += m_Stream.ParticleCount();
    const SFields fields = FindFields(m_Stream);
    Particles::ForEachPage(m_Stream,
                           [&](const CParticlePageView &page)
                           {
                               for (const CGuid field : {fields.m_Position, fields.m_PreviousPosition})
                               {
                                   for (CFloat2 &place : page.ColumnForWriting<CFloat2>(field))
                                       place = IsOnGlobe(place) ? place : CFloat2(0.0f, 0.0f);
                               }
                           });
    return true;
}
#else
bool CWindParticles::Save(const std::string &path, std::string &outError) const
{
    return outError = path + " cannot be written: built without HDF5", false;
}

bool CWindParticles::Load(const std::string &path, std::string &outError)
{
    return outError = path + " cannot be loaded: built without HDF5", false;
}
#endif

void CWindParticles::_Allocate(const SFields &fields, u32 count)
{
    const CScopedPhase phase(m_Clock, Phase_Birth);
    const CScopedPagesLock lock(m_Stream); // until the particles are filled
    const u32 shortestLife = kShortestLife + m_Random.Below(kLifeSpread);
    while (count != 0)
    {
        const u32 burst = std::min(count, kBurst);
        const u32 minCount = std::max(1u, std::min(burst, m_Stream.PageSize()) / 4);
        const CParticlePageView newborn = m_Stream.AllocateParticlesIFP(burst, minCount);
        if (newborn.Empty())
            return; // out of memory
        _FillNewborn(newborn, fields, shortestLife);
        count -= newborn.ParticleCount();
        m_BirthCount += newborn.ParticleCount();
        m_Clock.AddHandled(Phase_Birth, newborn.ParticleCount());
    }
}

void CWindParticles::_FillNewborn(const CParticlePageView &newborn, const SFields &fields, u32 shortestLife)
{
    const auto positions = newborn.ColumnForWriting<CFloat2>(fields.m_Position);
    const auto lifetimes = newborn.ColumnForWriting<float>(fields.m_Lifetime);
    const auto brightness = newborn.ColumnForWriting<float>(fields.m_Brightness);
    for (u32 i = 0; i < newborn.ParticleCount(); ++i)
    {
        positions[i] = RandomPlace(m_Random);
        lifetimes[i] = float(shortestLife + m_Random.Below(kLifeSpreadInFrame));
        brightness[i] = RandomBrightness(m_Random);
    }
    StartLife(newborn, fields, m_Tint);
}

void CWindParticles::_Advect(const SFields &fields)
{
    const CScopedPhase phase(m_Clock, Phase_Advection);
    Particles::ForEachPage(m_Stream,
                           [&](const CParticlePageView &page) { Advect(page, fields, m_Field, kSecondsPerFrame); });
}

void CWindParticles::_Age(const SFields &fields)
{
    const CScopedPhase phase(m_Clock, Phase_Ageing);
    Particles::ForEachPage(m_Stream, [&](const CParticlePageView &page) { Age(page, fields); });
}

void CWindParticles::_RemoveDead(const SFields &fields)
{
    const CScopedPhase phase(m_Clock, Phase_Removal);
    const u32 removedCount = RemoveDead(m_Stream, fields);
    m_DeathCount += removedCount;
    m_Clock.AddHandled(Phase_Removal, removedCount);
}

void CWindParticles::_ResizePages(u32 maxPageCount, u32 frame)
{
    const CScopedPhase phase(m_Clock, Phase_Resizing);
    {
        const CScopedPagesLock lock(m_Stream);
        m_Stream.ComputePendingResizes_NoLock(); // collection does not update the count
    }
    m_Clock.AddHandled(Phase_Resizing, m_PageBirths.ResizePages(m_Stream, maxPageCount, frame));
}

void CWindParticles::_CollectPages()
{
    const CScopedPhase phase(m_Clock, Phase_Collection);
    m_Clock.AddHandled(Phase_Collection, m_Stream.PageCount());
    m_CollectedPageCount += m_PageBirths.CollectPages(m_Stream);
}
} // namespace Wind
