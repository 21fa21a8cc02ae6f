// Binding a definition to a stream that holds particles: what each field becomes, which pages and particles are lost.
#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

using StreamRebind = CStreamTest;

TEST_F(StreamRebind, FieldsAreMatchedByNameAndNewOnesAreZero)
{
    CTestStream stream(8, m_Definition, {8, 3});
    CParticlePageView(stream.Page(CGuid(1))).ColumnForWriting<CFloat3>(CGuid(0))[2] = CFloat3(1, 2, 3);
    CDefinition next;
    next.Stored(Extra, BaseType_Float4).Stored(Life, BaseType_Float).Stored(Position, BaseType_Float3).BindTo(stream);
    EXPECT_EQ(stream.Pages(), "[0-7] [8-10]");
    EXPECT_EQ(stream.Values<CFloat3>(Position)[10], CFloat3(1, 2, 3));
    EXPECT_EQ(stream.Values<CFloat4>(Extra), std::vector<CFloat4>(11, CFloat4(0, 0, 0, 0)));
    EXPECT_EQ(stream.ParticleCount(), 11u);
    EXPECT_EQ(stream.StreamId(CStringId(Tag)), CGuid::INVALID) << "it has no namesake";
}

TEST_F(StreamRebind, ConstantsAreThoseOfTheNewDefinition)
{
    CTestStream stream(8, m_Definition, {3});
    CDefinition next;
    next.Constant(Life, BaseType_Float, 7.0f).Stored(Colour, BaseType_Float4).BindTo(stream);
    EXPECT_EQ(stream.Values<float>(Life), std::vector<float>(3, 7.0f));
    EXPECT_EQ(stream.Values<CFloat4>(Colour), std::vector<CFloat4>(3, CFloat4(0.25f, 0.5f, 0.75f, 1.0f)));
    CDefinition bad;
    bad.Stored(Life, BaseType_Float).ConstantAt(Colour, BaseType_Float4, CGuid(9)).BindTo(stream);
    m_Reports.Expect({"cstId < m_ConstantData.Count()", "cstId.Valid() && cstId < m_ConstantData.Count()"});
    EXPECT_EQ(stream.Values<CFloat4>(Colour), std::vector<CFloat4>()) << "it has no data";
}

TEST_F(StreamRebind, EmptyPagesGoAndTheOthersKeepTheirCapacity)
{
    CTestStream stream(8, m_Definition, {0, 8, 0, 3});
    stream.AppendPage(20, 1);
    stream.SetPageSize(100);
    CDefinition next;
    next.Stored(Life, BaseType_Float).BindTo(stream);
    EXPECT_EQ(stream.Pages(), "[11] [0-7] [8-10]");
    EXPECT_EQ(stream.Capacities(), (std::vector<u32>{20, 8, 8}));
    EXPECT_TRUE(stream.HasPendingResizes());
}

TEST_F(StreamRebind, ViewsKeepTheFormerPages)
{
    CTestStream stream(8, m_Definition);
    const CParticlePageView born = stream.Births(3);
    CDefinition next;
    next.Stored(Extra, BaseType_Float).BindTo(stream);
    EXPECT_EQ(born.GetStreamDef(), &m_Definition.Def());
    EXPECT_EQ(born.Column<float>(CGuid(1))[2], 2.0f);
}

TEST_F(StreamRebind, SlotTableWithoutDataIsReportedByTheNewPageOnly)
{
    CDefinition constant;
    constant.Stored(Life, BaseType_Float).Constant(Colour, BaseType_Float4, CFloat4());
    CTestStream stream(8, m_Definition, {3});
    stream.BindStreamDef(&constant.Def(), constant.ConstantData(), {null, 2}, SParticleImplementationCache());
    m_Reports.Expect({"m_Storage.m_RawDataPtr != null", // while the page is laid out
                      "m_Storage.m_RawDataPtr != null", "cstId.Valid() && cstId < m_ConstantData.Count()"});
    EXPECT_EQ(stream.Pages(), "[0-2]");
}

TEST_F(StreamRebind, BoundDefinitionAndNullChangeNothing)
{
    CTestStream stream(8, m_Definition, {3});
    stream.BindStreamDef(&m_Definition.Def(), {}, {}, SParticleImplementationCache());
    EXPECT_EQ(stream.ConstantData().Count(), 1u);
    stream.BindStreamDef(null, {}, {}, SParticleImplementationCache());
    m_Reports.Expect({"def != null"});
    EXPECT_EQ(stream.Pages(), "[0-2]");
    EXPECT_EQ(stream.GetStreamDef(), &m_Definition.Def());
}

// Definitions of 300 fields, one of which has the name that is looked for.
TEST_F(StreamRebind, Fields0To254AreCarriedOverIntoFields0To255)
{
    const std::tuple<u32, u32, bool> cases[] = {
        {254, 255, true}, {0, 255, true}, {255, 0, false}, {260, 0, false}, {0, 256, false}};
    for (const auto &[oldIndex, newIndex, isCarriedOver] : cases)
    {
        CDefinition from, to;
        for (u32 i = 0; i < 300; ++i)
        {
            from.Stored(i == oldIndex ? u32(Life) : 1000 + i, BaseType_Float);
            to.Stored(i == newIndex ? u32(Life) : 2000 + i, BaseType_Float);
        }
        CTestStream stream(8, from, {3});
        to.BindTo(stream);
        EXPECT_EQ(stream.Pages(), isCarriedOver ? "[0-2]" : "[0 0 0]") << oldIndex;
    }
}

TEST_F(StreamRebind, PagesThatWouldExceedTheLargestBlockLoseAllParticles)
{
    CTestStream stream(1024, m_Definition, {3});
    CDefinition large;
    large.Stored(Life, BaseType_Float, 4096).BindTo(stream);
    EXPECT_EQ(stream.PageSize(), 256u);
    EXPECT_EQ(stream.PageCount() + stream.ParticleCount(), 0u);
}

TEST_F(StreamRebind, WithoutMemoryThePagesThatCannotBeMadeAreLost)
{
    CTestStream stream(8, m_Definition, {8, 2, 3});
    CParticlePageAllocator &allocator = m_Runtime.Allocator();
    allocator.SetMemoryBudget(allocator.TotalMemoryAllocated());
    CDefinition next;
    next.Stored(Life, BaseType_Float).BindTo(stream);
    EXPECT_EQ(stream.Pages(), "[10-12] [8-9]") << "the first page's block served the others";
    EXPECT_EQ(stream.ParticleCount(), 5u);
}
