// Guids, base types, byte-range helpers, memory services, views, and the profiler's scopes.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <numeric>
#include <thread>

#include <gtest/gtest.h>

#include <support/allocator_hook.h>
#include <support/profiler_recorder.h>
#include <support/report_recorder.h>
#include <tz_guid.h>
#include <tz_kernel/include/kr_base_types.h>
#include <tz_kernel/include/kr_memoryviews.h>
#include <tz_kernel/include/kr_string_id.h>
#include <tz_kernel/include/kr_vectors.h>
#include <tz_memory.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

using FloatRepresentation = TAbstractFloatingPointRepresentation<float, TAbstractIEEE754_FpConstants<u32, 23, 8>>;

// Made while the program starts, before or after any other file's objects.
const struct
{
    CGuid m_Guid = CGuid::INVALID;
    float m_Infinity = FloatRepresentation::kPositiveInfinity;
} g_MadeEarly;

TEST(Guid, InvalidIsAllOnesAndKnownBeforeStartup)
{
    EXPECT_EQ(g_MadeEarly.m_Guid.Get(), 0xFFFFFFFFu);
    EXPECT_EQ(g_MadeEarly.m_Infinity, std::numeric_limits<float>::infinity());
    EXPECT_FALSE(CGuid::INVALID.Valid() || CGuid(0xFFFFFFFFu).Valid());
    EXPECT_TRUE(CGuid(0u).Valid() && CGuid::INVALID > CGuid(0xFFFFFFFEu));
}

TEST(Guid, ComparesWithIntegersAndWraps)
{
    CGuid guid(0u);
    EXPECT_TRUE(guid == 0 && guid == 0u && 0u == guid && guid != 1 && guid < 1u && guid <= CGuid(0u));
    EXPECT_TRUE((CGuid::INVALID + 1u).Get() == 0 && (guid += 5u).Get() == 5);
    EXPECT_EQ((guid++).Get() + (++guid).Get(), 5u + 7u);
    EXPECT_EQ((guid--).Get() + (--guid).Get(), 7u + 5u);
    EXPECT_TRUE((Mem::Align<16, u32>(0)) == 0 && (Mem::Align<16, u32>(1)) == 16 && (Mem::Align<16, u32>(16)) == 16);
    EXPECT_TRUE((Mem::Align<16, u32>(0xFFFFFFF1u)) == 0 && (Mem::Align<16, u64>(0xFFFFFFF1u)) == 0x100000000u);
}

TEST(StringId, IsTheHashOfATextOrANumber)
{
    static_assert(CStringId("a").m_Id == 0xE40C292Cu && CStringId("foobar").m_Id == 0xBF9CF968u, "FNV-1a");
    static_assert(CStringId("foo\0bar") == CStringId("foo"), "");
    static_assert(CStringId::FromText("foobar", 3) == CStringId("foo"), "");
    static_assert(CStringId("akhnp9x").m_Id == 1, "a text whose hash is 0");
    EXPECT_TRUE(CStringId().Empty() && CStringId(0).Empty() && !CStringId(1).Empty() && !CStringId("").Empty());
    EXPECT_TRUE(CStringId(7u).m_Id == 7 && CStringId("7").m_Id != 7 && CStringId::FromText(null, 3).Empty());
    EXPECT_EQ(CStringId("\xE9").m_Id, (0x811C9DC5u ^ 0xE9u) * 0x01000193u) << "characters are bytes";
}

TEST(StringId, KeepsRegisteredTexts)
{
    CAllocatorHook memory;
    CReportRecorder reports;
    char text[] = "liquid";
    EXPECT_EQ(CStringId(text).Text(), nullptr);
    EXPECT_EQ(CStringId::Register(text), CStringId("liquid"));
    text[0] = 'L';
    EXPECT_STREQ(CStringId("liquid").Text(), "liquid");
    CStringId::Register("liquid");
    EXPECT_EQ(memory.RequestCount(), 1u);
    EXPECT_EQ(CStringId::Register("costarring"), CStringId("liquid")) << "they have the same hash";
    EXPECT_TRUE(CStringId::Register(null).Empty());
    EXPECT_EQ(reports.Take().size(), 2u);
    memory.RefuseFrom(1);
    EXPECT_EQ(CStringId::Register("solid"), CStringId("solid"));
    EXPECT_EQ(CStringId("solid").Text(), nullptr);
    memory.RefuseNone();

    bool isFirst = true; // another thread registers the same name in between
    memory.AtEachCall(
        [&](const SMemoryCall &)
        {
            if (std::exchange(isFirst, false))
                std::thread([] { CStringId::Register("gas"); }).join();
        });
    CStringId::Register("gas");
    memory.AtEachCall({});
    EXPECT_STREQ(CStringId("gas").Text(), "gas");
    EXPECT_EQ(memory.LiveBlockCount(), 2u) << "each once";
    CStringId::UnregisterAll();
    EXPECT_EQ(CStringId("liquid").Text(), nullptr);
}

TEST(BaseTypeTraits, RowsAreWhatTheNamesSay)
{
    CReportRecorder reports;
    const auto traits = [](int type) -> const CBaseTypeTraits &
    { return CBaseTypeTraits::Traits(static_cast<EBaseTypeID>(type)); };
    for (int type = BaseType_Evolved; type < __MaxBaseTypes; ++type)
    {
        const int scalar = traits(type).ScalarType;
        EXPECT_EQ(traits(type).Self, type);
        const bool isWide = scalar == BaseType_U64 || scalar == BaseType_I64 || scalar == BaseType_Double;
        const u32 narrow = scalar < BaseType_U16 ? 1 : scalar < BaseType_U32 ? 2 : 4;
        const u32 width = scalar < BaseType_Bool ? 0 : isWide ? 8 : narrow;
        EXPECT_EQ(traits(type).Size, traits(type).VectorDimension * width);
        EXPECT_EQ(traits(type).IsFp, type >= BaseType_Float);
        EXPECT_EQ(traits(type).IsSigned, traits(type).IsFp || scalar == BaseType_I8 || scalar == BaseType_I16 ||
                                             scalar == BaseType_I32 || scalar == BaseType_I64);
    }
    for (u32 i = 0; i < 4; ++i)
        EXPECT_EQ(traits(BaseType_U32 + int(i)).Size + traits(BaseType_Float + int(i)).Size, 2 * (4 * i + 4));
    const std::pair<int, u32> sizes[] = {{BaseType_Evolved, 0},
                                         {BaseType_Word3, 6},
                                         {BaseType_Int4, 16},
                                         {BaseType_Double, 8},
                                         {BaseType_Quaternion, 16}};
    for (const auto &[type, size] : sizes)
        EXPECT_EQ(traits(type).Size, size);
    EXPECT_EQ(CBaseTypeTraits::Revectorize(BaseType_Float, 3), BaseType_Float3);
    EXPECT_EQ(CBaseTypeTraits::Revectorize(BaseType_UByte4, 1), BaseType_U8);
    EXPECT_EQ(CBaseTypeTraits::Revectorize(BaseType_Double, 2), BaseType_Void);
    EXPECT_EQ(reports.Count(), 0u);
    for (const int type : {int(__MaxBaseTypes), -2, 1000000, int(0x80000000u)})
        EXPECT_EQ(traits(type).Self, BaseType_Void);
    EXPECT_EQ(reports.Take().size(), 4u);
}

TEST(Vectors, AreEqualInEveryComponentOrNot)
{
    static_assert(CFloat4(1, 2, 3, 4).z == 3 && std::is_trivially_copyable<CFloat4>::value && sizeof(CByte3) == 3, "");
    const CFloat2 two(1, 2);
    const CFloat3 three(1, 2, 3);
    const CFloat4 four(1, 2, 3, 4);
    EXPECT_TRUE(two == CFloat2(1, 2) && three == CFloat3(1, 2, 3) && four == CFloat4(1, 2, 3, 4));
    EXPECT_TRUE(two != CFloat2(9, 2) && two != CFloat2(1, 9));
    EXPECT_TRUE(three != CFloat3(9, 2, 3) && three != CFloat3(1, 9, 3) && three != CFloat3(1, 2, 9));
    EXPECT_TRUE(four != CFloat4(9, 2, 3, 4) && four != CFloat4(1, 9, 3, 4));
    EXPECT_TRUE(four != CFloat4(1, 2, 9, 4) && four != CFloat4(1, 2, 3, 9));
}

TEST(MemoryCopy, OverlapIsReportedAndEmptyRangesAreNot)
{
    const u8 bytes[32] = {};
    EXPECT_TRUE(Mem::Overlaps(bytes, 8, bytes + 7, 8) && Mem::Overlaps(bytes + 7, 8, bytes, 8));
    EXPECT_FALSE(Mem::Overlaps(bytes, 8, bytes + 8, 8) || Mem::Overlaps(bytes + 8, 8, bytes, 8));
    EXPECT_TRUE(Mem::Overlaps(bytes, 8, bytes, 8) && Mem::Overlaps(bytes, 32, bytes + 20, 1));
    EXPECT_FALSE(Mem::Overlaps(bytes, 0, bytes, 0));
    CReportRecorder reports;
    u32 words[6] = {9, 9, 9, 9, 9, 9};
    Mem::Copy(words, words, 0);
    Mem::Copy(null, null, 0);
    Mem::Clear(null, 0);
    Mem::Copy_Overlapped(null, null, 0);
    Mem::FillIndices32(words + 1, 4, 0xFFFFFFFEu);
    const u32 expected[6] = {9, 0xFFFFFFFEu, 0xFFFFFFFFu, 0, 1, 9};
    EXPECT_EQ(std::memcmp(words, expected, sizeof(words)), 0);
    Mem::Copy_Overlapped(words + 1, words, 16);
    EXPECT_EQ(words[2], 0xFFFFFFFEu);
    EXPECT_EQ(reports.Count(), 0u);
    Mem::Copy(words + 1, words, 8);
    reports.Expect({"!Mem::Overlaps(dst, byteCount, src, byteCount)"});
}

TEST(MemoryServices, BlocksAreAlignedAndKeptByReallocation)
{
    CAllocatorHook memory;
    u64 *object = Mem::New<u64>(TZ_CALL_SITE, 7u);
    EXPECT_TRUE(ureg(object) % 16 == 0 && *object == 7 && memory.LiveBlockCount() == 1);
    Mem::Delete(TZ_CALL_SITE, object);
    Mem::Delete<u64>(TZ_CALL_SITE, null);
    EXPECT_EQ(memory.LiveBlockCount(), 0u) << "of the same origin, or the hook says so";
    memory.RefuseAt(1);
    EXPECT_EQ(Mem::New<u64>(TZ_CALL_SITE), nullptr);
    const Mem::SAllocator &allocator = Mem::DefaultAllocator();
    void *block = allocator.m_Alloc(10, 256, Mem::AllocType_Generic, Mem::Origin_Alloc, "", "", 0, "");
    static_cast<u8 *>(block)[9] = 0x5A;
    EXPECT_EQ(ureg(block) % 256, 0u);
    block = allocator.m_Realloc(block, 5000, 256, Mem::AllocType_Generic, "", "", 0, "");
    EXPECT_EQ(ureg(block) % 256, 0u);
    EXPECT_EQ(static_cast<u8 *>(block)[9], 0x5A);
    allocator.m_Free(block, Mem::AllocType_Generic, Mem::Origin_Alloc, "", "", 0, "");
}

// Whether the system is advised to keep huge pages at address.
static bool AdvisesHugePages(const void *address)
{
    std::ifstream maps("/proc/self/smaps");
    bool isInside = false;
    for (std::string line; std::getline(maps, line);)
    {
        unsigned long long start, end;
        if (std::sscanf(line.c_str(), "%llx-%llx ", &start, &end) == 2)
            isInside = start <= ureg(address) && ureg(address) < end;
        if (isInside && line.rfind("VmFlags:", 0) == 0)
            return line.find(" hg") != std::string::npos;
    }
    return false;
}

// Large blocks are mapped: discarding gives their whole pages back, and nothing of other blocks.
TEST(MemoryServices, LargeBlocksAreKeptByReallocationAndDiscardedByPages)
{
    constexpr u64 kPage = 4096; // or more, on other systems: the bounds below hold for up to 64 KiB
    const Mem::SAllocator &allocator = Mem::DefaultAllocator();
    const auto resize = [&](void *block, u64 size)
    { return static_cast<u8 *>(allocator.m_Realloc(block, size, 0, Mem::AllocType_Generic, "", "", 0, "")); };
    u8 *other = resize(null, 5 << 20), *block = resize(null, 300000);
    for (u64 size : {u64(300000), u64(1 << 20), u64(3000001), u64(2 << 20), u64(900000), u64(300000), u64(6 << 20)})
    {
        block = resize(block, size);
        block[0] = block[299999] = 0x5A;
        std::memset(block + 1, 0x3C, 299998);
        u8 *larger = block = resize(block, size + 100000);
        EXPECT_TRUE(larger[0] == 0x5A && larger[299999] == 0x5A && larger[150000] == 0x3C) << size;
    }
    std::memset(block, 1, 6 << 20);
    std::memset(other, 2, 5 << 20);
    allocator.m_Discard(block + 100, (1 << 20) + 200);
    EXPECT_TRUE(block[99] == 1 && block[100] == 1 && block[kPage - 1] == 1) << "a page that is not wholly inside";
    EXPECT_EQ(block[512 << 10], 0) << "given back";
    EXPECT_FALSE(AdvisesHugePages(block)) << "they would fill what was given back";
    EXPECT_TRUE(block[(1 << 20) + (64 << 10)] == 1 && std::count(other, other + (5 << 20), 2) == 5 << 20);
    allocator.m_Discard(block + 3 * kPage + 1, 1);
    allocator.m_Discard(other + (5 << 20) - 100, 1 << 20);
    EXPECT_EQ(other[(5 << 20) - 1], 2) << "a range that leaves its block";
    u8 *small = resize(null, 900000), *least = resize(null, 1 << 20);
    std::memset(least, 4, 1 << 20);
    allocator.m_Discard(least, 1 << 20);
    EXPECT_EQ(least[512 << 10], 0) << "the smallest size that is mapped";
    std::memset(small, 3, 900000);
    allocator.m_Discard(small, 900000);
    EXPECT_EQ(std::count(small, small + 900000, 3), 900000) << "the C library's";
    for (void *each : {block, other, small, least})
        allocator.m_Free(each, Mem::AllocType_Generic, Mem::Origin_Alloc, "", "", 0, "");
    Mem::_RawDiscard(block, 1 << 20); // of no block
    EXPECT_EQ(allocator.m_Alloc(~u64(0) - 5, 0, Mem::AllocType_Generic, Mem::Origin_Alloc, "", "", 0, ""), nullptr);
}

TEST(MemoryView, IndexOutOfRangeIsReportedAndRead)
{
    CReportRecorder reports;
    u32 words[3] = {10, 20, 30};
    EXPECT_EQ(&(TMemoryView<u32>(words, 2)[2]), words + 2);
    EXPECT_EQ((TStridedMemoryView<u32>(words, 2, 4)[2]), 30u);
    reports.Expect({"index < m_Count", "index < m_Storage.m_Count"});
    EXPECT_EQ(TMemoryView<u32>()[0] + TStridedMemoryView<u32>()[0], 0u);
    EXPECT_EQ(reports.Take().size(), 4u) << "no data, and no element";
}

TEST(StridedMemoryView, StepsInWrappingBytes)
{
    CReportRecorder reports;
    u32 words[6] = {10, 11, 20, 21, 30, 31};
    const TStridedMemoryView<const u32> view = TStridedMemoryView<u32>(words, 3, 8);
    EXPECT_EQ(std::accumulate(view.begin(), view.end(), view[2]), 30u + 60u);
    EXPECT_EQ((TStridedMemoryView<u32>(words, 0x10001, 0x10000)[0x10000]), 10u) << "the product has 32 bits";
    EXPECT_EQ((TStridedMemoryView<u32>(words, 100, 0)[99]), 10u);
    EXPECT_EQ((TStridedMemoryView<const u32>(TMemoryView<const u32>(words, 6))[5]), 31u);
}

TEST(ProfilerScope, TellsTheSinkOfItsBeginAndEnd)
{
    const auto profiled = [] { TZ_PROFILE_SCOPE("a name"); };
    profiled(); // without a sink
    CProfilerRecorder profiler;
    profiled();
    EXPECT_EQ(profiler.Take(), (std::vector<std::string>{"+a name", "-a name"}));
    const Profiler::SNodeDescriptor *node = profiler.Find("a name");
    ASSERT_NE(node, nullptr);
    EXPECT_TRUE(node->m_Flags == 0 && std::strstr(node->m_FileAndFunction, "basics_test.cpp") != null);
    EXPECT_EQ(node->m_Color, Profiler::SNodeDescriptor::AutogenColor("a name"));
    EXPECT_EQ(node->m_ColorRGBA8, 0xFFA55CE6u) << "the same in every version";
    for (char name[] = "a"; name[0] <= 'p'; ++name[0])
    {
        const CFloat4 color = Profiler::SNodeDescriptor::AutogenColor(name);
        EXPECT_NEAR(std::max({color.m_X, color.m_Y, color.m_Z}), 0.9f, 1e-5f) << name;
        EXPECT_NEAR(std::min({color.m_X, color.m_Y, color.m_Z}), 0.36f, 1e-5f) << name;
    }
    const Profiler::SNodeDescriptor red("red", "", CFloat3(1.0f, 0.0f, 0.2f), 0);
    EXPECT_TRUE(red.m_ColorRGBA8 == 0xFF3300FFu && red.m_ColorBGRA8 == 0xFFFF0033u);
}
