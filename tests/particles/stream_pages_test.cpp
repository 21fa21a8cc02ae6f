// Page sizes, the making of pages, and the particles in them.

#include <nlohmann/json.hpp>

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

using Births = CStreamTest;

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
