// A stream whose protected operations are open, and what tests ask of its page list.
#pragma once

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
};

} // namespace Tests
} // namespace Tessaly
