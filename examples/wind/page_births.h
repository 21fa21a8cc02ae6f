#pragma once
// The frame in which each page of a stream was made, in the order of the page list. It shows how to keep data per page
// up to date when pages are collected and resized.

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <vector>

namespace Wind
{
using namespace Tessaly;

class CPageBirths
{
public:
    // Call it after allocation, which appends pages to the list.
    void AddNewPages(const CParticleStream_MainMemory &stream, u32 frame);

    // Drops the stream's empty pages. Returns how many.
    u32 CollectPages(CParticleStream_MainMemory &stream);

    // Moves the particles of up to maxPageCount pages into pages of the stream's page size. Returns how many pages were
    // dropped.
    u32 ResizePages(CParticleStream_MainMemory &stream, u32 maxPageCount, u32 frame);

    u32 BirthFrame(u32 pageIndex) const { return m_BirthFrames[pageIndex]; }

private:
    std::vector<u32> m_BirthFrames; // one per page
    std::vector<CGuid> m_Reindexer; // a member to reuse its memory
};
} // namespace Wind
