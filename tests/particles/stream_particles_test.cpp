// Births, deaths, counts and reports of a stream's particles.

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

class Particles : public CStreamTest
{
protected:
    // Pages with these free rooms, of capacity 1000.
    void AppendRooms(std::initializer_list<u32> rooms)
    {
        for (const u32 room : rooms)
            m_Stream.AppendPage(1000, 1000 - room);
    }

    CTestStream m_Stream{1000, m_Definition};
};

struct SRequest
{
    u32 m_Wished;
    u32 m_Hint;
    u32 m_Page;
    u32 m_First;
    u32 m_Count;
};

TEST_F(Particles, RequestTakesTheFirstPageWithEnoughRoom)
{
    const SRequest requests[] = {
        {600, 0, 2, 0, 600},        // the first that has room for all
        {600, 5, 0, 990, 10},       // the first that has room for the least that is accepted
        {600, 700, 2, 0, 600},      // a hint above the wish is the wish
        {500, 500, 1, 500, 500},    // to the last slot
        {1, 0, 0, 990, 1},          // one
        {0, 0, 0, 990, 0},          // none: the first page
        {2000, 0, 3, 0, 1000},      // more than any page: a new one, whatever room there is
        {2000, 1001, 3, 0, 1000},   //
        {2000, 11, 1, 500, 500},    //
        {0xFFFFFFFF, 1, 0, 990, 10} //
    };
    for (const SRequest &request : requests)
    {
        m_Stream.Clear();
        AppendRooms({10, 500, 1000});
        const u32 before = m_Stream.ParticleCount();
        const CParticlePageView view = m_Stream.AllocateParticlesIFP(request.m_Wished, request.m_Hint);
        EXPECT_EQ(view.OriginalPage().Get(), m_Stream.Page(CGuid(request.m_Page)).Get());
        EXPECT_EQ(view.FirstParticle(), request.m_First);
        EXPECT_EQ(view.ParticleCount(), request.m_Count);
        EXPECT_EQ(m_Stream.ParticleCount(), before + request.m_Count);
        EXPECT_EQ(m_Stream.PageCount(), request.m_Page == 3 ? 4u : 3u);
        EXPECT_EQ(view.Streams()[2].m_ParticleCount, view.OriginalPage()->ParticleCount());
    }
    m_Stream.Clear();
    AppendRooms({10, 500});
    EXPECT_EQ(m_Stream.AllocateParticlesIFP(600, 0).ParticleCount(), 600u);
    EXPECT_EQ(m_Stream.ParticleCounts(), (std::vector<u32>{990, 500, 600}));
}

TEST_F(Particles, RequestOfNoneMakesAPageOnlyWhenThereIsNone)
{
    EXPECT_TRUE(m_Stream.AllocateParticlesIFP(0, 0).Empty());
    EXPECT_EQ(m_Stream.PageCount(), 1u);
    m_Stream.AllocateParticlesIFP(1000, 0);
    EXPECT_EQ(m_Stream.AllocateParticlesIFP(0, 3).FirstParticle(), 1000u) << "a full page will do";
    EXPECT_EQ(m_Stream.ParticleCounts(), std::vector<u32>{1000});
}

TEST_F(Particles, RefusedPageGivesTheEmptyView)
{
    AppendRooms({10});
    m_Runtime.RefusePages();
    CParticlePageView view = m_Stream.AllocateParticlesIFP(11, 0);
    EXPECT_TRUE(view.Empty() && view.OriginalPage() == null);
    EXPECT_EQ(m_Stream.ParticleCounts(), std::vector<u32>{990});
    EXPECT_EQ(m_Stream.AllocateParticlesIFP(11, 1).ParticleCount(), 10u);
    m_Runtime.AllowPages();
    for (u32 n = 1;; ++n)
    {
        m_Memory.RefuseFrom(n);
        view = m_Stream.AllocateParticlesIFP(11, 0);
        m_Memory.RefuseNone();
        m_Stream._DEBUG_CheckParticleCountConsistency();
        if (!view.Empty())
            break;
        EXPECT_EQ(m_Stream.ParticleCount(), 1000u);
        for (const SSeenReport &report : m_Reports.Take())
            EXPECT_NE(report.m_Text, kCountText);
    }
    EXPECT_EQ(m_Stream.ParticleCounts(), (std::vector<u32>{1000, 11}));
}

TEST_F(Particles, RequestAcrossPagesIsServedUntilNothingIsLeft)
{
    AppendRooms({10, 0, 500});
    TArray<CParticlePageView> views;
    EXPECT_EQ(m_Stream.AllocateParticles(2000, views), 2000u);
    std::vector<u32> counts;
    for (const CParticlePageView &view : views.View())
        counts.push_back(view.ParticleCount());
    EXPECT_EQ(counts, (std::vector<u32>{10, 500, 1000, 490}));
    EXPECT_EQ(m_Stream.AllocateParticles(0, views), 0u);
    m_Runtime.RefusePages();
    EXPECT_EQ(m_Stream.AllocateParticles(2000, views), 510u);
    EXPECT_EQ(views.Count(), 5u);
    EXPECT_EQ(m_Stream.ParticleCount(), 5000u);
    m_Runtime.AllowPages();
    TArray<CParticlePageView> refused;
    m_Memory.RefuseFrom(1);
    EXPECT_EQ(m_Stream.AllocateParticles(5, refused), 0u) << "no particle that nobody is told of";
    m_Reports.Take();
    m_Memory.RefuseNone();
    EXPECT_EQ(m_Stream.ParticleCount(), 5000u);
}

TEST_F(Particles, MiscountIsReportedAndNothingRepaired)
{
    m_Stream.RegisterDeadCount(1);
    m_Reports.Expect({kCountText, "s32(m_ParticleCount.Load()) >= 0"});
    EXPECT_EQ(m_Stream.ParticleCount(), 0xFFFFFFFFu);
    m_Stream.RegisterBornCount(1);
    EXPECT_EQ(m_Reports.Count(), 0u);
    m_Stream.AllocateParticlesIFP(3, 0);
    m_Stream.RegisterBornCount(3);
    m_Reports.Expect({kCountText});
    m_Stream.StreamId(CStringId(Life));
    m_Reports.Expect({kCountText});
    m_Stream.Page(CGuid(0))->AllocateParticles(3);
    m_Stream.StreamId(CStringId(Life));
    m_Stream.RegisterBornCount_NoConsistencyCheck(1);
    m_Stream.RegisterDeadCount(1);
    EXPECT_EQ(m_Stream._RecomputeParticleCount(), 6u);
}

TEST_F(Particles, MemoryReportIsTheSumOfThePages)
{
    EXPECT_EQ(m_Stream.ComputeMemoryUsage().Total(), 0u);
    AppendRooms({10, 1000});
    u64 footprint = 0;
    for (const CParticlePage *page : m_Stream.Pages())
    {
        EXPECT_EQ(page->MemoryFootprint(), sizeof(CParticlePage) + 4 * sizeof(SParticleStreamField) +
                                               sizeof(CParticleRawPage_MainMemory) + page->RawPage()->Size());
        footprint += page->MemoryFootprint();
    }
    SMediumMemoryReport report = m_Stream.ComputeMemoryUsage();
    EXPECT_EQ(report.m_ParticleBytes, footprint);
    EXPECT_EQ(report.Total(), footprint);
    m_Stream.Cleanup();
    EXPECT_EQ(m_Stream.ComputeMemoryUsage().m_ParticleBytes, 0u);

    report.m_StaticBytes = 100;
    report.m_StaticBytes_IR = 60;
    report.m_DebugBytes = 8;
    report.m_DebugBytes_IR = 3;
    EXPECT_EQ((report + report).Total(), 2 * (footprint + 108)) << "parts of a counter are not added again";
    EXPECT_EQ((report += report).m_StaticBytes_IR, 120u);
    report.Clear();
    EXPECT_EQ(report.Total() + report.m_StaticBytes_IR, 0u);
}

TEST_F(Particles, StatisticsTellHowPagesAreFilled)
{
    AppendRooms({0, 50, 101, 1000});
    m_Stream.AppendPage(7, 3);
    const SParticleStreamStats stats = m_Stream.ComputeStats();
    EXPECT_EQ(stats.m_PageCount, 5u);
    EXPECT_EQ(stats.m_PageCount_OutOfSync, 1u);
    EXPECT_EQ(stats.m_ParticleCount, 1000u + 950 + 899 + 3);
    EXPECT_EQ(stats.m_SlotCount, 4007u);
    EXPECT_EQ(stats.m_LiveBytes, 19 * stats.m_ParticleCount);
    EXPECT_EQ(stats.m_FreeBytes, 19 * (stats.m_SlotCount - stats.m_ParticleCount));
    u64 blockBytes = 0;
    for (const CParticlePage *page : m_Stream.Pages())
        blockBytes += page->RawPage()->Size();
    EXPECT_EQ(stats.m_LiveBytes + stats.m_FreeBytes + stats.m_PaddingBytes, blockBytes);
    const std::vector<u32> tenths(stats.m_PagesByTenth, stats.m_PagesByTenth + 10);
    EXPECT_EQ(tenths, (std::vector<u32>{1, 0, 0, 0, 1, 0, 0, 0, 1, 2}));
    char line[400];
    const int length = stats.Print(line, sizeof(line));
    EXPECT_EQ(length, int(std::strlen(line)));
    EXPECT_EQ(std::strchr(line, '\n'), nullptr);
    stats.Print(line, 8);
    EXPECT_EQ(std::strlen(line), 7u);
}

} // namespace
} // namespace Tests
} // namespace Tessaly
