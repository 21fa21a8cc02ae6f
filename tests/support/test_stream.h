// A stream for tests: its protected operations are open, its particles are numbered, and its pages print themselves.
//
//   CTestStream stream(64, definition, {64, 0, 2}); // three pages of 64 slots
//   stream.Births(3);
//   EXPECT_EQ(stream.Pages(), "[0-63] [66-68] [64-65]");
#pragma once

#include <string>
#include <vector>

#include "definition.h"

namespace Tessaly::Tests
{

class CTestStream : public CParticleStream_MainMemory
{
    using Base = CParticleStream_MainMemory;

public:
    explicit CTestStream(u32 pageSize)
        : Base(pageSize)
    {
    }
    // Bound, with a page of pageSize slots for each of counts, which holds so many particles.
    CTestStream(u32 pageSize, const CDefinition &definition, const std::vector<u32> &counts = {})
        : Base(pageSize)
    {
        definition.BindTo(*this);
        for (const u32 count : counts)
            AppendPage(pageSize, count);
    }

    using Base::_ComputePageSizeInBytes;
    using Base::_DEBUG_CheckParticleCountConsistency;
    using Base::_RecomputeParticleCount;
    using Base::AllocNewPage_NoLock;

    // AllocateParticlesIFP; the new particles are numbered.
    CParticlePageView Births(u32 wishedCount, u32 minCountHint = 0)
    {
        const CParticlePageView view = AllocateParticlesIFP(wishedCount, minCountHint);
        _Number(view);
        return view;
    }
    // Appends a page of any capacity with count numbered particles, which are counted. A capacity other than PageSize()
    // is a pending resize only after ComputePendingResizes_NoLock or SetPageSize.
    CParticlePage &AppendPage(u32 capacity, u32 count)
    {
        const CScopedPagesLock lock(*this);
        const PParticlePage page =
            AllocNewPage_NoLock(capacity, _ComputePageSizeInBytes(capacity, GetStreamDef()), true);
        page->AllocateParticles(count);
        RegisterBornCount_NoConsistencyCheck(count);
        _Number(page);
        return *page;
    }

    // The numbers of the particles, page by page: runs of ascending ones by the first and the last.
    std::string Pages() const
    {
        std::string text;
        for (u32 i = 0; i < PageCount(); ++i)
        {
            const std::vector<float> numbers = ValuesOf<float>(Page(CGuid(i)), Life);
            text += i == 0 ? "[" : " [";
            for (size_t k = 0; k < numbers.size(); ++k)
            {
                const bool isFirst = k == 0 || numbers[k] != numbers[k - 1] + 1.0f;
                const bool isLast = k + 1 == numbers.size() || numbers[k + 1] != numbers[k] + 1.0f;
                if (isFirst || isLast)
                    text += (!isFirst ? "-" : k == 0 ? "" : " ") + std::to_string(u32(numbers[k]));
            }
            text += "]";
        }
        return text;
    }
    // The capacities of the pages.
    std::vector<u32> Capacities() const
    {
        std::vector<u32> capacities;
        for (u32 i = 0; i < PageCount(); ++i)
            capacities.push_back(Page(CGuid(i))->Capacity());
        return capacities;
    }
    // The values of the field of that name, of all particles.
    template <typename _Type>
    std::vector<_Type> Values(u32 name) const
    {
        std::vector<_Type> all;
        for (u32 i = 0; i < PageCount(); ++i)
        {
            const std::vector<_Type> values = ValuesOf<_Type>(Page(CGuid(i)), name);
            all.insert(all.end(), values.begin(), values.end());
        }
        return all;
    }

private:
    template <typename _Type>
    static std::vector<_Type> ValuesOf(const CParticlePageView &view, u32 name)
    {
        const TStridedMemoryView<const _Type> column = view.Column<_Type>(view.StreamId(CStringId(name)));
        return std::vector<_Type>(column.begin(), column.end());
    }
    // A particle's number is its Life, where the definition has one.
    void _Number(const CParticlePageView &view)
    {
        const CGuid life = view.StreamId(CStringId(Life));
        if (!life.Valid() || view.Stream(life).m_Definition.m_StorageSize != sizeof(float))
            return;
        for (float &number : view.DenseColumnForWriting<float>(life))
            number = float(m_NextNumber++);
    }

    u32 m_NextNumber = 0;
};

} // namespace Tessaly::Tests
