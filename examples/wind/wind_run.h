#pragma once
// A run from the first frame to the last, with what happens on the way:
//   at a third       another page size; the particles move into the new pages bit by bit
//   at half          another layout, as when an artist edits the effect while it plays
//   at two thirds    a snapshot, which goes on by itself and draws its own picture

#include "options.h"
#include "page_strip.h"
#include "particles.h"

#include <memory>

namespace Wind
{
class CWindRun
{
public:
    CWindRun(const SOptions &options, const CWindField &field);

    // Before the first frame: goes on from a state that was kept.
    bool GoOnFrom(const std::string &path, std::string &outError) { return m_Particles->Load(path, outError); }
    void PlayFrame(u32 frame);

    const CWindParticles &Particles() const { return *m_Particles; }
    const CWindParticles *Snapshot() const { return m_Snapshot.get(); } // null before two thirds of the run

    // The pictures go to the output folder; `outPaths` gets their names. False: `outError` names the one that cannot be
    // written.
    bool WritePictures(std::vector<std::string> &outPaths, std::string &outError) const;

private:
    void _Edit(u32 frame);
    u32 _WishedCount(u32 frame) const;

    SOptions m_Options;
    const CWindField &m_Field;
    CFloat3 m_Tint;
    CLayout m_FirstLayout, m_EditedLayout;
    CPalette m_Palette;
    CCanvas m_Canvas, m_SnapshotCanvas;
    CPageStrip m_PageStrip;
    std::unique_ptr<CWindParticles> m_Particles, m_Snapshot; // after the layouts that they borrow
};
} // namespace Wind
