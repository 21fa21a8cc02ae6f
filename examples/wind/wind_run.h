#pragma once
// A run of the simulation, which also exercises the stream's operations:
//   after a third        the page size changes; particles move into the new pages, some pages per frame
//   after a half         the stream is bound to another layout, as if an artist had edited the effect
//   after two thirds     the particles are copied; the copy runs on and draws a picture of its own

#include "options.h"
#include "page_chart.h"
#include "particles.h"

#include <memory>

namespace Wind
{
class CWindRun
{
public:
    CWindRun(const SOptions &options, const CWindField &field);

    // Replaces the particles by those of a snapshot. Call it before the first frame.
    bool LoadFrom(const std::string &path, std::string &outError) { return m_Particles->Load(path, outError); }
    void PlayFrame(u32 frame);

    const CWindParticles &Particles() const { return *m_Particles; }
    const CWindParticles *Snapshot() const { return m_Snapshot.get(); } // the copy; null before two thirds of the run

    // Writes the pictures to the output folder and their names to outPaths. False: outError names the one that cannot
    // be written.
    bool WritePictures(std::vector<std::string> &outPaths, std::string &outError) const;

private:
    void _Edit(u32 frame);
    u32 _TargetCount(u32 frame) const;

    SOptions m_Options;
    const CWindField &m_Field;
    CFloat3 m_Tint;
    CLayout m_FirstLayout, m_EditedLayout;
    CPalette m_Palette;
    CCanvas m_Canvas, m_SnapshotCanvas;
    CPageChart m_PageChart;
    std::unique_ptr<CWindParticles> m_Particles, m_Snapshot; // destroyed before the layouts that they borrow
};
} // namespace Wind
