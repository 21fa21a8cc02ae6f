#include "wind_run.h"

#include "caption.h"

#include <algorithm>
#include <cmath>

namespace Wind
{
namespace
{
constexpr u32 kPageSizeFactor = 4;   // after a third of the run
constexpr u32 kPagesPerFrame = 8;    // resized per frame
constexpr u32 kFramesToFill = 20;    // until the target count is reached
constexpr float kGustPeriod = 80.0f; // frames
constexpr float kGustDepth = 0.25f;  // the particle count falls by twice this share between gusts
constexpr u32 kSnapshotSeed = 0x5EED;

// White, scaled so that the picture's brightness does not depend on the particle count or the picture's height.
CFloat3 TintFor(const SOptions &options)
{
    const float particlesPerLine = float(options.m_ParticleCount) / float(options.m_Height);
    const float gain = std::min(8.0f, 0.24f * (200'000.0f / 720.0f) / particlesPerLine);
    return {gain, gain, gain};
}

std::unique_ptr<CWindParticles> MakeParticles(const CWindField &field, const CLayout &layout, const CFloat3 &tint,
                                              const SOptions &options, u32 seed)
{
    return std::make_unique<CWindParticles>(field, layout, tint, options.m_PageSize, seed);
}
} // namespace

CWindRun::CWindRun(const SOptions &options, const CWindField &field)
    : m_Options(options)
    , m_Field(field)
    , m_Tint(TintFor(options))
    , m_Canvas(options.m_Width, options.m_Height)
    , m_SnapshotCanvas(options.m_Width, options.m_Height)
    , m_PageChart(options.m_FrameCount)
{
    MakeFirstLayout(m_FirstLayout);
    MakeEditedLayout(m_EditedLayout, m_Tint);
    m_Particles = MakeParticles(field, m_FirstLayout, m_Tint, options, options.m_Seed);
}

void CWindRun::PlayFrame(u32 frame)
{
    _Edit(frame);
    const u32 targetCount = _TargetCount(frame);
    m_Particles->Advance(frame, targetCount);
    m_Particles->Draw(m_Palette, m_Canvas);
    m_PageChart.Record(m_Particles->Stream(), m_Particles->PageBirths(), frame);
    const u64 resizedBefore = m_Particles->Clock().Total(Phase_Resizing).m_Handled;
    const u64 collectedBefore = m_Particles->CollectedPageCount();
    m_Particles->MaintainPages(kPagesPerFrame, frame);
    m_PageChart.AddMaintenance(m_Particles->Clock().Total(Phase_Resizing).m_Handled - resizedBefore,
                               m_Particles->CollectedPageCount() - collectedBefore);
    if (m_Snapshot == nullptr)
        return;
    m_Snapshot->Advance(frame, targetCount);
    m_Snapshot->Draw(m_Palette, m_SnapshotCanvas);
    m_Snapshot->MaintainPages(kPagesPerFrame, frame);
}

bool CWindRun::WritePictures(std::vector<std::string> &outPaths, std::string &outError) const
{
    const std::string &time = m_Field.Time();
    const std::string forecast = "Wind near the ground, " + (time.empty() ? "" : time + ", ") + m_Options.m_Source;
    SImage map = m_Canvas.ToImage(), copiedMap = m_SnapshotCanvas.ToImage(),
           pages = m_PageChart.Paint(m_Options.m_Width, m_Options.m_Height);
    AddCaption(map, m_Palette, forecast);
    AddCaption(copiedMap, m_Palette, forecast);
    for (const auto &[name, image] :
         {std::pair("wind.png", &map), std::pair("wind-snapshot.png", &copiedMap), std::pair("pages.png", &pages)})
    {
        outPaths.push_back(m_Options.m_OutputFolder + "/" + name);
        if (!WritePng(outPaths.back(), *image, outError))
            return false;
    }
    return true;
}

void CWindRun::_Edit(u32 frame)
{
    const u32 frameCount = m_Options.m_FrameCount;
    if (frame == frameCount / 3)
    {
        m_Particles->ChangePageSize(m_Options.m_PageSize * kPageSizeFactor);
        m_PageChart.Mark(frame, "page size " + std::to_string(m_Particles->Stream().PageSize()));
    }
    if (frame == frameCount / 2)
    {
        m_Particles->EditLayout(m_EditedLayout);
        m_PageChart.Mark(frame, "fields edited");
    }
    if (frame == frameCount * 2 / 3)
    {
        m_Snapshot = MakeParticles(m_Field, m_FirstLayout, m_Tint, m_Options, m_Options.m_Seed + kSnapshotSeed);
        m_Particles->CopyInto(*m_Snapshot);
        m_PageChart.Mark(frame, "copied");
    }
}

// Varies like gusts: while the count falls, fewer particles are allocated than removed, and pages become empty.
u32 CWindRun::_TargetCount(u32 frame) const
{
    const bool isFilled = !m_Options.m_FromFile.empty();
    const float start = isFilled ? 1.0f : std::min(1.0f, float(frame + 1) / float(kFramesToFill));
    const float toEnd = float(m_Options.m_FrameCount - 1 - frame); // the count is largest at the end
    const float lull = kGustDepth * (1.0f - std::cos(toEnd / kGustPeriod * 6.2831853f));
    return u32(std::ceil(float(m_Options.m_ParticleCount) * start * (1.0f - lull)));
}
} // namespace Wind
