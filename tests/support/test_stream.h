// A stream whose protected operations are open, and what tests ask of its page list.
#pragma once

#include <vector>

#include "definition.h"

namespace Tessaly
{
namespace Tests
{

class CTestStream : public CParticleStream_MainMemory
{
    using Base = CParticleStream_MainMemory;

public:
    explicit CTestStream(u32 pageSize)
        : Base(pageSize)
    {
    }
    CTestStream(u32 pageSize, const CDefinition &definition)
        : Base(pageSize)
    {
        definition.BindTo(*this);
    }

    using Base::_ComputePageSizeInBytes;
    using Base::_DEBUG_CheckParticleCountConsistency;
    using Base::_RecomputeParticleCount;
    using Base::AllocNewPage_NoLock;

    // Appends a page of the given capacity with count particles (their values fresh), counted. Capacities other than
    // PageSize() are out of sync; ComputePendingResizes_NoLock counts them.
    CParticlePage &AppendPage(u32 capacity, u32 count)
    {
        const CScopedPagesLock lock(*this);
        const PParticlePage page =
            AllocNewPage_NoLock(capacity, _ComputePageSizeInBytes(capacity, GetStreamDef()), true);
        page->AllocateParticles(count);
        RegisterBornCount_NoConsistencyCheck(count);
        return *page;
    }

    // In list order.
    std::vector<const CParticlePage *> Pages() const
    {
        std::vector<const CParticlePage *> pages;
        for (u32 i = 0; i < PageCount(); ++i)
            pages.push_back(_UnsafePage(CGuid(i)).Get());
        return pages;
    }
    std::vector<u32> ParticleCounts() const { return _OfPages(&CParticlePage::ParticleCount); }
    std::vector<u32> Capacities() const { return _OfPages(&CParticlePage::Capacity); }

private:
    std::vector<u32> _OfPages(u32 (CParticlePage::*member)() const) const
    {
        std::vector<u32> values;
        for (const CParticlePage *page : Pages())
            values.push_back((page->*member)());
        return values;
    }
};

} // namespace Tests
} // namespace Tessaly
