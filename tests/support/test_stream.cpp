#include "test_stream.h"

namespace Tessaly
{
namespace Tests
{

CParticlePage &CTestStream::AppendPage(u32 capacity, u32 count)
{
    const CScopedPagesLock lock(*this);
    const PParticlePage page = AllocNewPage_NoLock(capacity, _ComputePageSizeInBytes(capacity, GetStreamDef()), true);
    page->AllocateParticles(count);
    RegisterBornCount_NoConsistencyCheck(count);
    return *page;
}

std::vector<u32> CTestStream::ParticleCounts() const
{
    std::vector<u32> counts;
    for (u32 i = 0; i < PageCount(); ++i)
        counts.push_back(_UnsafePage(CGuid(i))->ParticleCount());
    return counts;
}

std::vector<u32> CTestStream::Capacities() const
{
    std::vector<u32> capacities;
    for (u32 i = 0; i < PageCount(); ++i)
        capacities.push_back(_UnsafePage(CGuid(i))->Capacity());
    return capacities;
}

std::vector<const CParticlePage *> CTestStream::Pages() const
{
    std::vector<const CParticlePage *> pages;
    for (u32 i = 0; i < PageCount(); ++i)
        pages.push_back(_UnsafePage(CGuid(i)).Get());
    return pages;
}

} // namespace Tests
} // namespace Tessaly
