// Guids, string ids, numeric helpers, base types.

#include <cstring>

#include <gtest/gtest.h>

#include <support/report_recorder.h>
#include <tz_guid.h>
#include <tz_kernel/include/kr_base_types.h>
#include <tz_kernel/include/kr_containers_internals.h>
#include <tz_kernel/include/kr_string_id.h>
#include <tz_memory.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

using FloatRepresentation = TAbstractFloatingPointRepresentation<float, TAbstractIEEE754_FpConstants<u32, 23, 8>>;

// Made while the program starts, before or after any other file's objects.
struct SEarlyBird
{
    CGuid m_Guid = CGuid::INVALID;
    float m_Infinity = FloatRepresentation::kPositiveInfinity;
};
const SEarlyBird g_EarlyBird;

TEST(Guid, InvalidIsAllOnesAndKnownBeforeStartup)
{
    EXPECT_EQ(g_EarlyBird.m_Guid.Get(), 0xFFFFFFFFu);
    EXPECT_FALSE(CGuid::INVALID.Valid());
    EXPECT_FALSE(CGuid(0xFFFFFFFFu).Valid());
    EXPECT_TRUE(CGuid(0u).Valid());
    EXPECT_TRUE(CGuid::INVALID > CGuid(0xFFFFFFFEu));
    u32 bits;
    std::memcpy(&bits, &g_EarlyBird.m_Infinity, sizeof(bits));
    EXPECT_EQ(bits, 0x7F800000u);
}

TEST(Guid, ComparesWithIntegersAndWraps)
{
    CGuid guid(0u);
    EXPECT_TRUE(guid == 0 && guid == 0u && 0u == guid && guid != 1 && guid < 1u && guid <= CGuid(0u));
    EXPECT_EQ((CGuid::INVALID + 1u).Get(), 0u);
    EXPECT_EQ((guid += 5u).Get(), 5u);
    EXPECT_EQ((guid++).Get(), 5u);
    EXPECT_EQ((++guid).Get(), 7u);
    EXPECT_EQ((guid--).Get(), 7u);
    EXPECT_EQ((--guid).Get(), 5u);
    EXPECT_EQ(u32(guid), 5u);
}

TEST(StringId, ZeroIsEmpty)
{
    EXPECT_TRUE(CStringId().Empty());
    EXPECT_FALSE(CStringId(1).Empty());
    EXPECT_TRUE(CStringId(7) == CStringId(7) && CStringId(7) != CStringId(8));
}

TEST(Numcast, LossIsReportedAndTheLowBitsReturned)
{
    CReportRecorder reports;
    EXPECT_EQ(checked_numcast<u8>(255u), 255u);
    EXPECT_EQ(checked_numcast<u32>(u64(0xFFFFFFFFu)), 0xFFFFFFFFu);
    EXPECT_EQ(reports.Count(), 0u);
    EXPECT_EQ(checked_numcast<u32>(u64(0x500000007u)), 7u);
    reports.Expect({"static_cast<typename TType_StripQual<_TypeSrc>::Type>(result) == value"});
}

TEST(ArrayController, GrowsByHalfAndEight)
{
    CReportRecorder reports;
    using Controller = TArrayStaticController<0, 8, 8, 0, 2>;
    EXPECT_EQ(Controller::GrowSize(0), 8u);
    EXPECT_EQ(Controller::GrowSize(1), 9u);
    EXPECT_EQ(Controller::GrowSize(10), 23u);
    EXPECT_EQ(Controller::GrowSize(24), 44u);
    EXPECT_EQ(reports.Count(), 0u);
    EXPECT_EQ(Controller::GrowSize(0xFFFFFFF0u), u32(0xFFFFFFF0ull + 0x7FFFFFF8ull + 8));
    reports.Expect({"static_cast<typename TType_StripQual<_TypeSrc>::Type>(result) == value"});
}

TEST(Align, RoundsUpAndWraps)
{
    EXPECT_EQ((Mem::Align<16, u32>(0)), 0u);
    EXPECT_EQ((Mem::Align<16, u32>(1)), 16u);
    EXPECT_EQ((Mem::Align<16, u32>(16)), 16u);
    EXPECT_EQ((Mem::Align<16, u32>(0xFFFFFFF1u)), 0u);
    EXPECT_EQ((Mem::Align<16, u64>(0xFFFFFFF1u)), 0x100000000u);
}

TEST(BaseTypeTraits, RowsAreWhatTheNamesSay)
{
    for (int type = BaseType_Evolved; type < __MaxBaseTypes; ++type)
    {
        const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(EBaseTypeID(type));
        EXPECT_EQ(traits.Self, type);
        EXPECT_EQ(&traits, &CBaseTypeTraits::m_BaseTypeTraits[type + 1]);
        EXPECT_EQ(traits.Size, traits.VectorDimension * CBaseTypeTraits::Traits(traits.ScalarType).Size);
        EXPECT_EQ(traits.IsFp, type >= BaseType_Float);
    }
    for (int type = BaseType_U32; type <= BaseType_Int4; ++type)
        EXPECT_EQ(CBaseTypeTraits::Traits(EBaseTypeID(type)).Size, 4u * (u32(type - BaseType_U32) % 4 + 1));
    for (int type = BaseType_Float; type <= BaseType_Float4; ++type)
        EXPECT_EQ(CBaseTypeTraits::Traits(EBaseTypeID(type)).Size, 4u * u32(type - BaseType_Float + 1));
    EXPECT_EQ(CBaseTypeTraits::Traits(BaseType_Evolved).Size, 0u);
    EXPECT_EQ(CBaseTypeTraits::Traits(BaseType_Word3).Size, 6u);
    EXPECT_EQ(CBaseTypeTraits::Traits(BaseType_Double).Size, 8u);
    EXPECT_EQ(CBaseTypeTraits::Traits(BaseType_Quaternion).Size, 16u);
    EXPECT_EQ(CBaseTypeTraits::Revectorize(BaseType_Float, 3), BaseType_Float3);
    EXPECT_EQ(CBaseTypeTraits::Revectorize(BaseType_UByte4, 1), BaseType_U8);
    EXPECT_EQ(CBaseTypeTraits::Revectorize(BaseType_Double, 2), BaseType_Void);
}

TEST(BaseTypeTraits, OutOfRangeIsReportedAndGivesVoid)
{
    CReportRecorder reports;
    for (const int type : {int(__MaxBaseTypes), -2, 1000000, int(0x80000000u)})
    {
        EXPECT_EQ(CBaseTypeTraits::Traits(static_cast<EBaseTypeID>(type)).Self, BaseType_Void);
        reports.Expect({"type >= BaseType_Evolved && type < __MaxBaseTypes"});
    }
}

} // namespace
} // namespace Tests
} // namespace Tessaly
