// Binding a definition to a stream, with particles and without; and the conversion of its fields.

#include <limits>

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

constexpr const char *kSlotText = "cstId.Valid() && cstId < m_ConstantData.Count()";

class Rebind : public CStreamTest
{
protected:
    // A column of a stream's first page as values.
    template <typename _Type>
    static std::vector<_Type> Values(const CTestStream &stream, u32 field)
    {
        const TStridedMemoryView<const _Type> column = CParticlePageView(*stream.Page(CGuid(0))).Column<_Type>(field);
        std::vector<_Type> values;
        for (u32 i = 0; i < column.Count(); ++i)
            values.push_back(column[i]);
        return values;
    }
    template <typename _Type>
    static void SetValues(const CTestStream &stream, u32 field, const std::vector<_Type> &values)
    {
        const CParticlePageView view(*stream.Page(CGuid(0)));
        const TStridedMemoryView<_Type> column = view.ColumnForWriting<_Type>(field);
        ASSERT_EQ(column.Count(), values.size());
        for (u32 i = 0; i < column.Count(); ++i)
            column[i] = values[i];
    }
    // One field's values on their way from one type to another.
    template <typename _Out, typename _In>
    std::vector<_Out> Convert(EBaseTypeID typeIn, const std::vector<_In> &values, EBaseTypeID typeOut)
    {
        CDefinition from, to;
        from.Stored(1, typeIn, sizeof(_In));
        to.Stored(2, BaseType_U8).Stored(1, typeOut, sizeof(_Out));
        CTestStream stream(16, from);
        stream.AllocateParticlesIFP(u32(values.size()), 0);
        SetValues(stream, 0, values);
        to.BindTo(stream);
        EXPECT_TRUE(IsFreshFrom(*stream.Page(CGuid(0)), u32(values.size())));
        return Values<_Out>(stream, 1);
    }
};

using Conversion = Rebind;

TEST_F(Rebind, OfTheBoundObjectOrOfNoneChangesNothing)
{
    CTestStream stream(10, m_Definition);
    stream.AppendPage(10, 3);
    const S64Bytes block = {};
    stream.BindStreamDef(&m_Definition.Def(), TMemoryView<const S64Bytes>(&block, 1), {}, {});
    EXPECT_EQ(stream.ConstantData().Data(), m_Definition.ConstantData().Data());
    EXPECT_EQ(m_Reports.Count(), 0u);
    stream.BindStreamDef(null, TMemoryView<const S64Bytes>(&block, 1), {}, {});
    m_Reports.Expect({"def != null"});
    EXPECT_EQ(stream.GetStreamDef(), &m_Definition.Def());
    EXPECT_EQ(stream.ConstantData().Data(), m_Definition.ConstantData().Data());
    EXPECT_EQ(stream.ParticleCount(), 3u);
}

TEST_F(Rebind, FieldsKeepTheirValuesByNameAndNewOnesAreZero)
{
    CTestStream stream(10, m_Definition);
    for (const auto &page : std::vector<std::pair<u32, u32>>{{10, 5}, {20, 0}, {30, 7}, {10, 9}})
        stream.AppendPage(page.first, page.second);
    FillParticles(stream, 0);
    stream.ComputePendingResizes_NoLock();
    CDefinition other;
    other.Stored(Tag, BaseType_Byte3).Stored(Extra, BaseType_Int2).Stored(Position, BaseType_Float3);
    other.Constant(Life, BaseType_Float, 8.0f);
    const CParticlePageView oldView(*stream.Page(CGuid(2)));
    other.BindTo(stream);
    EXPECT_EQ(stream.ParticleCounts(), (std::vector<u32>{5, 9, 7})) << "the last page fills an emptied one's place";
    EXPECT_EQ(stream.Capacities(), (std::vector<u32>{10, 10, 30}));
    EXPECT_EQ(stream.ParticleCount(), 21u);
    EXPECT_TRUE(stream.HasPendingResizes());
    const u32 firstNumbers[] = {0, 12, 5};
    for (u32 i = 0; i < 3; ++i)
    {
        const CParticlePage &page = *stream.Page(CGuid(i));
        const u32 count = page.ParticleCount();
        EXPECT_EQ(page.Streams()[3].m_ParticleCount, count);
        EXPECT_TRUE(IsFreshFrom(page, count));
        for (u32 j = 0; j < count; ++j)
        {
            u8 position[12], tag[3];
            MakeValue(firstNumbers[i] + j, CStringId(Position), 12, position);
            MakeValue(firstNumbers[i] + j, CStringId(Tag), 3, tag);
            EXPECT_EQ(std::memcmp(page.Streams()[2].m_RawDataPtr + 12 * j, position, 12), 0);
            EXPECT_EQ(std::memcmp(page.Streams()[0].m_RawDataPtr + 3 * j, tag, 3), 0);
        }
        EXPECT_EQ(CParticlePageView(page).Column<CInt2>(1)[count - 1], CInt2(0, 0));
        EXPECT_EQ(CParticlePageView(page).Column<float>(3)[0], 8.0f);
    }
    EXPECT_TRUE(HoldsRun(*oldView.OriginalPage(), 5, 7)) << "whoever holds an old page can read it";
}

TEST_F(Rebind, EqualContentsInAnotherObjectKeepEveryByte)
{
    CTestStream stream(10, m_Definition);
    stream.AppendPage(10, 10);
    FillParticles(stream, 0);
    CDefinition twin;
    twin.Stored(Position, BaseType_Float3).Stored(Life, BaseType_Float).Constant(Colour, BaseType_Float4, 5.0f);
    twin.Stored(Tag, BaseType_UByte3);
    twin.BindTo(stream);
    EXPECT_TRUE(HoldsRun(*stream.Page(CGuid(0)), 0, 10));
    EXPECT_EQ(Values<float>(stream, 2)[9], 5.0f);
}

TEST_F(Rebind, MapsByRawNameWithinItsBounds)
{
    CDefinition from, to;
    from.Stored(0, BaseType_I32).Stored(7, BaseType_I32).Stored(7, BaseType_Float);
    for (u32 i = 3; i < 254; ++i)
        from.Stored(1000 + i, BaseType_U8);
    from.Stored(254, BaseType_I32).Stored(255, BaseType_I32);
    to.Stored(7, BaseType_I32).Stored(0, BaseType_I32).Stored(7, BaseType_I32).Stored(254, BaseType_I32);
    to.Stored(255, BaseType_I32);
    for (u32 i = 5; i < 255; ++i)
        to.Stored(2000 + i, BaseType_U8);
    to.Stored(7, BaseType_I32).Stored(7, BaseType_I32);
    CTestStream stream(4, from);
    stream.AllocateParticlesIFP(2, 0);
    for (const u32 field : {0u, 1u, 254u, 255u})
        SetValues<s32>(stream, field, {s32(field) + 10, 5});
    to.BindTo(stream);
    const s32 expected[] = {11, 10, 11, 264, 0};
    for (u32 field = 0; field < 5; ++field)
        EXPECT_EQ(Values<s32>(stream, field)[0], expected[field]);
    EXPECT_EQ(Values<s32>(stream, 255)[0], 11);
    EXPECT_EQ(Values<s32>(stream, 256)[0], 0);
}

TEST_F(Rebind, ConstantsAreReboundAndReportedPerPage)
{
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

TEST_F(Rebind, OldConstantIsTheValueOfAllParticles)
{
    CTestStream stream(10, m_Definition);
    stream.AppendPage(10, 3);
    CDefinition other;
    other.Stored(Colour, BaseType_Float3).ConstantAt(Life, BaseType_Float, CGuid::INVALID);
    other.BindTo(stream);
    m_Reports.Expect({kSlotText});
    EXPECT_EQ(Values<CFloat3>(stream, 0), std::vector<CFloat3>(3, CFloat3(0.25f, 0.5f, 0.75f)));
    CDefinition third;
    third.Stored(Life, BaseType_Float);
    third.BindTo(stream);
    EXPECT_EQ(Values<float>(stream, 0), std::vector<float>(3, 0.0f)) << "an old constant without data";
}

TEST_F(Rebind, TooLargePagesDiscardTheParticles)
{
    CTestStream stream(1024, m_Definition);
    stream.AppendPage(3, 2);
    CDefinition large;
    large.Stored(Life, BaseType_Float, 4096);
    const CParticlePageView oldView(*stream.Page(CGuid(0)));
    large.BindTo(stream);
    EXPECT_EQ(oldView.OriginalPage()->ParticleCount(), 2u) << "as they are, for those who hold them";
    EXPECT_EQ(stream.PageSize(), 256u);
    EXPECT_EQ(stream.PageCount() + stream.ParticleCount(), 0u);
    m_Definition.BindTo(stream);
    EXPECT_EQ(stream.PageSize(), 256u) << "lowered for good";
    // A page whose columns would pass 32 bits is dropped like one that memory was refused for.
    CDefinition small, huge;
    small.Stored(Life, BaseType_U8);
    huge.Stored(Life, BaseType_Float, 0x10000);
    CTestStream other(4, small);
    other.AppendPage(0x10000, 3);
    other.AppendPage(4, 2);
    huge.BindTo(other);
    EXPECT_EQ(other.ParticleCounts(), std::vector<u32>{2});
}

TEST_F(Rebind, RefusedPagesAreDroppedAndUncounted)
{
    CDefinition other;
    other.Stored(Position, BaseType_Float3).Stored(Life, BaseType_Float).Stored(Extra, BaseType_Float);
    for (u32 n = 1;; ++n)
    {
        CTestStream stream(10, m_Definition);
        for (const u32 count : {3u, 4u, 5u})
            stream.AppendPage(10, count);
        FillParticles(stream, 0);
        m_Memory.RefuseAt(n);
        other.BindTo(stream);
        const bool isRefused = m_Memory.RefusalCount() != 0;
        m_Memory.RefuseNone();
        for (const SSeenReport &report : m_Reports.Take())
            EXPECT_TRUE(isRefused && report.m_Text != kCountText) << report.m_Text;
        EXPECT_EQ(stream.ParticleCount(), stream._RecomputeParticleCount());
        EXPECT_EQ(stream.PageCount(), isRefused ? 2u : 3u);
        if (!isRefused)
            break;
    }
    CTestStream stream(10, m_Definition);
    std::vector<CParticlePageView> holders; // of the old pages, whose memory is therefore not free
    for (const u32 count : {3u, 4u, 5u})
        holders.emplace_back(stream.AppendPage(10, count));
    m_Runtime.RefusePagesAfter(1, stream.Page(CGuid(0))->RawPage()->Size());
    other.BindTo(stream);
    EXPECT_EQ(stream.ParticleCounts(), std::vector<u32>{3}) << "all but the page that could be had";
    EXPECT_EQ(stream.ParticleCount(), 3u);
    m_Runtime.AllowPages();
}

TEST_F(Conversion, FloatsAreTruncatedAndOutOfRangeIsTheSmallestInteger)
{
    const float kNaN = std::numeric_limits<float>::quiet_NaN(), kInfinity = std::numeric_limits<float>::infinity();
    const std::vector<float> in = {2.7f,   -2.7f,     -0.0f,      3e9f,          -3e9f,         kNaN,
                                   1e-40f, kInfinity, -kInfinity, 2147483520.0f, 2147483648.0f, -2147483648.0f};
    constexpr s32 kMin = std::numeric_limits<s32>::min();
    const std::vector<s32> out = {2, -2, 0, kMin, kMin, kMin, 0, kMin, kMin, 2147483520, kMin, kMin};
    EXPECT_EQ(Convert<s32>(BaseType_Float, in, BaseType_I32), out);
    EXPECT_EQ((Convert<CInt3, CFloat3>(BaseType_Float3, {{1.9f, -1.9f, 0.5f}}, BaseType_Int3)),
              std::vector<CInt3>{CInt3(1, -1, 0)});
}

TEST_F(Conversion, IntegersAreReadAsSignedAndRoundedToEven)
{
    EXPECT_EQ((Convert<float, u32>(BaseType_U32, {0xFFFFFFFFu, 16777217, 16777219, 0x80000000u}, BaseType_Float)),
              (std::vector<float>{-1.0f, 16777216.0f, 16777220.0f, -2147483648.0f}));
    EXPECT_EQ((Convert<CFloat4, CInt2>(BaseType_Int2, {{3, -4}, {5, 6}}, BaseType_Float4)),
              (std::vector<CFloat4>{{3.0f, -4.0f, 0.0f, 0.0f}, {5.0f, 6.0f, 0.0f, 0.0f}}));
}

TEST_F(Conversion, DimensionsAreCutOrFilledWithZero)
{
    EXPECT_EQ((Convert<CFloat4, CFloat3>(BaseType_Float3, {{1, 2, 3}, {4, 5, 6}}, BaseType_Float4)),
              (std::vector<CFloat4>{{1, 2, 3, 0}, {4, 5, 6, 0}}));
    EXPECT_EQ((Convert<CFloat2, CFloat4>(BaseType_Float4, {{1, 2, 3, 4}, {5, 6, 7, 8}}, BaseType_Float2)),
              (std::vector<CFloat2>{{1, 2}, {5, 6}}));
    EXPECT_EQ((Convert<CUInt4, CInt2>(BaseType_Int2, {{-1, 2}}, BaseType_UInt4)),
              (std::vector<CUInt4>{{0xFFFFFFFFu, 2, 0, 0}}));
}

TEST_F(Conversion, EqualSizesOfOneKindKeepTheirBits)
{
    EXPECT_EQ((Convert<double, CFloat2>(BaseType_Float2, {{0.0f, 1.875f}}, BaseType_Double)), std::vector<double>{1.0});
    EXPECT_EQ((Convert<CInt2, s64>(BaseType_I64, {-2}, BaseType_Int2)), (std::vector<CInt2>{{-2, -1}}));
    EXPECT_EQ((Convert<CUByte4, u32>(BaseType_U32, {0x04030201u}, BaseType_UByte4)),
              (std::vector<CUByte4>{{1, 2, 3, 4}}));
}

TEST_F(Conversion, OtherWidthsConvertByComponent)
{
    EXPECT_EQ((Convert<CFloat4, CUByte4>(BaseType_UByte4, {{0, 1, 128, 255}}, BaseType_Float4)),
              (std::vector<CFloat4>{{0, 1, 128, 255}}));
    EXPECT_EQ((Convert<CFloat4, CUByte4>(BaseType_UByte4, {{7, 8, 9, 10}}, BaseType_Float2)),
              (std::vector<CFloat4>{{7, 8, 9, 10}}))
        << "the components of the smaller type, as far as they fit the row";
    EXPECT_EQ((Convert<CByte2, CInt4>(BaseType_Int4, {{-1, 300, 5, 6}}, BaseType_Byte2)),
              (std::vector<CByte2>{{-1, 44}}));
    EXPECT_EQ((Convert<CInt3, CWord2>(BaseType_Word2, {{-7, 8}}, BaseType_Int3)), (std::vector<CInt3>{{-7, 8, 0}}));
    EXPECT_EQ((Convert<u8, float>(BaseType_Float, {300.7f, -1.5f, 1e10f}, BaseType_U8)), (std::vector<u8>{44, 255, 0}));
    EXPECT_EQ((Convert<s64, double>(BaseType_Double, {-3.9, 5e9, -5e9}, BaseType_I64)),
              (std::vector<s64>{-3, std::numeric_limits<s32>::min(), std::numeric_limits<s32>::min()}));
    EXPECT_EQ((Convert<double, u64>(BaseType_U64, {0xFFFFFFFFFFFFFFFFull, 9}, BaseType_Double)),
              (std::vector<double>{18446744073709551616.0, 9.0}));
    EXPECT_EQ((Convert<float, double>(BaseType_Double, {1.5, 1e300}, BaseType_Float)),
              (std::vector<float>{1.5f, std::numeric_limits<float>::infinity()}));
    EXPECT_EQ((Convert<double, s32>(BaseType_I32, {-2147483647}, BaseType_Double)), std::vector<double>{-2147483647.0});
}

TEST_F(Conversion, StorageWiderThanTheTypeKeepsFreshBytes)
{
    CDefinition from, to;
    from.Stored(1, BaseType_Float, 4).Stored(2, BaseType_Float3, 13).Stored(3, BaseType_Float4, 7);
    to.Stored(1, BaseType_Float, 16).Stored(2, BaseType_Int3, 15).Stored(3, BaseType_Int4, 9);
    CTestStream stream(8, from);
    stream.AllocateParticlesIFP(5, 0);
    const float values[3] = {1.5f, -2.5f, 3.5f};
    for (u32 i = 0; i < 5; ++i)
    {
        for (u32 field = 0; field < 3; ++field)
            std::memcpy(stream.Page(CGuid(0))->Streams()[field].m_RawDataPtr +
                            from.Def().m_StreamDef[field].m_StorageSize * i,
                        values, field == 1 ? 12 : 4);
    }
    to.BindTo(stream);
    const TMemoryView<const SParticleStreamField> fields = stream.Page(CGuid(0))->Streams();
    const s32 ints[3] = {1, -2, 3};
    for (u32 i = 0; i < 5; ++i)
    {
        const u8 *wide = fields[0].m_RawDataPtr + 16 * i, *odd = fields[1].m_RawDataPtr + 15 * i;
        EXPECT_EQ(std::memcmp(wide, values, 4), 0);
        EXPECT_EQ(wide[4] & wide[15], 0xF3) << "only a larger type is zeroed first";
        EXPECT_EQ(std::memcmp(odd, ints, 12), 0);
        EXPECT_EQ(odd[12] & odd[14], 0xF3);
        EXPECT_EQ(std::memcmp(fields[2].m_RawDataPtr + 9 * i, ints, 4), 0) << "one whole lane lies in both rows";
        EXPECT_EQ(fields[2].m_RawDataPtr[9 * i + 4], 0xF3);
    }
}

TEST_F(Conversion, EveryPairOfTypesStaysWithinItsRows)
{
    for (const u32 sizeIn : {1u, 5u, 8u, 16u})
    {
        CDefinition from;
        for (int type = BaseType_Evolved; type < __MaxBaseTypes; ++type)
            from.Stored(u32(type) + 2, EBaseTypeID(type), sizeIn);
        for (int typeOut = BaseType_Evolved; typeOut < __MaxBaseTypes; ++typeOut)
        {
            CDefinition to; // each converted field between two that have nothing to do with it
            for (u32 field = 0; field <= u32(__MaxBaseTypes); ++field)
                to.Stored(field + 1, EBaseTypeID(typeOut), 1 + (field + sizeIn) % 17).Stored(100, BaseType_U8);
            CTestStream stream(7, from);
            stream.AllocateParticlesIFP(5, 0);
            FillParticles(stream, 0);
            to.BindTo(stream);
            const CParticlePage &page = *stream.Page(CGuid(0));
            ASSERT_TRUE(IsFreshFrom(page, 5)) << typeOut;
            for (u32 field = 1; field < page.StreamsCount(); field += 2)
                ASSERT_EQ(std::memcmp(page.Streams()[field].m_RawDataPtr, "\0\0\0\0\0\xF3\xF3", 7), 0) << typeOut;
        }
    }
}

} // namespace
} // namespace Tests
} // namespace Tessaly
