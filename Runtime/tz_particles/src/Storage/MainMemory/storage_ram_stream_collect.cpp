// Collection of emptied pages.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_mem_utils.h>

namespace Tessaly
{

namespace
{

// Writes an entry of a reindexer that may be shorter than the page list.
void WriteEntry(const TMemoryView<CGuid> &reindexer, u32 index, CGuid value)
{
    if (index < reindexer.Count())
        reindexer.Data()[index] = value;
}

} // namespace

void CParticleStream_MainMemory::GarbageCollectOldPages(TMemoryView<CGuid> *pageReindexer)
{
    TZ_ASSERT(pageReindexer == null || pageReindexer->Count() == m_Pages.Count());
    TMemoryView<CGuid> reindexer; // empty when the caller gave none
    if (pageReindexer != null && pageReindexer->Data() != null)
    {
        reindexer = *pageReindexer;
        Mem::FillIndices32(reindexer.Data(), reindexer.Count(), 0);
    }
    _DEBUG_CheckParticleCountConsistency();
    LockPages();
    // Only the last page moves, to index i: pages after i have not moved, and the former index of the page at i is i
    // or the index that was the last one when the page moved to i.
    u32 formerIndex = 0;
    for (u32 i = 0; i < m_Pages.Count();)
    {
        CParticlePage &page = *m_Pages.RawDataPointer()[i];
        if (!page.Empty())
        {
            formerIndex = ++i;
            continue;
        }
        const u32 last = m_Pages.Count() - 1;
        CPageListIndex::DetachEmpty(page, *m_Pages.RawDataPointer()[last]);
        m_Pages.Take(i);
        WriteEntry(reindexer, last, CGuid(i));
        WriteEntry(reindexer, formerIndex, CGuid(last));
        formerIndex = last;
    }
    const u32 newCount = m_Pages.Count();
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
    for (CGuid &entry : reindexer)
    {
        if (entry >= newCount)
            entry = CGuid::INVALID;
    }
}

} // namespace Tessaly
