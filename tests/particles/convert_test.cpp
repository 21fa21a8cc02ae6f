// What the values of a field become when a new definition gives it another type or storage size.
#include <array>
#include <limits>

#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

class Conversion : public CStreamTest
{
protected:
    // The value of a field after a definition is bound that gives it the type _To, of so many bytes. Of a column of 37
    // rows all have to become the same: they are converted in vectors and one by one.
    template <typename _To, typename _From>
    static _To Converted(EBaseTypeID from, const _From &value, EBaseTypeID to, u32 fromBytes = sizeof(_From),
                         u32 toBytes = sizeof(_To))
    {
        CDefinition before, after;
        before.Stored(Extra, from, fromBytes);
        CTestStream stream(40, before, {37});
        const TStridedMemoryView<_From> column =
            CParticlePageView(stream.Page(CGuid(0))).ColumnForWriting<_From>(CGuid(0));
        std::fill(column.begin(), column.end(), value);
        after.Stored(Extra, to, toBytes).BindTo(stream);
        const std::vector<_To> values = stream.Values<_To>(Extra);
        EXPECT_TRUE(values.size() == 37 && std::memcmp(&values[0], &values[1], 36 * sizeof(_To)) == 0);
        return values[0];
    }
};

TEST_F(Conversion, Float3BecomesFloat4WithAZeroW)
{
    EXPECT_EQ((Converted<CFloat4>(BaseType_Float3, CFloat3(1, 2, 3), BaseType_Float4)), CFloat4(1, 2, 3, 0));
}

TEST_F(Conversion, Float4BecomesFloat2WithoutZAndW)
{
    EXPECT_EQ((Converted<CFloat2>(BaseType_Float4, CFloat4(1, 2, 3, 4), BaseType_Float2)), CFloat2(1, 2));
}

TEST_F(Conversion, Float3BecomesInt3TowardsZero)
{
    EXPECT_EQ((Converted<CInt3>(BaseType_Float3, CFloat3(1.9f, -1.9f, 0.5f), BaseType_Int3)), CInt3(1, -1, 0));
}

TEST_F(Conversion, FloatThatIsNoIntBecomesTheLeastInt)
{
    for (const float value : {std::numeric_limits<float>::quiet_NaN(), 3e9f, -3e9f, 2147483648.0f})
        EXPECT_EQ(Converted<s32>(BaseType_Float, value, BaseType_I32), std::numeric_limits<s32>::min()) << value;
    EXPECT_EQ(Converted<s32>(BaseType_Float, 2147483520.0f, BaseType_I32), 2147483520);
}

TEST_F(Conversion, Int2BecomesFloat4OrInt4WithZeroZAndW)
{
    EXPECT_EQ((Converted<CInt4>(BaseType_Int2, CInt2(3, -4), BaseType_Int4)), CInt4(3, -4, 0, 0));
    EXPECT_EQ((Converted<CFloat4>(BaseType_Int2, CInt2(3, -4), BaseType_Float4)), CFloat4(3, -4, 0, 0));
}

TEST_F(Conversion, IntBecomesTheNearestFloatTiesToEven)
{
    EXPECT_EQ(Converted<float>(BaseType_I32, 16777217, BaseType_Float), 16777216.0f);
    EXPECT_EQ(Converted<float>(BaseType_I32, 16777219, BaseType_Float), 16777220.0f);
    EXPECT_EQ(Converted<float>(BaseType_U32, ~0u, BaseType_Float), -1.0f) << "an unsigned one as a signed one";
}

TEST_F(Conversion, TypesOfTheSameKindAndSizeKeepTheirBits)
{
    EXPECT_EQ((Converted<CInt4>(BaseType_UInt4, CInt4(-1, 2, -3, 4), BaseType_Int4)), CInt4(-1, 2, -3, 4));
    EXPECT_EQ((Converted<CFloat4>(BaseType_Float4, CFloat4(1, 2, 3, 4), BaseType_Quaternion)), CFloat4(1, 2, 3, 4));
}

// Components that are not 32 bits wide are converted at their own width.
TEST_F(Conversion, OtherWidthsAreConvertedByValue)
{
    EXPECT_EQ((Converted<CFloat4>(BaseType_UByte4, TVector4<u8>(255, 128, 1, 0), BaseType_Float4)),
              CFloat4(255, 128, 1, 0));
    EXPECT_EQ((Converted<TVector2<s16>>(BaseType_Byte2, TVector2<s8>(-1, 127), BaseType_Word2)),
              TVector2<s16>(-1, 127));
    EXPECT_EQ(Converted<u8>(BaseType_Float, 300.7f, BaseType_U8), 300 - 256) << "an int first, then narrowed";
    EXPECT_EQ(Converted<float>(BaseType_U64, ~u64(0), BaseType_Float), 18446744073709551616.0f);
    EXPECT_EQ(Converted<double>(BaseType_I64, s64(-5), BaseType_Double), -5.0);
    EXPECT_EQ(Converted<float>(BaseType_Double, 0.1, BaseType_Float), 0.1f);
    EXPECT_EQ(Converted<s32>(BaseType_Double, -2.7, BaseType_I32), -2);
    EXPECT_EQ(Converted<u8>(BaseType_I32, 256, BaseType_Bool), 1) << "anything but 0 is true";
}

TEST_F(Conversion, RowsAreReadAndWrittenAtTheirOwnStrides)
{
    EXPECT_EQ((Converted<CFloat3>(BaseType_Float3, CFloat4(1, 2, 3, 9), BaseType_Float3)), CFloat3(1, 2, 3));
    EXPECT_EQ((Converted<CFloat2>(BaseType_Float2, CFloat2(1, 2), BaseType_Float2, 8, 20)), CFloat2(1, 2));
    EXPECT_EQ((Converted<CInt3>(BaseType_Float3, CFloat3(1, 2, 3), BaseType_Int3, 16, 12)), CInt3(1, 2, 3));
    EXPECT_EQ((Converted<std::array<u8, 20>>(BaseType_Float4, CFloat4(), BaseType_Float4))[19], kFreshParticleByte);
}

TEST_F(Conversion, ConstantIsConvertedForEveryParticle)
{
    CTestStream stream(8, m_Definition, {5});
    CDefinition after;
    after.Stored(Colour, BaseType_Int4).BindTo(stream);
    EXPECT_EQ(stream.Values<CInt4>(Colour), std::vector<CInt4>(5, CInt4(0, 0, 0, 1)));
}
