// The page size: bytes of a page, the largest block, and what a change does to a stream with particles.
#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

using StreamPageSize = CStreamTest;

// Fields of these storage sizes, in bytes.
static void AddFields(CDefinition &definition, const std::vector<u32> &storageSizes)
{
    for (const u32 storageSize : storageSizes)
        definition.Stored(100 + definition.Def().m_StreamDef.Count(), BaseType_Float, storageSize);
}

static u32 OutOfSyncCount(const CTestStream &stream) { return stream.ComputeStats().m_PageCount_OutOfSync; }

TEST_F(StreamPageSize, EachColumnOfAPageIsRoundedUpTo16Bytes)
{
    const std::tuple<u32, std::vector<u32>, u32> cases[] = {
        {1024, {4, 12, 16}, 32768}, {3, {4, 12, 16}, 112}, {1, {4, 12, 16}, 48}, {3, {4, 4}, 32},
        {1001, {4, 12}, 16032},     {5, {4, 0}, 32},       {1024, {}, 0},        {0, {4}, 0},
    };
    for (const auto &[capacity, storageSizes, bytes] : cases)
    {
        CDefinition definition;
        AddFields(definition, storageSizes);
        EXPECT_EQ(CTestStream::_ComputePageSizeInBytes(capacity, &definition.Def()), bytes);
    }
    EXPECT_EQ(CTestStream::_ComputePageSizeInBytes(1, null), 0u);
    m_Reports.Expect({"streamDef != null"});
}

TEST_F(StreamPageSize, PageThatExceedsTheLargestBlockGetsAPowerOfTwo)
{
    const std::tuple<u32, std::vector<u32>, u32> cases[] = {
        {1024, {4096}, 256},  {100000, {12, 4}, 65536}, {200000, {12}, 65536}, {5000, {64, 64, 64, 64}, 4096},
        {65536, {16}, 65536}, {87381, {12}, 87381},     {65537, {16}, 65536},  {0x80000000u, {4, 3}, 131072},
    };
    for (const auto &[requested, storageSizes, pageSize] : cases)
    {
        CDefinition definition;
        AddFields(definition, storageSizes);
        CTestStream changed(1, definition), bound(requested, definition);
        changed.SetPageSize(requested);
        EXPECT_EQ(changed.PageSize(), pageSize) << requested;
        EXPECT_EQ(bound.PageSize(), pageSize) << requested << " by binding";
    }
}

TEST_F(StreamPageSize, ParticleLargerThanTheLargestBlockGetsAPageOfItsOwn)
{
    CDefinition definition;
    AddFields(definition, {1 << 21});
    CTestStream stream(16, definition);
    m_Reports.Expect({"m_PageSizeInBytes <= kMaxAllocSize"});
    stream.Births(2);
    EXPECT_EQ(stream.Capacities(), std::vector<u32>{1});
}

TEST_F(StreamPageSize, ChangeMovesNoParticleAndCountsThePagesToResize)
{
    CTestStream stream(1024, m_Definition, {3, 0});
    stream.SetPageSize(512);
    EXPECT_EQ(OutOfSyncCount(stream), 2u);
    EXPECT_TRUE(stream.HasPendingResizes());
    stream.Births(1022);
    EXPECT_EQ(stream.Pages(), "[0-2] [3-1024]") << "they still take births";
    stream.Births(512);
    EXPECT_EQ(stream.Capacities(), (std::vector<u32>{1024, 1024}));
    stream.Births(510);
    EXPECT_EQ(stream.Capacities(), (std::vector<u32>{1024, 1024, 512})) << "new pages have the new size";
    stream.SetPageSize(1024);
    EXPECT_EQ(OutOfSyncCount(stream), 1u) << "only the new page differs from the former size";
}

TEST_F(StreamPageSize, SameSizeCountsNothingAgain)
{
    CTestStream stream(64, m_Definition);
    stream.AppendPage(32, 1);
    stream.SetPageSize(64);
    EXPECT_FALSE(stream.HasPendingResizes());
}

TEST_F(StreamPageSize, ZeroIsTheDefault)
{
    CTestStream stream(0, m_Definition);
    EXPECT_EQ(stream.PageSize(), 1024u);
    stream.SetPageSize(64);
    stream.SetPageSize(0);
    m_Reports.Expect({"m_PageSizeInBytes != 0 || m_StreamDef->Empty()"});
    EXPECT_EQ(stream.PageSize(), 1024u);
}
