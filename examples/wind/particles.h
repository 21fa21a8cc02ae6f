#pragma once
// The particles of the demo: a stream and the operations on it in each frame.
// Invariant: births - deaths == the stream's live count.

#include "canvas.h"
#include "layout.h"
#include "page_births.h"
#include "phases.h"
#include "random.h"
#include "wind_field.h"

namespace Wind
{
class CWindParticles
{
public:
    // Borrows the wind and the layout.
    CWindParticles(const CWindField &field, const CLayout &layout, const CFloat3 &tint, u32 pageSize, u32 seed);

    // One frame: allocates up to targetCount particles, moves and ages all of them, removes the dead ones.
    void Advance(u32 frame, u32 targetCount);
    void Draw(const CPalette &palette, CCanvas &canvas);

    // Once a frame: drops empty pages, then moves the particles of some pages of another size into pages of the page
    // size.
    void MaintainPages(u32 maxPageCountToResize, u32 frame);

    void ChangePageSize(u32 pageSize);
    void EditLayout(const CLayout &layout);
    void CopyInto(CWindParticles &outCopy); // replaces its particles; it keeps its random numbers

    // Saves the particles to a file; replaces them by those of a file, which may have another layout. False: outError
    // names the file, and nothing changed.
    bool Save(const std::string &path, std::string &outError) const;
    bool Load(const std::string &path, std::string &outError);

    const CParticleStream_MainMemory &Stream() const { return m_Stream; }
    const CPageBirths &PageBirths() const { return m_PageBirths; }
    const CPhaseClock &Clock() const { return m_Clock; }
    u64 BirthCount() const { return m_BirthCount; }
    u64 DeathCount() const { return m_DeathCount; }
    u64 CollectedPageCount() const { return m_CollectedPageCount; }

private:
    void _Allocate(const SFields &fields, u32 count);
    void _FillNewborn(const CParticlePageView &newborn, const SFields &fields, u32 shortestLife);
    void _Advect(const SFields &fields);
    void _Age(const SFields &fields);
    void _RemoveDead(const SFields &fields);
    void _ResizePages(u32 maxPageCount, u32 frame);
    void _CollectPages();

    const CWindField &m_Field;
    CFloat3 m_Tint;
    CRandom m_Random;
    CPhaseClock m_Clock;
    CPageBirths m_PageBirths;
    CParticleStream_MainMemory m_Stream;
    u64 m_BirthCount = 0, m_DeathCount = 0, m_CollectedPageCount = 0;
};
} // namespace Wind
