#pragma once
// What the demo knows about each page of a stream beside its particles: the frame of its birth. The notes stand in the
// order of the page list, and follow the pages wherever they go.

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <vector>

namespace Wind
{
using namespace Tessaly;

class CPageDiary
{
public:
    // After particles were allocated: pages that have come at the end of the list are noted down.
    void NoteNewPages(const CParticleStream_MainMemory &stream, u32 frame);

    // Collects the emptied pages of the stream. Returns how many went.
    u32 CollectPages(CParticleStream_MainMemory &stream);

    // Moves the particles of up to `maxPageCount` pages into pages of the stream's page size. Returns how many pages
    // went.
    u32 ResizePages(CParticleStream_MainMemory &stream, u32 maxPageCount, u32 frame);

    u32 BirthFrame(u32 pageIndex) const { return m_BirthFrames[pageIndex]; }

private:
    std::vector<u32> m_BirthFrames; // one a page
    std::vector<CGuid> m_Reindexer; // kept for its memory
};
} // namespace Wind
