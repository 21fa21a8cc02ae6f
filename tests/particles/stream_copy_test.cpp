// Copies of whole streams, and the collection of emptied pages.

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

class DeepCopy : public CStreamTest
{
protected:
    DeepCopy()
    {
        for (const u32 count : {5u, 0u, 7u})
            m_Source.AppendPage(10, count);
        m_Source.AppendPage(13, 13);
        m_Source.AppendPage(11, 0);
        FillParticles(m_Source, 0);
        m_Source.SetPageSize(12); // five pending
    }

    CTestStream m_Source{10, m_Definition};
    CTestStream m_Copy{3};
};

TEST_F(DeepCopy, TakesSettingsAndPagesWithParticles)
{
    CDefinition formerDefinition;
    formerDefinition.Stored(Extra, BaseType_Int4);
    formerDefinition.BindTo(m_Copy);
    m_Copy.AppendPage(3, 2);
    const CParticlePageView formerView(*m_Copy.Page(CGuid(0)));
    m_Copy.DeepCopy(m_Source);
    EXPECT_EQ(m_Copy.ParticleCounts(), (std::vector<u32>{5, 7, 13}));
    EXPECT_EQ(m_Copy.Capacities(), (std::vector<u32>{10, 10, 13}));
    EXPECT_EQ(m_Copy.ParticleCount(), 25u);
    EXPECT_EQ(m_Copy.PageSize(), 12u);
    EXPECT_EQ(m_Copy.GetStreamDef(), &m_Definition.Def());
    EXPECT_EQ(m_Copy.ConstantData().Data(), m_Definition.ConstantData().Data());
    EXPECT_EQ(m_Copy.ConstantDataFieldSlot().Data(), m_Definition.Slots().Data());
    EXPECT_EQ(formerView.ParticleCount(), 2u);
    EXPECT_EQ(formerView.OriginalPage()->StrongRefCount(), 2u);

    FillParticles(m_Source, 1000); // what happens to the source is nothing to the copy
    u32 number = 0;
    for (const CParticlePage *page : m_Copy.Pages())
    {
        EXPECT_TRUE(HoldsRun(*page, number, page->ParticleCount()));
        EXPECT_TRUE(IsFreshFrom(*page, page->ParticleCount()));
        EXPECT_EQ(page->ParentStream(), &m_Copy);
        number += page->ParticleCount();
    }
    EXPECT_TRUE(m_Copy.HasPendingResizes());
    m_Copy.ResizePending(100); // its counter is above its pages, and above its pending pages
    m_Reports.Expect({"m_PageCount_OutOfSync <= m_Pages.Count()", "m_PageCount_OutOfSync <= m_Pages.Count()",
                      "m_PageCount_OutOfSync <= m_Pages.Count()"});
    EXPECT_EQ(m_Copy.ParticleCounts(), (std::vector<u32>{12, 12, 1}));
    EXPECT_FALSE(m_Copy.HasPendingResizes());
}

TEST_F(DeepCopy, RefusalKeepsTheFirstPages)
{
    m_Runtime.RefusePagesAfter(1, m_Source.Page(CGuid(0))->RawPage()->Size());
    m_Copy.DeepCopy(m_Source);
    EXPECT_EQ(m_Copy.ParticleCounts(), std::vector<u32>{5});
    EXPECT_EQ(m_Copy.ParticleCount(), 5u);
    m_Runtime.AllowPages();
    m_Copy.Cleanup();
    m_Memory.RefuseAt(1); // the list
    m_Copy.DeepCopy(m_Source);
    m_Reports.Expect({"false"});
    EXPECT_EQ(m_Copy.PageCount() + m_Copy.ParticleCount(), 0u);
    EXPECT_EQ(m_Copy.PageSize(), 12u);
}

TEST_F(DeepCopy, OfItselfOrAnUnboundStreamIsEmpty)
{
    m_Source.DeepCopy(m_Source);
    EXPECT_EQ(m_Source.PageCount() + m_Source.ParticleCount(), 0u);
    EXPECT_EQ(m_Source.PageSize(), 12u);
    EXPECT_EQ(m_Source.AllocateParticlesIFP(4, 0).ParticleCount(), 4u);
    m_Source.DeepCopy(CTestStream(77));
    m_Reports.Expect({"streamDef != null"});
    EXPECT_EQ(m_Source.GetStreamDef(), nullptr);
    EXPECT_EQ(m_Source.PageSize(), 77u);
}

class Collection : public CStreamTest
{
protected:
    static constexpr u32 kGone = 0xFFFFFFFFu;

    CTestStream m_Stream{10, m_Definition};
};

struct SCollection
{
    std::vector<u32> m_Before, m_After, m_Reindexer;
};

TEST_F(Collection, TellsWhereEveryPageWent)
{
    const SCollection cases[] = {
        {{}, {}, {}},
        {{3}, {3}, {0}},
        {{0}, {}, {kGone}},
        {{0, 5, 0, 0}, {5}, {kGone, 0, kGone, kGone}},
        {{0, 0, 3}, {3}, {kGone, kGone, 0}},
        {{2, 0, 7}, {2, 7}, {0, kGone, 1}},
        {{1, 2, 3}, {1, 2, 3}, {0, 1, 2}},
        {{0, 5, 0, 7, 0, 0, 9}, {9, 5, 7}, {kGone, 1, kGone, 2, kGone, kGone, 0}},
        {{0, 1, 0, 2, 0, 3}, {3, 1, 2}, {kGone, 1, kGone, 2, kGone, 0}},
    };
    for (const SCollection &row : cases)
    {
        for (const bool hasReindexer : {true, false})
        {
            m_Stream.Cleanup();
            for (const u32 count : row.m_Before)
                m_Stream.AppendPage(10, count);
            FillParticles(m_Stream, 0);
            std::vector<CGuid> entries(row.m_Before.size(), CGuid(77));
            TMemoryView<CGuid> reindexer(entries.data(), u32(entries.size()));
            const u32 requestCount = m_Memory.RequestCount();
            m_Stream.GarbageCollectOldPages(hasReindexer ? &reindexer : null);
            EXPECT_EQ(m_Memory.RequestCount(), requestCount) << "without scratch memory";
            EXPECT_EQ(m_Stream.ParticleCounts(), row.m_After);
            EXPECT_TRUE(!hasReindexer || std::vector<u32>(entries.begin(), entries.end()) == row.m_Reindexer);
        }
    }
}

TEST_F(Collection, ReindexerOfAnotherSizeIsReportedAndFilledAsFarAsItGoes)
{
    for (const u32 size : {2u, 0u, 6u})
    {
        m_Stream.Cleanup();
        for (const u32 count : {0u, 3u, 0u, 4u})
            m_Stream.AppendPage(10, count);
        std::vector<CGuid> entries(8, CGuid(77));
        TMemoryView<CGuid> reindexer(entries.data(), size);
        m_Stream.GarbageCollectOldPages(&reindexer);
        m_Reports.Expect({"pageReindexer == null || pageReindexer->Count() == m_Pages.Count()"});
        EXPECT_EQ(m_Stream.ParticleCounts(), (std::vector<u32>{4, 3}));
        const std::vector<u32> all = {kGone, 1, kGone, 0, kGone, kGone};
        for (u32 i = 0; i < 8; ++i)
            EXPECT_EQ(entries[i], i < size ? all[i] : 77u);
    }
}

TEST_F(Collection, LeavesCountersAloneAndMarksTheRemovedLast)
{
    m_Stream.AppendPage(10, 0);
    m_Stream.AppendPage(10, 2);
    m_Stream.SetPageSize(12);
    m_Stream.RegisterBornCount_NoConsistencyCheck(1);
    CGuid entries[2];
    TMemoryView<CGuid> reindexer(entries, 2);
    std::vector<u32> atReports;
    m_Reports.AtEachReport([&](const Assert::SReport &) { atReports.push_back(entries[0]); });
    m_Stream.GarbageCollectOldPages(&reindexer);
    m_Reports.Expect({kCountText, kCountText});
    EXPECT_EQ(atReports, (std::vector<u32>{0, 1}));
    EXPECT_EQ(entries[0], CGuid::INVALID);
    EXPECT_EQ(m_Stream.ParticleCount(), 3u);
    EXPECT_TRUE(m_Stream.HasPendingResizes());
    m_Stream.RegisterDeadCount(1);
}

} // namespace
} // namespace Tests
} // namespace Tessaly
