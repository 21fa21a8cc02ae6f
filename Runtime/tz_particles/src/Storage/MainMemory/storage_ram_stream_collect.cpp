// Collection of emptied pages.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_mem_utils.h>

namespace Tessaly
{

namespace
{

// A long list is larger than the caches: pages are asked for from memory so many before their turn.
constexpr u32 kPagesAhead = 8;

// Writes an entry of a reindexer that may be shorter than the page list.
void WriteEntry(const TMemoryView<CGuid> &reindexer, u32 index, CGuid value)
{
    if (index < reindexer.Count())
        reindexer.Data()[index] = value;
}

} // namespace

// The first one found stands last. Returns how many pages stand before them.
u32 CParticleStream_MainMemory::_MoveEmptyPagesBack_NoLock(TMemoryView<CGuid> reindexer)
{
    PParticlePage *pages = m_Pages.RawDataPointer();
    u32 count = m_Pages.Count();
    if (!m_PageIndex.IsValidFor(count))
        m_PageIndex.Invalidate();
    // Only the last page ever moves, into the hole: pages behind i stand where they always stood, and the former index
    // of the page at i is i, or the last index of the moment when it moved there.
    u32 formerIndex = 0;
    for (u32 i = 0; i < count;)
    {
        if (i + kPagesAhead < count)
        {
            __builtin_prefetch(pages[i + kPagesAhead].Get());
            __builtin_prefetch(pages[count - 1 - kPagesAhead].Get());
        }
        CParticlePage &page = *pages[i];
        if (!page.Empty())
        {
            formerIndex = ++i;
            continue;
        }
        --count;
        m_PageIndex.RemoveEmpty(i);
        page.m_ListIndex = null;
        TZSwap(pages[i].m_Ptr, pages[count].m_Ptr);
        pages[i].Get()->m_IndexInList = i;
        WriteEntry(reindexer, count, CGuid(i));
        WriteEntry(reindexer, formerIndex, CGuid(count));
        formerIndex = count;
    }
    return count;
}

// From the last one on, so that they die in the order in which they were found.
void CParticleStream_MainMemory::_DropPagesFrom_NoLock(u32 newCount)
{
    const PParticlePage *pages = m_Pages.RawDataPointer();
    for (u32 count = m_Pages.Count(); count > newCount; --count)
    {
        if (count > newCount + 2 * kPagesAhead)
            __builtin_prefetch(pages[count - 1 - 2 * kPagesAhead].Get());
        if (count > newCount + kPagesAhead)
        {
            const CParticlePage &page = *pages[count - 1 - kPagesAhead].Get();
            __builtin_prefetch(page.m_Streams_Unsafe.RawDataPointer());
            __builtin_prefetch(page.m_RawPage.Get());
        }
        m_Pages.Remove(count - 1);
    }
}

void CParticleStream_MainMemory::GarbageCollectOldPages(TMemoryView<CGuid> *pageReindexer)
{
    TZ_ASSERT(pageReindexer == null || pageReindexer->Count() == m_Pages.Count());
    TMemoryView<CGuid> reindexer; // empty when there is nothing to tell
    if (pageReindexer != null && pageReindexer->Data() != null)
    {
        reindexer = *pageReindexer;
        Mem::FillIndices32(reindexer.Data(), reindexer.Count(), 0);
    }
    _DEBUG_CheckParticleCountConsistency();
    LockPages();
    const u32 newCount = _MoveEmptyPagesBack_NoLock(reindexer);
    _DropPagesFrom_NoLock(newCount);
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
    for (CGuid &entry : reindexer)
        entry = entry | (entry < newCount ? 0u : CGuid::INVALID.Get()); // without a branch: goes by vectors
}

} // namespace Tessaly
