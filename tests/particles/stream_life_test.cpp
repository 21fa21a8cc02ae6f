// The stream's life: construction, emptying, exchange, destruction; and what it answers while unbound.

#include <support/profiler_recorder.h>
#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

class StreamLife : public CStreamTest
{
protected:
    // Where a stream's pages die and its list is freed: depth of unlocks, and whether the lock was held.
    struct SDeath
    {
        bool m_IsList;
        bool m_IsLocked;
        u64 m_Unlocks;
    };
    void WatchDeaths(const CTestStream &stream)
    {
        const u64 unlocksBefore = CThreadStats::CSUnlockCount();
        m_Memory.AtEachCall(
            [this, &stream, unlocksBefore](const SMemoryCall &call)
            {
                const bool isPage = call.m_Kind == SMemoryCall::Free && stream.Pages().empty() &&
                                    call.m_Function.find("_DeleteObject") != std::string::npos;
                const bool isList = call.m_Kind == SMemoryCall::Free &&
                                    call.m_Function.find("TRefPtr<Tessaly::CParticlePage>") != std::string::npos;
                if (isPage || isList)
                    m_Deaths.push_back(
                        {isList, stream.LockedByCurrentThread(), CThreadStats::CSUnlockCount() - unlocksBefore});
            });
    }

    std::vector<SDeath> m_Deaths;
};

TEST_F(StreamLife, StartsEmptyAndUnbound)
{
    for (const u32 pageSize : {1u, 1024u, 5000000u})
        EXPECT_EQ(CTestStream(pageSize).PageSize(), pageSize);
    CTestStream stream(0);
    EXPECT_EQ(stream.PageSize(), 1024u);
    EXPECT_EQ(stream.GetStreamDef(), nullptr);
    EXPECT_EQ(stream.PageCount(), 0u);
    EXPECT_TRUE(stream.Empty() && !stream.HasPendingResizes() && !stream.LockedByCurrentThread());
    EXPECT_TRUE(stream.ConstantData().Empty() && stream.ConstantDataFieldSlot().Empty());
    EXPECT_EQ(stream.StreamsCount(), 0u);
    EXPECT_EQ(stream.StreamDef(CGuid(3)), SParticleStreamFieldDef());
    stream.SetPageSize(10);
    stream.Clear();
    stream.Cleanup();
    EXPECT_TRUE(stream.AllocateParticlesIFP(5, 0).Empty());
    EXPECT_TRUE(stream.AllocNewPage_NoLock(false) == null);
    EXPECT_EQ(m_Reports.Count(), 0u);
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_EQ(stream.StreamId(CStringId(Life)), CGuid::INVALID);
        const std::vector<SSeenReport> seen = m_Reports.Take();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].m_Text, "m_StreamDef != null");
        EXPECT_TRUE(seen[0].m_IsVerify);
        EXPECT_NE(seen[0].m_Function.find("CParticleStream_MainMemory::StreamId("), std::string::npos);
    }
}

TEST_F(StreamLife, AnswersFromItsDefinition)
{
    CTestStream stream(10, m_Definition);
    EXPECT_EQ(stream.StreamsCount(), 4u);
    EXPECT_EQ(stream.StreamId(CStringId(Tag)), 3u);
    EXPECT_EQ(stream.StreamDef(CGuid(1)).m_StorageSize, 4u);
    EXPECT_EQ(stream.ConstantData().Count(), 1u);
    EXPECT_EQ(stream.ConstantDataFieldSlot()[2], 0u);
    EXPECT_EQ(stream.StreamDef(CGuid(4)), SParticleStreamFieldDef());
    m_Reports.Expect({"pos < BaseImpl::_Count()"});
    EXPECT_TRUE(stream.Page(CGuid(0)) == null);
    m_Reports.Expect({"pos < BaseImpl::_Count()"});
}

TEST_F(StreamLife, NothingIsMadeWithoutTheRuntime)
{
    CTestStream stream(10, m_Definition);
    Particles::Shutdown();
    EXPECT_TRUE(stream.AllocateParticlesIFP(1, 0).Empty());
    m_Reports.Expect({"m_PageAllocator != null"});
    EXPECT_TRUE(Particles::Startup());
    EXPECT_FALSE(stream.AllocateParticlesIFP(1, 0).Empty());
}

TEST_F(StreamLife, ClearEmptiesPagesForAllAndKeepsTheList)
{
    CTestStream stream(10, m_Definition);
    stream.AppendPage(10, 4);
    stream.AppendPage(20, 3);
    stream.ComputePendingResizes_NoLock();
    CParticlePageView view(*stream.Page(CGuid(1)));
    WatchDeaths(stream);
    stream.Clear();
    EXPECT_TRUE(m_Deaths.empty()) << "the pages die while they are listed";
    EXPECT_EQ(stream.PageCount() + stream.ParticleCount(), 0u);
    EXPECT_FALSE(stream.HasPendingResizes());
    EXPECT_TRUE(view.OriginalPage()->Empty());
    EXPECT_EQ(view.Streams()[0].m_ParticleCount, 0u);
    m_Memory.AtEachCall(CAllocatorHook::FnAtCall());
    EXPECT_EQ(stream.AllocateParticlesIFP(5, 0).ParticleCount(), 5u);
    stream.Cleanup();
}

TEST_F(StreamLife, CleanupLetsPagesGoOutsideTheLock)
{
    CTestStream stream(10, m_Definition);
    stream.AppendPage(10, 4);
    stream.AppendPage(20, 3);
    stream.AppendPage(10, 1);
    stream.ComputePendingResizes_NoLock();
    CParticlePageView view(*stream.Page(CGuid(1)));
    FillParticles(stream, 7);
    WatchDeaths(stream);
    stream.Cleanup();
    // Two pages, after the entry check (two unlocks) and the exchange; then the list, after the
    // exit check.
    ASSERT_EQ(m_Deaths.size(), 3u);
    for (size_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ(m_Deaths[i].m_IsList, i == 2);
        EXPECT_FALSE(m_Deaths[i].m_IsLocked);
        EXPECT_EQ(m_Deaths[i].m_Unlocks, i == 2 ? 4u : 3u);
    }
    EXPECT_EQ(stream.PageCount() + stream.ParticleCount(), 0u);
    EXPECT_FALSE(stream.HasPendingResizes());
    EXPECT_TRUE(HoldsRun(*view.OriginalPage(), 7 + 4, 3));
    EXPECT_EQ(view.OriginalPage()->ParentStream(), &stream);
    m_Memory.AtEachCall(CAllocatorHook::FnAtCall());
    EXPECT_EQ(stream.AllocateParticlesIFP(5, 0).ParticleCount(), 5u);
}

TEST_F(StreamLife, SwapExchangesSixMembersAndTheParents)
{
    CDefinition other;
    other.Stored(Extra, BaseType_Int2).Constant(Tag, BaseType_Float, 3.0f);
    CTestStream a(10, m_Definition), b(25, other);
    a.AppendPage(10, 4);
    a.AppendPage(12, 5);
    a.ComputePendingResizes_NoLock();
    b.AppendPage(25, 1);
    const std::vector<const CParticlePage *> pagesOfA = a.Pages(), pagesOfB = b.Pages();
    const u64 unlocks = CThreadStats::CSUnlockCount();
    a.Swap(b);
    EXPECT_EQ(CThreadStats::CSUnlockCount() - unlocks, 5u) << "the other stream's lock is not taken";
    EXPECT_EQ(b.Pages(), pagesOfA);
    EXPECT_EQ(a.Pages(), pagesOfB);
    EXPECT_EQ(pagesOfA[0]->ParentStream(), &b);
    EXPECT_EQ(pagesOfA[1]->ParentStream(), &b);
    EXPECT_EQ(pagesOfB[0]->ParentStream(), &a);
    EXPECT_EQ(a.ParticleCount(), 1u);
    EXPECT_EQ(b.ParticleCount(), 9u);
    EXPECT_TRUE(b.HasPendingResizes() && !a.HasPendingResizes());
    EXPECT_EQ(a.PageSize(), 25u);
    EXPECT_EQ(b.PageSize(), 10u);
    EXPECT_EQ(b.GetStreamDef(), &m_Definition.Def());
    EXPECT_EQ(a.ConstantData().Data(), m_Definition.ConstantData().Data());
    EXPECT_EQ(b.ConstantDataFieldSlot().Data(), other.Slots().Data());
    EXPECT_FALSE(a.LockedByCurrentThread() || b.LockedByCurrentThread());
}

TEST_F(StreamLife, SwapUnderALockIsReported)
{
    CTestStream a(10, m_Definition), b(10, m_Definition);
    a.AppendPage(10, 4);
    bool isLocked = true;
    m_Reports.AtEachReport([&](const Assert::SReport &) { isLocked = a.LockedByCurrentThread(); });
    b.LockPages();
    a.Swap(b);
    m_Reports.Expect({"other.m_PagesLocked == 0"});
    EXPECT_TRUE(isLocked);
    b.Swap(a);
    m_Reports.Expect({"m_PagesLocked == 0"});
    EXPECT_FALSE(isLocked);
    b.UnlockPages();
    a.Swap(a);
    m_Reports.Expect({"other.m_PagesLocked == 0"});
    EXPECT_EQ(a.ParticleCounts(), std::vector<u32>{4});
}

TEST_F(StreamLife, SwappedDefinitionWithoutItsSlotsIsReportedAndSafe)
{
    CTestStream a(10, m_Definition), b(10);
    a.Swap(b);
    const CParticlePageView view = b.AllocateParticlesIFP(3, 0);
    m_Reports.Expect({"m_ConstantDataFieldSlot.Count() == streamDef.Count()", "m_Storage.m_RawDataPtr != null",
                      "index < m_Storage.m_Count"});
    EXPECT_EQ(view.ParticleCount(), 3u);
    EXPECT_EQ(view.Streams()[2].m_RawDataPtr, nullptr);
    EXPECT_TRUE(view.Column<CFloat4>(CGuid(2)).Empty());
}

} // namespace
} // namespace Tests
} // namespace Tessaly
