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

    using Base::_ClampPageSizeToAllocatorCapsIFN;
    using Base::_ComputePageSizeInBytes;
    using Base::_DEBUG_CheckParticleCountConsistency;
    using Base::_RecomputeParticleCount;
    using Base::_ResizePending_NoLock;
    using Base::AllocNewPage_NoLock;

    // Appends a page of the given capacity with count particles (their values fresh), counted. Capacities other than
    // PageSize() are out of sync; ComputePendingResizes_NoLock counts them.
    CParticlePage &AppendPage(u32 capacity, u32 count);

    std::vector<u32> ParticleCounts() const; // of the pages, in list order
    std::vector<u32> Capacities() const;     // of the pages, in list order
    std::vector<const CParticlePage *> Pages() const;
};

} // namespace Tests
} // namespace Tessaly
