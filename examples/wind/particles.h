#pragma once
// The particles of the wind: a stream, and all that happens to it from frame to frame.
// births - deaths == the live count, at any time.

#include "canvas.h"
#include "layout.h"
#include "page_diary.h"
#include "phases.h"
#include "random.h"
#include "wind_field.h"

namespace Wind
{
class CWindParticles
{
public:
    // The wind and the layout are borrowed.
    CWindParticles(const CWindField &field, const CLayout &layout, const CFloat3 &tint, u32 pageSize, u32 seed);

    // A frame: births up to `wishedCount` particles, the wind, a frame of age, deaths.
    void Advance(u32 frame, u32 wishedCount);
    void Draw(const CPalette &palette, CCanvas &canvas);

    // Once a frame: drops the pages that have emptied, then moves particles into pages of the page size if any wait for
    // it. Leaves no page empty.
    void CarePages(u32 maxPageCountToResize, u32 frame);

    void ChangePageSize(u32 pageSize);
    void EditLayout(const CLayout &layout);
    void CopyInto(CWindParticles &outCopy); // what it held before is gone; it goes on with its own seed

    // Keeps the particles in a file, and replaces them by those of one, whatever layout they had. False: `outError`
    // names the file, and nothing changed.
    bool Save(const std::string &path, std::string &outError) const;
    bool Load(const std::string &path, std::string &outError);

    const CParticleStream_MainMemory &Stream() const { return m_Stream; }
    const CPageDiary &Diary() const { return m_Diary; }
    const CPhaseClock &Clock() const { return m_Clock; }
    u64 BirthCount() const { return m_BirthCount; }
    u64 DeathCount() const { return m_DeathCount; }
    u64 CollectedPageCount() const { return m_CollectedPageCount; }

private:
    void _Bear(const SFields &fields, u32 count);
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
    CPageDiary m_Diary;
    CParticleStream_MainMemory m_Stream;
    u64 m_BirthCount = 0, m_DeathCount = 0, m_CollectedPageCount = 0;
};
} // namespace Wind
