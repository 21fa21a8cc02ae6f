// Collection of emptied pages.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_mem_utils.h>

namespace Tessaly
{

namespace
{

// Writes an entry of a reindexer that may be absent, or shorter than the page list.
void WriteEntry(const TMemoryView<CGuid> *reindexer, u32 index, CGuid value)
{
    if (reindexer != null && index < reindexer->Count() && reindexer->Data() != null)
        reindexer->Data()[index] = value;
}

} // namespace

void CParticleStream_MainMemory::GarbageCollectOldPages(TMemoryView<CGuid> *pageReindexer)
{
    TZ_ASSERT(pageReindexer == null || pageReindexer->Count() == m_Pages.Count());
    if (pageReindexer != null && pageReindexer->Data() != null)
        Mem::FillIndices32(pageReindexer->Data(), pageReindexer->Count(), 0);
    _DEBUG_CheckParticleCountConsistency();
    LockPages();
    // Only the last page ever moves, into the hole: pages behind i stand where they always stood, and the former index
    // of the page at i is i, or the last index of the moment when it moved there.
    u32 formerIndex = 0;
    for (u32 i = 0; i < m_Pages.Count();)
    {
        if (m_Pages.RawDataPointer()[i]->Empty())
        {
            const u32 last = m_Pages.Count() - 1;
            _LeavePageIndex_NoLock(*m_Pages.RawDataPointer()[i]);
            m_Pages.Remove(i);
            WriteEntry(pageReindexer, last, CGuid(i));
            WriteEntry(pageReindexer, formerIndex, CGuid(last));
            formerIndex = last;
        }
        else
            formerIndex = ++i;
    }
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
    if (pageReindexer == null || pageReindexer->Data() == null)
        return;
    const u32 newCount = m_Pages.Count();
    for (CGuid &entry : *pageReindexer)
    {
        if (entry >= newCount)
            entry = CGuid::INVALID;
    }
}

} // namespace Tessaly
