// Pages, views and definitions: slots, columns, readers, removal.

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
using Definition = Page;

TEST_F(Page, FieldsAreCheckedByIndexAndSlotsByRoom)
{
    CParticlePage &page = m_Stream.AppendPage(11, 4);
    for (const u32 tooMany : {8u, 0xFFFFFFFFu, 0xFFFFFFFCu})
        EXPECT_EQ(page.AllocateParticles(tooMany), CGuid::INVALID);
    EXPECT_EQ(page.StreamId(CStringId()), CGuid::INVALID);
    EXPECT_EQ(page.Stream(CGuid(3)).m_Definition.m_StorageSize, 3u);
    EXPECT_EQ(page.RawStream(CGuid::INVALID).m_RawDataPtr, nullptr);
    m_Reports.Expect({"streamId.Valid()", "pos < BaseImpl::_Count()"});
}

TEST_F(Page, ReadersKeepWritersOut)
{
    CParticlePage &page = m_Stream.AppendPage(11, 3);
    FillParticles(m_Stream, 0);
    {
        const CScopedRawPageReader reader(page.RawPage()), another(*page.RawPage());
        EXPECT_EQ(page.RawPage()->ReadersCount(), 2u);
        EXPECT_EQ(reader.Data(), page.Streams()[0].m_RawDataPtr);
        EXPECT_FALSE(page.PrepareForWriting());
        page.StreamsForWriting();
        m_Reports.Expect({"ReadyToWrite()"});
        page.RawPage()->RawDataForWriting();
        m_Reports.Expect({"ReadersCount() == 0"});
        const CParticlePageView view(page);
        EXPECT_TRUE(view.ColumnForWriting<float>(CGuid(1)).Empty());
        EXPECT_EQ(view.RawStreamBeginForWriting(CGuid(1)), nullptr);
        const u32 first[] = {0};
        EXPECT_EQ(m_Stream.RemoveParticles(CGuid(0), TMemoryView<const u32>(first, 1)), 0u);
        EXPECT_EQ(m_Reports.Take().size(), 3u);
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
    for (const std::vector<u32> &list : std::vector<std::vector<u32>>{{2, 1}, {1, 1}, {5}, {0, 1, 2, 3, 4, 5}})
    {
        const TMemoryView<const u32> view(list.data(), u32(list.size()));
        EXPECT_EQ(m_Stream.RemoveParticles(CGuid(0), view) + m_Stream.RemoveParticles(CGuid(1), view), 0u);
        EXPECT_EQ(m_Reports.Take().size(), 2u);
    }
    EXPECT_TRUE(HoldsRun(page, 0, 5));
}

TEST_F(PageView, ReportsARunPastTheEndAndReadsNothingThere)
{
    const CParticlePage &page = m_Stream.AppendPage(11, 10);
    EXPECT_TRUE(CParticlePageView(page).IsFullPageView());
    EXPECT_FALSE(CParticlePageView(page, 4, 6).IsFullPageView());
    EXPECT_EQ(m_Reports.Count(), 0u);
    const CParticlePageView tooLong(page, 5, 100);
    m_Reports.Expect({"first + count <= page.ParticleCount()"});
    EXPECT_EQ(tooLong.ParticleCount(), 100u);
    EXPECT_TRUE(tooLong.Column<float>(CGuid(1)).Empty()) << "no column reaches past the page's capacity";
    EXPECT_EQ(m_Reports.Take().size(), 1u);
}

TEST_F(PageView, ColumnsStartAtItsFirstParticle)
{
    CParticlePage &page = m_Stream.AppendPage(11, 9);
    FillParticles(m_Stream, 0);
    const CParticlePageView view(page, 2, 3);
    const TStridedMemoryView<CFloat3> positions = view.ColumnForWriting<CFloat3>(view.StreamId(CStringId(Position)));
    ASSERT_EQ(positions.Count(), 3u);
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
    EXPECT_EQ(m_Reports.Count(), 0u);
}

TEST_F(PageView, UnfitColumnIsReportedAndEmpty)
{
    const CParticlePageView view(m_Stream.AppendPage(11, 9)), none;
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
    EXPECT_EQ(none.GetStreamDef(), nullptr);
    EXPECT_EQ(none.Streams().Count(), 0u);
    EXPECT_EQ(none.StreamId(CStringId(Life)), CGuid::INVALID);
    EXPECT_EQ(m_Reports.Count(), 0u);
    EXPECT_TRUE(none.Column<float>(CGuid(0)).Empty());
    EXPECT_EQ(none.RawStreamBegin(CGuid(0)), nullptr);
    EXPECT_FALSE(m_Reports.Take().empty());
}

TEST_F(Definition, ComparesEveryMemberAndFindsTheFirstFieldOfAName)
{
    CDefinition same, otherSize, otherType;
    same.Stored(0, BaseType_Float).Stored(7, BaseType_Float3, 12).Stored(7, BaseType_Float);
    otherSize.Stored(0, BaseType_Float).Stored(7, BaseType_Float3, 16).Stored(7, BaseType_Float);
    otherType.Stored(0, BaseType_Float).Stored(7, BaseType_Int3, 12).Stored(7, BaseType_Float);
    EXPECT_EQ(same.Def().StreamId(CStringId(7)), 1u);
    EXPECT_EQ(same.Def().StreamId(CStringId(0)), CGuid::INVALID);
    SParticleStreamDef copy;
    EXPECT_TRUE(copy.Copy(same.Def()) && copy.Copy(copy));
    for (const CDefinition *other : {&m_Definition, &otherSize, &otherType})
        EXPECT_TRUE(copy != other->Def());
    m_Memory.RefuseFrom(1);
    EXPECT_FALSE(copy.Copy(m_Definition.Def()));
    m_Reports.Expect({"false"});
    EXPECT_TRUE(copy == same.Def());
}

TEST_F(Definition, FieldStorageIsTrashedAndSwapped)
{
    u8 column[15] = {};
    SParticleStreamField field(CStringId(1), BaseType_UByte3, 3), other(SParticleStreamFieldDef{});
    field.TrashFrom(0); // no data
    field.m_RawDataPtr = column;
    field.m_ParticleCount = 4;
    field.TrashFrom(3);
    field.TrashFrom(5);
    EXPECT_EQ(column[8] | column[12], 0);
    EXPECT_EQ(column[9] & column[11], kFreshParticleByte);
    field.Swap(other);
    EXPECT_EQ(other.m_RawDataPtr, column);
    EXPECT_EQ(other.m_Definition.m_StorageSize, 3u);
    EXPECT_EQ(field.m_Definition, SParticleStreamFieldDef());
}

} // namespace
} // namespace Tests
} // namespace Tessaly
