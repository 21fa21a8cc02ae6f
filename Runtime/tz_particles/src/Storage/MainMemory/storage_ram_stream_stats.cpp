// Memory usage and statistics of a stream.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

namespace Tessaly
{

SMediumMemoryReport CParticleStream_MainMemory::_ComputeMemoryUsage() const
{
    SMediumMemoryReport report;
    LockPages();
    for (const PParticlePage &p : m_Pages.View())
    {
        if (TZ_VERIFY(p != null))
            report.m_ParticleBytes += u64(p->MemoryFootprint());
    }
    UnlockPages();
    return report;
}

SParticleStreamStats CParticleStream_MainMemory::ComputeStats() const
{
    SParticleStreamStats stats;
    const CScopedPagesLock lock(*this);
    for (const PParticlePage &page : m_Pages.View())
    {
        u64 particleBytes = 0; // of one particle, over all columns
        for (const SParticleStreamField &field : page->Streams())
            particleBytes += field.m_Definition.m_StorageSize;
        const u64 count = page->ParticleCount();
        const u64 capacity = page->Capacity();
        stats.m_PageCount += 1;
        stats.m_PageCount_OutOfSync += capacity != m_PageSize ? 1 : 0;
        stats.m_ParticleCount += count;
        stats.m_SlotCount += capacity;
        stats.m_LiveBytes += particleBytes * count;
        stats.m_FreeBytes += particleBytes * (capacity - count);
        stats.m_PaddingBytes += page->RawPage()->Size() - particleBytes * capacity;
        stats.m_PagesByTenth[TZMin(count * 10 / TZMax(capacity, u64(1)), u64(9))] += 1;
    }
    return stats;
}

} // namespace Tessaly
