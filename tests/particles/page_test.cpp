// Pages, views and definitions: fields, columns, readers.
#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

class Page : public CStreamTest
{
protected:
    CTestStream m_Stream{11, m_Definition};
};

using PageView = Page;
using Definition = Page;

TEST_F(Page, FieldsAreFoundByNameAndIndex)
{
    CParticlePage &page = m_Stream.AppendPage(11, 4);
    EXPECT_EQ(page.StreamId(CStringId()), CGuid::INVALID);
    EXPECT_EQ(page.StreamId(CStringId(Tag)), 3u);
    EXPECT_EQ(page.StreamId(CStringId(Extra)), CGuid::INVALID);
    EXPECT_EQ(page.Stream(CGuid(3)).m_Definition.m_StorageSize, 3u);
    EXPECT_EQ(page.RawStream(CGuid::INVALID).m_RawDataPtr, nullptr);
    m_Reports.Expect({"streamId.Valid()", "pos < BaseImpl::_Count()"});
}

TEST_F(Page, ReadersKeepWritersOut)
{
    CParticlePage &page = m_Stream.AppendPage(11, 3);
    const CParticlePageView view(page);
    const CScopedRawPageReader reader(page.RawPage()), another(*page.RawPage());
    EXPECT_EQ(reader.Data(), page.Streams()[0].m_RawDataPtr);
    EXPECT_FALSE(page.ReadyToWrite() || page.PrepareForWriting());
    EXPECT_TRUE(view.ColumnForWriting<float>(CGuid(1)).Empty());
    EXPECT_EQ(view.RawStreamBeginForWriting(CGuid(1)), nullptr);
    EXPECT_EQ(m_Reports.Take().size(), 2u);
}

TEST_F(Page, CopyOfAnotherLayoutOrCapacityKeepsColumnsApart)
{
    CDefinition wide, narrow;
    wide.Stored(Position, BaseType_Float4).Stored(Life, BaseType_Float4);
    narrow.Stored(Position, BaseType_Float2).Stored(Tag, BaseType_Float);
    for (const u32 capacity : {4u, 8u})
    {
        CTestStream source(12 - capacity, wide), target(capacity, wide), other(capacity, narrow);
        CParticlePage &full = source.AppendPage(12 - capacity, 12 - capacity), &page = target.AppendPage(capacity, 0);
        std::memset(full.Streams()[0].m_RawDataPtr, 0x11, 64);
        std::memset(full.Streams()[1].m_RawDataPtr, 0x22, 64);
        page.DeepCopy(full);
        target.RegisterBornCount(4);
        EXPECT_EQ(page.Streams()[0].m_RawDataPtr[63], 0x11);
        EXPECT_EQ(page.Streams()[1].m_RawDataPtr[0], 0x22);
        full.StreamsForWriting()[0].Clear();
        page.DeepCopy(full);
        EXPECT_EQ(page.Streams()[0].m_RawDataPtr[0], 0x11) << "a column without data has none to give";

        CParticlePage &small = other.AppendPage(capacity, 0);
        small.DeepCopy(page);
        other.RegisterBornCount(4);
        EXPECT_EQ(small.Streams()[0].m_RawDataPtr[31], 0x11);
        EXPECT_EQ(small.Streams()[1].m_RawDataPtr[15], 0x22);
    }
}

TEST_F(PageView, ColumnsStartAtItsFirstParticle)
{
    CParticlePage &page = m_Stream.AppendPage(11, 9);
    const CParticlePageView view(page, 2, 3);
    const TStridedMemoryView<CFloat3> positions = view.ColumnForWriting<CFloat3>(CGuid(0));
    ASSERT_EQ(positions.Count(), 3u);
    positions[1] = CFloat3(1.0f, 2.0f, 3.0f);
    EXPECT_EQ(view.Column<float>(CGuid(0))[1], 1.0f) << "a smaller type reads the first bytes of the value";
    EXPECT_EQ(view.DenseColumn<CFloat3>(CGuid(0))[1], CFloat3(1.0f, 2.0f, 3.0f));
    EXPECT_EQ(&view.RawStreamForWriting(CGuid(3)), &page.Streams()[3]);
    EXPECT_EQ(view.RawStreamBegin(CGuid(3)), page.Streams()[3].m_RawDataPtr + 6);
    EXPECT_EQ(page.Streams()[0].m_RawDataPtr[3 * 12 - 1], kFreshParticleByte);
    EXPECT_EQ(page.Streams()[0].m_RawDataPtr[4 * 12], kFreshParticleByte);
    EXPECT_EQ(view.Column<S64Bytes>(CGuid(2)).Count(), 3u);
    EXPECT_EQ(view.Column<CFloat4>(CGuid(2)).Stride(), 0u) << "a constant has one value for all";
    page.StreamsForWriting()[0].Clear(); // no data
    EXPECT_TRUE(view.Column<CFloat3>(CGuid(0)).Empty() && view.ColumnForWriting<CFloat3>(CGuid(0)).Empty());
}

TEST_F(PageView, ClearedFieldIsLeftOutOfRemovalsAndCopies)
{
    CTestStream stream(8, m_Definition, {8});
    stream.Page(CGuid(0))->StreamsForWriting()[0].Clear();
    EXPECT_EQ(stream.RemoveParticles(CGuid(0), std::vector<u32>{1, 2}), 2u);
    stream.SetPageSize(10);
    stream.ResizePending(1);
    EXPECT_EQ(stream.ParticleCount(), 6u);
    EXPECT_EQ(stream.Page(CGuid(0))->Streams()[0].m_RawDataPtr[0], kFreshParticleByte);
}

TEST_F(PageView, UnfitColumnIsReportedAndEmpty)
{
    const CParticlePage &page = m_Stream.AppendPage(11, 9);
    const CParticlePageView view(page), beyond(page, 8, 9), none;
    struct STooLarge
    {
        u32 m_Words[17];
    };
    EXPECT_TRUE(view.Column<CFloat4>(CGuid(0)).Empty() && view.Column<STooLarge>(CGuid(2)).Empty());
    EXPECT_TRUE(view.ColumnForWriting<CFloat4>(CGuid(2)).Empty()) << "a constant is never written";
    EXPECT_TRUE(view.DenseColumnForWriting<CFloat4>(CGuid(2)).Empty() && view.DenseColumn<CFloat4>(CGuid(2)).Empty());
    EXPECT_EQ(view.RawStreamBeginForWriting(CGuid(2)), nullptr);
    EXPECT_TRUE(view.DenseColumn<float>(CGuid(0)).Empty()) << "not dense";
    EXPECT_TRUE(view.Column<u64>(CGuid(0)).Empty()) << "misaligned: 12 bytes apart";
    EXPECT_TRUE(beyond.ColumnForWriting<float>(CGuid(1)).Empty());
    EXPECT_EQ(m_Reports.Take().size(), 10u);
    EXPECT_TRUE(CParticlePageView(m_Stream.Page(CGuid(9))).OriginalPage() == null);
    m_Reports.Expect({"pos < BaseImpl::_Count()"});
    EXPECT_TRUE(none.GetStreamDef() == null && none.Streams().Empty() && !none.StreamId(CStringId(Life)).Valid());
    EXPECT_EQ(m_Reports.Count(), 0u);
    EXPECT_TRUE(none.RawStreamForWriting(CGuid(0)).m_RawDataPtr == null && none.RawStreamBegin(CGuid(0)) == null);
    EXPECT_TRUE(none.Column<float>(CGuid(0)).Empty());
    EXPECT_EQ(m_Reports.Take().at(0).m_Text, "m_Page != null");
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
    EXPECT_TRUE(copy.Copy(otherSize.Def()) && copy == otherSize.Def()) << "what fits asks for no memory";
}

TEST_F(Definition, GrowsByNameAndTypeOrStaysAsItIs)
{
    SParticleStreamDef def;
    EXPECT_EQ(def.Add("position", BaseType_Float3), 0u);
    EXPECT_EQ(def.Add("spin", BaseType_Quaternion), 1u);
    EXPECT_TRUE(m_Stream.BindStreamDef(&def) && m_Stream.GetStreamDef() == &def);
    EXPECT_EQ(m_Stream.ConstantDataFieldSlot().Count(), 2u);
    EXPECT_FALSE(m_Stream.ConstantDataFieldSlot()[1].Valid());
    EXPECT_EQ(m_Stream.AllocateParticlesIFP(3, 0).ColumnForWriting<CFloat3>(CGuid(0)).Stride(), 12u);
    EXPECT_EQ(def.AddConstant("glow", BaseType_Float4), 2u);
    EXPECT_EQ(def.m_StreamDef[2], SParticleStreamFieldDef(CStringId("glow"), BaseType_Float4, 0));
    EXPECT_FALSE(CTestStream(11).BindStreamDef(&def)) << "it has a constant field";
    EXPECT_FALSE(def.Add(CStringId(), BaseType_Float).Valid() || def.AddConstant("dull", BaseType_Void).Valid());
    EXPECT_FALSE(def.Add(CStringId(9), __MaxBaseTypes).Valid() || def.Add(CStringId(9), BaseType_Evolved).Valid());
    EXPECT_FALSE(def.Add("spin", BaseType_Float).Valid());
    EXPECT_EQ(m_Reports.Take().size(), 6u);
    while (def.m_StreamDef.Count() < def.m_StreamDef.Capacity())
        def.Add(100 + def.m_StreamDef.Count(), BaseType_U8);
    m_Memory.RefuseFrom(1);
    EXPECT_FALSE(def.Add("late", BaseType_Float).Valid());
    m_Reports.Expect({"false"});
    EXPECT_EQ(def.m_StreamDef.Count(), 9u);
    m_Stream.Cleanup(); // def is destroyed first
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
    EXPECT_TRUE(other.m_RawDataPtr == column && other.m_Definition.m_StorageSize == 3);
    EXPECT_EQ(field.m_Definition, SParticleStreamFieldDef());
}
