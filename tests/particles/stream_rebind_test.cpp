// Binding a definition to a stream, with particles and without; and the conversion of its fields.

#include <limits>

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

class Rebind : public CStreamTest
{
protected:
    // A column of a stream's first page.
    template <typename _Type>
    static TStridedMemoryView<_Type> Column(const CTestStream &stream, u32 field)
    {
        return CParticlePageView(*stream.Page(CGuid(0))).ColumnForWriting<_Type>(field);
    }
    // One field's values on their way from one type to another.
    template <typename _Out, typename _In>
    static std::vector<_Out> Convert(EBaseTypeID typeIn, const std::vector<_In> &values, EBaseTypeID typeOut)
    {
        CDefinition from, to;
        from.Stored(1, typeIn, sizeof(_In));
        to.Stored(2, BaseType_U8).Stored(1, typeOut, sizeof(_Out));
        CTestStream stream(16, from);
        stream.AllocateParticlesIFP(u32(values.size()), 0);
        std::copy(values.begin(), values.end(), Column<_In>(stream, 0).begin());
        to.BindTo(stream);
        EXPECT_TRUE(IsFreshFrom(*stream.Page(CGuid(0)), u32(values.size())));
        std::vector<_Out> converted;
        for (const _Out &value : Column<_Out>(stream, 1))
            converted.push_back(value);
        return converted;
    }
};

using Conversion = Rebind;

TEST_F(Rebind, FieldsKeepTheirValuesByNameAndNewOnesAreZero)
{
    CTestStream stream(10, m_Definition);
    for (const u32 count : {5u, 0u, 7u, 9u})
        stream.AppendPage(10, count);
    FillParticles(stream, 0);
    CDefinition other;
    other.Stored(Life, BaseType_Float).Stored(Extra, BaseType_Int2).Stored(Colour, BaseType_Float3);
    other.Constant(Position, BaseType_Float, 8.0f);
    const CParticlePageView oldView(*stream.Page(CGuid(2)));
    const float life = CParticlePageView(*stream.Page(CGuid(0))).Column<float>(1)[4];
    other.BindTo(stream);
    EXPECT_EQ(stream.ParticleCounts(), (std::vector<u32>{5, 9, 7})) << "the last page fills an emptied one's place";
    EXPECT_EQ(Column<float>(stream, 0)[4], life);
    EXPECT_EQ(Column<CInt2>(stream, 1)[4], CInt2(0, 0));
    EXPECT_EQ(Column<CFloat3>(stream, 2)[4], CFloat3(0.25f, 0.5f, 0.75f)) << "the old constant";
    EXPECT_EQ(CParticlePageView(*stream.Page(CGuid(0))).Column<float>(3)[4], 8.0f);
    EXPECT_TRUE(HoldsRun(*oldView.OriginalPage(), 5, 7)) << "whoever holds an old page can read it";
}

TEST_F(Rebind, ConstantsAreReboundAndReportedPerPage)
{
    const char *kSlotText = "cstId.Valid() && cstId < m_ConstantData.Count()";
    CTestStream stream(10, m_Definition);
    stream.AppendPage(10, 1);
    stream.AppendPage(10, 2);
    CDefinition other;
    other.ConstantAt(Colour, BaseType_Float, CGuid::INVALID).Stored(Life, BaseType_Float);
    other.Constant(Tag, BaseType_Float, 2.0f).ConstantAt(Position, BaseType_Float, CGuid(1));
    other.BindTo(stream);
    const char *kRangeText = "cstId < m_ConstantData.Count()";
    m_Reports.Expect({kRangeText, kSlotText, kSlotText, kRangeText, kSlotText, kSlotText});
    for (const CParticlePage *page : stream.Pages())
    {
        EXPECT_EQ(page->Streams()[0].m_RawDataPtr, nullptr);
        EXPECT_EQ(page->Streams()[2].m_RawDataPtr, reinterpret_cast<const u8 *>(other.ConstantData().Data()));
        EXPECT_EQ(page->Streams()[3].m_RawDataPtr, nullptr);
    }
}

TEST_F(Rebind, PagesThatCanNotBeHadAreDroppedWithTheirParticles)
{
    CDefinition small, large, huge;
    small.Stored(Life, BaseType_U8);
    large.Stored(Life, BaseType_Float, 4096);
    huge.Stored(Life, BaseType_Float, 0x10000);
    CTestStream stream(1024, m_Definition);
    stream.AppendPage(3, 2);
    large.BindTo(stream);
    EXPECT_EQ(stream.PageSize(), 256u) << "lowered for good";
    EXPECT_EQ(stream.PageCount() + stream.ParticleCount(), 0u);
    // A page whose columns would pass 32 bits is dropped like one that memory was refused for.
    CTestStream other(4, small);
    other.AppendPage(0x10000, 3);
    other.AppendPage(4, 2);
    huge.BindTo(other);
    EXPECT_EQ(other.ParticleCounts(), std::vector<u32>{2});
    EXPECT_EQ(other.ParticleCount(), 2u);
}

TEST_F(Conversion, FloatsAreTruncatedAndOutOfRangeIsTheSmallestInteger)
{
    const float kNaN = std::numeric_limits<float>::quiet_NaN(), kInfinity = std::numeric_limits<float>::infinity();
    const std::vector<float> in = {2.7f,   -2.7f,     -0.0f,      3e9f,          -3e9f,         kNaN,
                                   1e-40f, kInfinity, -kInfinity, 2147483520.0f, 2147483648.0f, -2147483648.0f};
    constexpr s32 kMin = std::numeric_limits<s32>::min();
    const std::vector<s32> out = {2, -2, 0, kMin, kMin, kMin, 0, kMin, kMin, 2147483520, kMin, kMin};
    EXPECT_EQ(Convert<s32>(BaseType_Float, in, BaseType_I32), out);
    EXPECT_EQ((Convert<u8, float>(BaseType_Float, {300.7f, -1.5f, 1e10f}, BaseType_U8)), (std::vector<u8>{44, 255, 0}));
    EXPECT_EQ((Convert<s64, double>(BaseType_Double, {-3.9, 5e9, -5e9}, BaseType_I64)),
              (std::vector<s64>{-3, kMin, kMin}));
}

TEST_F(Conversion, EachKindFollowsItsRule)
{
    EXPECT_EQ((Convert<float, u32>(BaseType_U32, {0xFFFFFFFFu, 16777217, 16777219}, BaseType_Float)),
              (std::vector<float>{-1.0f, 16777216.0f, 16777220.0f}));
    EXPECT_EQ((Convert<CFloat4, CInt2>(BaseType_Int2, {{3, -4}}, BaseType_Float4)),
              (std::vector<CFloat4>{{3, -4, 0, 0}}));
    EXPECT_EQ((Convert<CFloat2, CFloat4>(BaseType_Float4, {{1, 2, 3, 4}}, BaseType_Float2)),
              (std::vector<CFloat2>{{1, 2}}));
    EXPECT_EQ((Convert<double, CFloat2>(BaseType_Float2, {{0.0f, 1.875f}}, BaseType_Double)), std::vector<double>{1.0})
        << "equal sizes of one kind keep their bits";
    EXPECT_EQ((Convert<CFloat4, CUByte4>(BaseType_UByte4, {{0, 1, 128, 255}}, BaseType_Float4)),
              (std::vector<CFloat4>{{0, 1, 128, 255}}));
    EXPECT_EQ((Convert<CInt3, CWord2>(BaseType_Word2, {{-7, 8}}, BaseType_Int3)), (std::vector<CInt3>{{-7, 8, 0}}));
    EXPECT_EQ((Convert<float, double>(BaseType_Double, {1.5, 1e300}, BaseType_Float)),
              (std::vector<float>{1.5f, std::numeric_limits<float>::infinity()}));
}

} // namespace
} // namespace Tests
} // namespace Tessaly
