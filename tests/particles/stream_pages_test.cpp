// Page sizes, the making of pages, and the particles in them.

#include <nlohmann/json.hpp>

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

using PageSize = CStreamTest;
using NewPage = CStreamTest;
using Births = CStreamTest;

struct SClampCase
{
    u32 m_Requested;
    std::vector<u32> m_StorageSizes;
    u32 m_Capacity;
    u32 m_Bytes;
    std::vector<std::string> m_Reports;
};

TEST_F(PageSize, IsClampedToTheLargestBlock)
{
    const std::vector<std::string> tooLarge = {"m_PageSizeInBytes <= kMaxAllocSize"};
    const std::vector<std::string> zero = {"m_PageSizeInBytes != 0 || def->Empty()"};
    const std::vector<SClampCase> cases = {
        {1024, {4, 12, 16}, 1024, 32768, {}},
        {3, {4, 12, 16}, 3, 112, {}},
        {1, {4, 12, 16}, 1, 48, {}},
        {1024, {4096}, 256, 1048576, {}},
        {100000, {12, 4}, 65536, 1048576, {}},
        {200000, {12}, 65536, 786432, {}},
        {5000, {64, 64, 64, 64}, 4096, 1048576, {}},
        {65536, {16}, 65536, 1048576, {}},
        {65537, {16}, 65536, 1048576, {}},
        // Bytes past 32 bits: a small remainder hides nothing, an exact 0 is stored.
        {0x10001, {0x10000}, 16, 1048576, {}},
        {0x20000001, {8}, 131072, 1048576, {}},
        {0x10000, {0x10000}, 0x10000, 0, zero},
        // One particle above the cap, by itself and by the rounding of its columns.
        {1024, {2097152}, 1, 2097152, tooLarge},
        {1024, std::vector<u32>(65600, 1), 8, 65600 * 16, tooLarge},
    };
    for (const SClampCase &row : cases)
    {
        CDefinition definition;
        for (const u32 storageSize : row.m_StorageSizes)
            definition.Stored(Life, BaseType_Float, storageSize);
        CTestStream stream(row.m_Requested, definition), later(64);
        m_Reports.Expect(row.m_Reports);
        EXPECT_EQ(stream.PageSize(), row.m_Capacity);
        EXPECT_EQ(CTestStream::_ComputePageSizeInBytes(stream.PageSize(), stream.GetStreamDef()), row.m_Bytes);
        const PParticlePage page = stream.AllocNewPage_NoLock(false);
        ASSERT_EQ(page != null, row.m_Bytes != 0) << "no page whose columns leave its block";
        EXPECT_TRUE(page == null || page->RawPage()->Size() >= row.m_Bytes);
        definition.BindTo(later);
        later.SetPageSize(row.m_Requested);
        EXPECT_EQ(later.PageSize(), row.m_Capacity);
        m_Reports.Take();
    }
    EXPECT_EQ(CTestStream::_ComputePageSizeInBytes(1, null), 0u);
    m_Reports.Expect({"streamDef != null"});
}

TEST_F(PageSize, UnchangedDoesNothingAndClampedIsNotUnchanged)
{
    CDefinition definition;
    definition.Stored(Life, BaseType_Float, 4096);
    CTestStream stream(16, definition);
    stream.AppendPage(256, 3);
    stream.RegisterBornCount_NoConsistencyCheck(1);
    stream.SetPageSize(16);
    EXPECT_FALSE(stream.HasPendingResizes()) << "nothing is counted, nor checked";
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_EQ(m_Reports.Count(), 0u);
        stream.SetPageSize(1024);
        m_Reports.Expect({kCountText, kCountText});
        EXPECT_FALSE(stream.HasPendingResizes()) << "by the clamped size";
    }
    stream.RegisterDeadCount(1);
    stream.SetPageSize(0);
    m_Reports.Expect({"m_PageSizeInBytes != 0 || m_StreamDef->Empty()"});
    EXPECT_EQ(stream.PageSize(), 256u) << "the default, clamped";
}

TEST_F(NewPage, LaysColumnsOutBackToBackAndFresh)
{
    CDefinition definition;
    definition.Stored(1, BaseType_Float3).Constant(2, BaseType_Float, 1.0f).Constant(3, BaseType_Float, 2.0f);
    definition.ConstantAt(4, BaseType_Float, CGuid(1)).ConstantAt(5, BaseType_Float, CGuid::INVALID);
    definition.ConstantAt(6, BaseType_Float, CGuid(2)).Stored(7, BaseType_UByte3);
    CTestStream stream(10, definition);
    const PParticlePage page = stream.AllocNewPage_NoLock(true);
    m_Reports.Expect({"cstId < m_ConstantData.Count()"});
    const u8 *data = page->RawPage()->RawDataForWriting();
    const u8 *blocks = reinterpret_cast<const u8 *>(definition.ConstantData().Data());
    const u8 *expected[] = {data, blocks, blocks + 64, blocks + 64, null, null, data + 128};
    for (u32 i = 0; i < 7; ++i)
        EXPECT_EQ(page->Streams()[i].m_RawDataPtr, expected[i]);
    EXPECT_TRUE(IsFreshFrom(*page, 0));
    EXPECT_EQ(page->ParentStream(), &stream);
    EXPECT_EQ(page->StrongRefCount(), 2u);
    EXPECT_EQ(page->RawPage()->StrongRefCount(), 1u);
}

TEST_F(NewPage, EveryRefusalGivesNullAndLosesNothing)
{
    using Texts = std::vector<std::string>;
    // In the order in which memory is asked for: page, its fields, the list. Its raw page waits for reuse.
    const std::vector<Texts> reports = {{},
                                        {"false", "page->m_Streams_Unsafe.Reserve(streamDef.Count())"},
                                        {"false", "m_Pages.PushBack(page).Valid()"}};
    CTestStream stream(10, m_Definition);
    stream.AllocNewPage_NoLock(false);
    const u32 blockCount = m_Memory.LiveBlockCount();
    for (u32 n = 1; n <= reports.size(); ++n)
    {
        m_Memory.RefuseAt(n);
        EXPECT_TRUE(stream.AllocNewPage_NoLock(true) == null);
        m_Reports.Expect(reports[n - 1]);
        EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount);
        EXPECT_EQ(m_Memory.RequestCount(), n);
    }
    m_Memory.RefuseNone();
    m_Runtime.RefusePages();
    EXPECT_TRUE(stream.AllocNewPage_NoLock(true) == null);
    EXPECT_EQ(m_Memory.RequestCount(), 0u) << "no page object without its block";
    m_Runtime.AllowPages();
}

TEST_F(Births, RequestAcrossPagesIsServedUntilNothingIsLeft)
{
    CTestStream stream(1000, m_Definition);
    stream.AppendPage(1000, 990);
    TArray<CParticlePageView> views, refused;
    EXPECT_EQ(stream.AllocateParticles(1500, views), 1500u);
    ASSERT_EQ(views.Count(), 3u);
    EXPECT_EQ(views[2].ParticleCount(), 490u);
    m_Runtime.RefusePages();
    EXPECT_EQ(stream.AllocateParticles(2000, views), 510u);
    m_Runtime.AllowPages();
    m_Memory.RefuseFrom(1);
    EXPECT_EQ(stream.AllocateParticles(5, refused), 0u) << "no particle that nobody is told of";
    m_Reports.Take();
    m_Memory.RefuseNone();
}

TEST_F(Births, StatisticsAreSummedAndPrinted)
{
    CTestStream stream(10, m_Definition);
    stream.AppendPage(10, 10);
    SMediumMemoryReport report = stream.ComputeMemoryUsage();
    const u64 footprint = stream.Page(CGuid(0))->MemoryFootprint();
    report.m_StaticBytes = 100;
    report.m_StaticBytes_IR = 60;
    report.m_DebugBytes = 8;
    EXPECT_EQ((report + report).Total(), 2 * (footprint + 108)) << "parts of a counter are not added again";
    EXPECT_EQ((report += report).m_StaticBytes_IR, 120u);
    report.Clear();
    EXPECT_EQ(report.Total() + report.m_StaticBytes_IR, 0u);
}

// All forms of a record: what is told of the text's length, and that it is never longer than its buffer.
template <typename _Record>
nlohmann::json CheckPrinted(const _Record &record)
{
    using FnPrint = int (_Record::*)(char *, size_t) const;
    char text[1000];
    for (const FnPrint print : {&_Record::PrintTable, &_Record::Print, &_Record::PrintJson})
    {
        const int length = (record.*print)(text, 8);
        EXPECT_EQ(std::strlen(text), 7u);
        EXPECT_EQ((record.*print)(text, sizeof(text)), length);
        EXPECT_EQ(std::strlen(text), size_t(length));
        EXPECT_EQ(std::strchr(text, '\n') != nullptr, print == FnPrint(&_Record::PrintTable));
    }
    return nlohmann::json::parse(text);
}

TEST_F(Births, StatisticsArePrinted)
{
    CTestStream stream(10, m_Definition);
    stream.AppendPage(10, 10);
    stream.AppendPage(20, 7);
    const nlohmann::json pages = CheckPrinted(stream.ComputeStats());
    EXPECT_EQ(pages["pages"].get<int>() * 10 + pages["outOfSyncPages"].get<int>(), 21);
    EXPECT_EQ(pages["particles"].get<int>() * 100 + pages["slots"].get<int>(), 1730);
    EXPECT_EQ(pages["liveBytes"], 17 * 19);
    EXPECT_EQ(pages["freeBytes"], 13 * 19);
    EXPECT_EQ(pages["paddingBytes"], 512 + 512 - 30 * 19);
    EXPECT_EQ(pages["pagesByTenth"], nlohmann::json({0, 0, 0, 1, 0, 0, 0, 0, 0, 1}));
    CParticlePageAllocator_Stats blocks;
    m_Runtime.Allocator().GetTotalStats(blocks);
    EXPECT_EQ(CheckPrinted(blocks), nlohmann::json({{"bytesInUse", 1024},
                                                    {"bytesFree", 0},
                                                    {"blocksInUse", 2},
                                                    {"blocksFree", 0},
                                                    {"allocations", 2},
                                                    {"recycled", 0},
                                                    {"refusals", 0}}));
}

} // namespace
} // namespace Tests
} // namespace Tessaly
