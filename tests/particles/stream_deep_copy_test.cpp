// Deep copies of streams: what is copied, what is shared, and what is left when memory is refused.
#include <algorithm>
#include <array>
#include <cstring>

#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

using StreamDeepCopy = CStreamTest;

TEST_F(StreamDeepCopy, PagesWithParticlesAreCopiedInTheirOrder)
{
    CTestStream source(8, m_Definition, {5, 0, 7}), copy(0);
    copy.DeepCopy(source);
    EXPECT_EQ(copy.Pages(), "[0-4] [5-11]");
    EXPECT_EQ(copy.ParticleCount(), 12u);
    EXPECT_EQ(source.Pages(), "[0-4] [] [5-11]");
}

TEST_F(StreamDeepCopy, LargeStreamsAreCopiedWhole)
{
    // 18 MiB in columns whose sizes are no multiples of 16 bytes. The second copy goes to memory that was used before.
    constexpr u32 kPageSize = 50001;
    CTestStream source(kPageSize, m_Definition, std::vector<u32>(20, kPageSize)), copy(0);
    u32 number = 0;
    for (u32 i = 0; i < source.PageCount(); ++i)
    {
        const PParticleRawPage_MainMemory &block = source.Page(CGuid(i))->RawPage();
        std::generate_n(block->RawDataForWriting(), block->Size(), [&] { return u8(++number * 2654435761u >> 24); });
    }
    for (u32 round = 0; round < 2; ++round)
    {
        copy.DeepCopy(source);
        ASSERT_EQ(copy.ParticleCount(), source.ParticleCount());
        for (u32 k = 0; k < 3 * source.PageCount(); ++k)
        {
            const CGuid page(k / 3), field(std::array<u32, 3>{0, 1, 3}[k % 3]);
            const SParticleStreamField &from = source.Page(page)->Stream(field), &to = copy.Page(page)->Stream(field);
            ASSERT_EQ(std::memcmp(to.m_RawDataPtr, from.m_RawDataPtr, from.m_Definition.m_StorageSize * kPageSize), 0)
                << "field " << field.Get() << " of page " << page.Get() << " in round " << round;
        }
    }
}

TEST_F(StreamDeepCopy, NeitherStreamSeesWhatHappensToTheOther)
{
    CTestStream source(8, m_Definition, {4}), copy(0);
    copy.DeepCopy(source);
    source.Births(4);
    copy.RemoveParticles(CGuid(0), std::vector<u32>{0});
    CParticlePageView(copy.Page(CGuid(0))).ColumnForWriting<float>(CGuid(1))[0] = 33.0f;
    EXPECT_EQ(source.Pages(), "[0-7]");
    EXPECT_EQ(copy.Pages(), "[33 1-2]");
}

TEST_F(StreamDeepCopy, SettingsAreThoseOfTheSource)
{
    CTestStream source(8, m_Definition), copy(100);
    copy.DeepCopy(source);
    EXPECT_EQ(copy.PageSize(), 8u);
    EXPECT_EQ(copy.GetStreamDef(), source.GetStreamDef()) << "shared: it is borrowed";
    EXPECT_EQ(copy.ConstantData().Data(), source.ConstantData().Data());
    const CParticlePageView born = copy.Births(1);
    EXPECT_EQ(born.Column<CFloat4>(CGuid(2))[0], CFloat4(0.25f, 0.5f, 0.75f, 1.0f));
    EXPECT_EQ(copy.Capacities(), std::vector<u32>{8});
}

TEST_F(StreamDeepCopy, PagesKeepTheirCapacitiesAndPendingResizes)
{
    CTestStream source(8, m_Definition, {3}), copy(0);
    source.SetPageSize(100);
    source.Births(100);
    copy.DeepCopy(source);
    EXPECT_EQ(copy.Capacities(), (std::vector<u32>{8, 100}));
    EXPECT_EQ(copy.Page(CGuid(0))->RawPage()->Size(), source.Page(CGuid(0))->RawPage()->Size());
    EXPECT_TRUE(copy.HasPendingResizes());
    copy.ResizePending(1);
    EXPECT_EQ(copy.Pages(), "[3-102] [0-2]");
}

TEST_F(StreamDeepCopy, WhatTheCopyHeldBeforeIsReleased)
{
    CTestStream source(8, m_Definition, {2}), empty(8, m_Definition), copy(8, m_Definition, {8, 8});
    const PParticlePage held = copy.Page(CGuid(1));
    copy.DeepCopy(source);
    EXPECT_EQ(copy.Pages(), "[0-1]");
    EXPECT_EQ(held->StrongRefCount(), 1u);
    copy.DeepCopy(empty);
    EXPECT_EQ(copy.PageCount() + copy.ParticleCount(), 0u);
    source.DeepCopy(source);
    EXPECT_EQ(source.PageCount() + source.ParticleCount(), 0u) << "a copy of itself ends empty";
}

TEST_F(StreamDeepCopy, WithoutMemoryThePagesBeforeStayAndAreCounted)
{
    CTestStream source(8, m_Definition, {5, 0, 7, 2}), copy(0);
    CParticlePageAllocator &allocator = m_Runtime.Allocator();
    allocator.SetMemoryBudget(allocator.TotalMemoryAllocated() + source.Page(CGuid(0))->RawPage()->Size());
    copy.DeepCopy(source);
    EXPECT_EQ(copy.Pages(), "[0-4]");
    EXPECT_EQ(copy.ParticleCount(), 5u);
    allocator.SetMemoryBudget(0);
    m_Memory.RefuseIf([count = 0](const SMemoryCall &call) mutable
                      { return call.m_Size == sizeof(CParticlePage) && count++ == 0; });
    copy.DeepCopy(source);
    EXPECT_EQ(copy.PageCount(), 0u) << "the first refusal ends the copy";
}
