#include "page_births.h"

#include <algorithm>

namespace Wind
{
namespace
{
using PageList = std::vector<PParticlePage>;

// References to all pages. While they are held, a new page cannot get the address of a dropped one.
PageList HoldPages(const CParticleStream_MainMemory &stream)
{
    PageList pages;
    for (u32 i = 0; i < stream.PageCount(); ++i)
        pages.push_back(stream.Page(CGuid(i)));
    return pages;
}
} // namespace

void CPageBirths::AddNewPages(const CParticleStream_MainMemory &stream, u32 frame)
{
    m_BirthFrames.resize(stream.PageCount(), frame);
}

u32 CPageBirths::CollectPages(CParticleStream_MainMemory &stream)
{
    const u32 oldPageCount = stream.PageCount();
    m_Reindexer.resize(oldPageCount);
    TMemoryView<CGuid> reindexer(m_Reindexer.data(), oldPageCount);
    stream.GarbageCollectOldPages(&reindexer);

    std::vector<u32> birthFrames(stream.PageCount());
    for (u32 i = 0; i < oldPageCount; ++i)
    {
        if (m_Reindexer[i].Valid())
            birthFrames[m_Reindexer[i]] = m_BirthFrames[i];
    }
    m_BirthFrames.swap(birthFrames);
    return oldPageCount - stream.PageCount();
}

u32 CPageBirths::ResizePages(CParticleStream_MainMemory &stream, u32 maxPageCount, u32 frame)
{
    const PageList oldPages = HoldPages(stream);
    stream.ResizePending(maxPageCount);

    // The remaining pages keep their order; new pages follow them.
    std::vector<u32> birthFrames;
    size_t next = 0, keptCount = 0;
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const auto place = std::find(oldPages.begin() + std::ptrdiff_t(next), oldPages.end(), stream.Page(CGuid(i)));
        const size_t found = size_t(place - oldPages.begin());
        const bool kept = found != oldPages.size();
        birthFrames.push_back(kept ? m_BirthFrames[found] : frame);
        next = kept ? found + 1 : next;
        keptCount += kept ? 1 : 0;
    }
    m_BirthFrames.swap(birthFrames);
    return u32(oldPages.size() - keptCount);
}
} // namespace Wind
