#include "page_diary.h"

#include <algorithm>

namespace Wind
{
namespace
{
using PageList = std::vector<PParticlePage>;

// References to all pages: while they are held, no page that goes can be mistaken for one that comes.
PageList HoldPages(const CParticleStream_MainMemory &stream)
{
    PageList pages;
    for (u32 i = 0; i < stream.PageCount(); ++i)
        pages.push_back(stream.Page(CGuid(i)));
    return pages;
}
} // namespace

void CPageDiary::NoteNewPages(const CParticleStream_MainMemory &stream, u32 frame)
{
    m_BirthFrames.resize(stream.PageCount(), frame);
}

u32 CPageDiary::CollectPages(CParticleStream_MainMemory &stream)
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

u32 CPageDiary::ResizePages(CParticleStream_MainMemory &stream, u32 maxPageCount, u32 frame)
{
    const PageList oldPages = HoldPages(stream);
    stream.ResizePending(maxPageCount);

    // The pages that stay keep their order, and new ones follow.
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
