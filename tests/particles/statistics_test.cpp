// Statistics records: sums and printing. What is in them is the model's to check.
#include <cstring>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>
#include <tz_particles/include/ps_stats.h>

using namespace Tessaly;

TEST(Statistics, MemoryReportsAreSummedCounterByCounter)
{
    u64 counters[15];
    SMediumMemoryReport report;
    static_assert(sizeof(report) == sizeof(counters), "nothing but counters");
    for (u32 i = 0; i < 15; ++i)
        counters[i] = u64(1) << 2 * i;
    std::memcpy(&report, counters, sizeof(report));
    EXPECT_EQ(report.Total(), u64(0x15555555) - (4 + 16 + 64) - (1 << 22)) << "parts of a counter are not added again";
    const SMediumMemoryReport sum = report + report;
    std::memcpy(counters, &sum, sizeof(sum));
    for (u32 i = 0; i < 15; ++i)
        EXPECT_EQ(counters[i], u64(2) << 2 * i);
    report.Clear();
    EXPECT_EQ(report.Total() + report.m_StaticBytes_IR, 0u);
}

// Each form of a record, whose text is never longer than its buffer.
template <typename _Record>
static std::string Printed(const _Record &record)
{
    using FnPrint = int (_Record::*)(char *, size_t) const;
    std::string all;
    for (const FnPrint print : {&_Record::PrintTable, &_Record::Print, &_Record::PrintJson})
    {
        char text[1000];
        const int length = (record.*print)(text, 8);
        EXPECT_EQ(std::strlen(text), 7u);
        EXPECT_EQ((record.*print)(text, sizeof(text)), length);
        all += text;
        EXPECT_EQ(std::strlen(text), size_t(length));
        EXPECT_EQ(nlohmann::json::accept(text), print == FnPrint(&_Record::PrintJson));
    }
    return all;
}

TEST(Statistics, RecordsArePrinted)
{
    SParticleStreamStats pages;
    pages.m_PageCount = 1, pages.m_PageCount_OutOfSync = 2, pages.m_ParticleCount = 3, pages.m_SlotCount = 12;
    pages.m_LiveBytes = 10, pages.m_FreeBytes = 20, pages.m_PaddingBytes = 70;
    for (u32 i = 0; i < 10; ++i)
        pages.m_PagesByTenth[i] = 31 + i;
    EXPECT_EQ(Printed(pages), R"(pages                      1   2 out of sync
particles                  3   25.0 % of 12 slots
live bytes                10   10.0 %
free bytes                20   20.0 %
padding bytes             70   70.0 %
how full          0 %   10 %   20 %   30 %   40 %   50 %   60 %   70 %   80 %   90 %
pages              31     32     33     34     35     36     37     38     39     40
pages 1 (2 out of sync), particles 3 of 12 slots, bytes live 10 free 20 padding 70, )"
                              R"(pages by tenths full 31 32 33 34 35 36 37 38 39 40{"pages":1,"outOfSyncPages":2,)"
                              R"("particles":3,"slots":12,"liveBytes":10,"freeBytes":20,"paddingBytes":70,)"
                              R"("pagesByTenth":[31,32,33,34,35,36,37,38,39,40]})");
    EXPECT_NE(Printed(SParticleStreamStats()).find(" 0.0 % of 0 slots"), std::string::npos);
    CParticlePageAllocator_Stats blocks;
    blocks.m_BytesInUse = 31, blocks.m_BytesFree = 32, blocks.m_BlocksInUse = 33, blocks.m_BlocksFree = 34;
    blocks.m_AllocCount = 35, blocks.m_RecycleCount = 36, blocks.m_RefusalCount = 37, blocks.m_BytesReserved = 38;
    EXPECT_EQ(Printed(blocks), R"(blocks in use             33   31 bytes
free                      34   32 bytes
reserved                       38 bytes
handed out                35   36 recycled
refused                   37
blocks in use 33 (31 bytes), free 34 (32 bytes), reserved 38 bytes, handed out 35 (36 recycled), refused 37)"
                               R"({"bytesInUse":31,"bytesFree":32,"bytesReserved":38,"blocksInUse":33,"blocksFree":34,)"
                               R"("allocations":35,"recycled":36,"refusals":37})");
}
