// Pages and views: slots, columns, readers, removal.

#include <algorithm>

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

class Page : public CStreamTest
{
protected:
    CTestStream m_Stream{11, m_Definition};
};

using PageView = Page;

TEST_F(Page, SlotsAreGivenFromTheEndOrRefused)
{
    CParticlePage &page = m_Stream.AppendPage(11, 0);
    EXPECT_TRUE(page.Empty());
    EXPECT_TRUE(CParticlePageView(page).Empty());
    EXPECT_EQ(page.AllocateParticles(0), 0u);
    EXPECT_EQ(page.AllocateParticles(4), 0u);
    EXPECT_EQ(page.AllocateParticles(1), 4u);
    for (const u32 tooMany : {7u, 0xFFFFFFFFu, 0xFFFFFFFBu})
        EXPECT_EQ(page.AllocateParticles(tooMany), CGuid::INVALID);
    EXPECT_EQ(page.AllocateParticles(6), 5u);
    EXPECT_TRUE(page.Full());
    EXPECT_EQ(page.AllocateParticles(0), 11u);
    for (const SParticleStreamField &field : page.Streams())
        EXPECT_EQ(field.m_ParticleCount, 11u);
    page.Clear();
    EXPECT_EQ(page.Streams()[2].m_ParticleCount, 0u);
    EXPECT_EQ(page.FreeCount(), 11u);
}

TEST_F(Page, FieldsAreCheckedByIndex)
{
    const CParticlePage &page = m_Stream.AppendPage(11, 1);
    EXPECT_EQ(page.StreamId(CStringId(Tag)), 3u);
    EXPECT_EQ(page.StreamId(CStringId()), CGuid::INVALID);
    EXPECT_EQ(page.Stream(CGuid(3)).m_Definition.m_StorageSize, 3u);
    EXPECT_EQ(page.RawStream(CGuid::INVALID).m_RawDataPtr, nullptr);
    m_Reports.Expect({"streamId.Valid()", "pos < BaseImpl::_Count()"});
    EXPECT_EQ(page.RawStream(CGuid(4)).m_RawDataPtr, nullptr);
    m_Reports.Expect({"pos < BaseImpl::_Count()"});
}

TEST_F(Page, ReadersKeepWritersOut)
{
    CParticlePage &page = m_Stream.AppendPage(11, 3);
    FillParticles(m_Stream, 0);
    {
        const CScopedRawPageReader reader(page.RawPage()), another(*page.RawPage());
        EXPECT_EQ(page.RawPage()->ReadersCount(), 2u);
        EXPECT_EQ(reader.Data(), page.Streams()[0].m_RawDataPtr);
        EXPECT_FALSE(page.ReadyToWrite());
        EXPECT_FALSE(page.PrepareForWriting());
        page.StreamsForWriting();
        m_Reports.Expect({"ReadyToWrite()"});
        page.RawPage()->RawDataForWriting();
        m_Reports.Expect({"ReadersCount() == 0"});
        const CParticlePageView view(page);
        EXPECT_TRUE(view.ColumnForWriting<float>(CGuid(1)).Empty());
        EXPECT_EQ(view.RawStreamBeginForWriting(CGuid(1)), nullptr);
        EXPECT_EQ(m_Reports.Take().size(), 2u);
        const u32 first[] = {0};
        EXPECT_EQ(m_Stream.RemoveParticles(CGuid(0), TMemoryView<const u32>(first, 1)), 0u);
        EXPECT_EQ(m_Reports.Take().size(), 1u);
    }
    EXPECT_TRUE(page.ReadyToWrite());
    EXPECT_TRUE(HoldsRun(page, 0, 3));
}

TEST_F(Page, RemovalFillsEveryChoiceOfHolesFromTheEnd)
{
    constexpr u32 kCount = 7;
    for (u32 choice = 0; choice < (1u << kCount); ++choice)
    {
        m_Stream.Clear();
        CParticlePage &page = m_Stream.AppendPage(11, kCount);
        FillParticles(m_Stream, 100);
        std::vector<u32> removed, survivors;
        for (u32 i = 0; i < kCount; ++i)
            ((choice >> i & 1) != 0 ? removed : survivors).push_back(i);
        const TMemoryView<const u32> list(removed.data(), u32(removed.size()));
        ASSERT_EQ(m_Stream.RemoveParticles(CGuid(0), list), removed.size());
        ASSERT_EQ(m_Stream.ParticleCount(), survivors.size());
        // Who stood before the new end stays; the holes there get those who stood behind it.
        const u32 newCount = u32(survivors.size());
        std::vector<u32> expected;
        auto mover = std::find_if(survivors.begin(), survivors.end(), [newCount](u32 i) { return i >= newCount; });
        for (u32 i = 0; i < newCount; ++i)
            expected.push_back(100 + ((choice >> i & 1) != 0 ? *mover++ : i));
        ASSERT_EQ(page.ParticleCount(), newCount);
        ASSERT_TRUE(HoldsParticles(page, 0, expected)) << "choice " << choice;
    }
}

TEST_F(Page, BadRemovalListIsReportedAndRemovesNothing)
{
    CParticlePage &page = m_Stream.AppendPage(11, 5);
    FillParticles(m_Stream, 0);
    const std::vector<std::vector<u32>> lists = {{2, 1}, {1, 1}, {5}, {0, 1, 2, 3, 4, 5}, {0, 0xFFFFFFFFu}};
    for (const std::vector<u32> &list : lists)
    {
        EXPECT_EQ(m_Stream.RemoveParticles(CGuid(0), TMemoryView<const u32>(list.data(), u32(list.size()))), 0u);
        EXPECT_EQ(m_Reports.Take().size(), 1u);
    }
    EXPECT_EQ(m_Stream.RemoveParticles(CGuid(0), TMemoryView<const u32>()), 0u);
    EXPECT_EQ(m_Reports.Count(), 0u);
    EXPECT_EQ(m_Stream.RemoveParticles(CGuid(1), TMemoryView<const u32>(lists[0].data(), 1)), 0u);
    EXPECT_EQ(m_Stream.RemoveParticles(CGuid::INVALID, TMemoryView<const u32>(lists[0].data(), 1)), 0u);
    EXPECT_EQ(m_Reports.Take().size(), 2u);
    EXPECT_TRUE(HoldsRun(page, 0, 5));
}

TEST_F(PageView, StoresWhatItIsGivenAndReportsARunPastTheEnd)
{
    CParticlePage &page = m_Stream.AppendPage(11, 10);
    const CParticlePage &constPage = page;
    CParticlePageView view(constPage);
    EXPECT_TRUE(view.IsFullPageView());
    EXPECT_EQ(page.StrongRefCount(), 2u);
    const CParticlePageView tail(constPage, 4, 6);
    EXPECT_FALSE(tail.IsFullPageView());
    EXPECT_EQ(tail.OriginalPage().Get(), &constPage);
    EXPECT_EQ(m_Reports.Count(), 0u);
    const CParticlePageView tooLong(constPage, 5, 100);
    m_Reports.Expect({"first + count <= page.ParticleCount()"});
    EXPECT_EQ(tooLong.FirstParticle(), 5u);
    EXPECT_EQ(tooLong.ParticleCount(), 100u);
    EXPECT_TRUE(tooLong.Column<float>(CGuid(1)).Empty()) << "no column reaches past the page's capacity";
    EXPECT_EQ(m_Reports.Take().size(), 1u);
    view.Clear();
    EXPECT_TRUE(view.Empty());
    EXPECT_EQ(page.StrongRefCount(), 3u);
}

TEST_F(PageView, ColumnsStartAtItsFirstParticle)
{
    CParticlePage &page = m_Stream.AppendPage(11, 9);
    FillParticles(m_Stream, 0);
    const CParticlePageView view(page, 2, 3);
    const TStridedMemoryView<CFloat3> positions = view.ColumnForWriting<CFloat3>(view.StreamId(CStringId(Position)));
    ASSERT_EQ(positions.Count(), 3u);
    EXPECT_EQ(positions.Stride(), 12u);
    positions[1] = CFloat3(1.0f, 2.0f, 3.0f);
    EXPECT_EQ(view.Column<float>(CGuid(0))[1], 1.0f) << "a smaller type reads the front of the value";
    EXPECT_EQ(view.DenseColumn<CFloat3>(CGuid(0))[1], CFloat3(1.0f, 2.0f, 3.0f));
    EXPECT_EQ(view.RawStreamBegin(CGuid(3)), page.Streams()[3].m_RawDataPtr + 6);
    EXPECT_TRUE(HoldsParticles(page, 0, Numbers(0, 3)) && HoldsParticles(page, 4, Numbers(4, 5)));

    const TStridedMemoryView<const CFloat4> colours = view.Column<CFloat4>(CGuid(2));
    ASSERT_EQ(colours.Count(), 3u);
    EXPECT_EQ(colours.Stride(), 0u);
    EXPECT_EQ(colours[2], CFloat4(0.25f, 0.5f, 0.75f, 1.0f));
    EXPECT_EQ(view.Column<S64Bytes>(CGuid(2)).Count(), 3u);
    EXPECT_EQ(view.StreamsForWriting().Count(), 4u);
    EXPECT_EQ(m_Reports.Count(), 0u);
}

TEST_F(PageView, UnfitColumnIsReportedAndEmpty)
{
    const CParticlePageView view(m_Stream.AppendPage(11, 9));
    struct STooLarge
    {
        u32 m_Words[17];
    };
    EXPECT_TRUE(view.Column<CFloat4>(CGuid(0)).Empty());
    EXPECT_TRUE(view.Column<STooLarge>(CGuid(2)).Empty());
    EXPECT_TRUE(view.ColumnForWriting<CFloat4>(CGuid(2)).Empty());
    EXPECT_TRUE(view.DenseColumnForWriting<CFloat4>(CGuid(2)).Empty());
    EXPECT_TRUE(view.DenseColumn<CFloat4>(CGuid(2)).Empty());
    EXPECT_TRUE(view.DenseColumn<float>(CGuid(0)).Empty());
    EXPECT_EQ(view.RawStreamBeginForWriting(CGuid(2)), nullptr);
    EXPECT_EQ(m_Reports.Take().size(), 7u);
    const CParticlePageView none;
    EXPECT_EQ(none.GetStreamDef(), nullptr);
    EXPECT_EQ(none.Streams().Count(), 0u);
    EXPECT_EQ(none.StreamId(CStringId(Life)), CGuid::INVALID);
    EXPECT_EQ(m_Reports.Count(), 0u);
    EXPECT_TRUE(none.Column<float>(CGuid(0)).Empty());
    EXPECT_EQ(none.RawStreamBegin(CGuid(0)), nullptr);
    EXPECT_FALSE(m_Reports.Take().empty());
}

TEST_F(PageView, OutlivesItsStream)
{
    CParticlePageView view;
    {
        CTestStream stream(5, m_Definition);
        view = stream.AllocateParticlesIFP(3, 0);
        FillParticles(view, 40);
    }
    EXPECT_TRUE(HoldsRun(*view.OriginalPage(), 40, 3));
    EXPECT_EQ(view.GetStreamDef(), &m_Definition.Def());
    EXPECT_EQ(view.StreamId(CStringId(Tag)), 3u);
}

} // namespace
} // namespace Tests
} // namespace Tessaly
