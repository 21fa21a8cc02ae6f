// Collection: which pages go, where the others stand afterwards, and what it leaves alone.
#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

using StreamCollect = CStreamTest;

constexpr u32 kGone = 0xFFFFFFFF; // CGuid::INVALID

TEST_F(StreamCollect, EmptyPagesGoAndTheLastOnesTakeTheirPlaces)
{
    // What is left of pages with these counts; and for each page before, its index afterwards.
    const std::tuple<const char *, std::vector<u32>, std::vector<u32>> cases[] = {
        {"", {}, {}},
        {"[0-2] [3] [4-5]", {3, 1, 2}, {0, 1, 2}},
        {"[0-4]", {0, 5, 0, 0}, {kGone, 0, kGone, kGone}},
        {"[0-2]", {0, 0, 3}, {kGone, kGone, 0}},
        {"[0-1] [2-8]", {2, 0, 7}, {0, kGone, 1}},
        {"[3-5] [0] [1-2]", {0, 1, 2, 3}, {kGone, 1, 2, 0}},
        {"", {0, 0}, {kGone, kGone}},
    };
    for (const auto &[left, counts, indices] : cases)
    {
        CTestStream stream(8, m_Definition, counts), other(8, m_Definition, counts);
        std::vector<CGuid> entries(counts.size());
        TMemoryView<CGuid> reindexer(entries);
        const u32 particleCount = stream.ParticleCount();
        stream.GarbageCollectOldPages(&reindexer);
        other.GarbageCollectOldPages(null);
        EXPECT_EQ(stream.Pages(), left);
        EXPECT_EQ(other.Pages(), left) << "without a reindexer";
        EXPECT_TRUE(std::equal(entries.begin(), entries.end(), indices.begin())) << left;
        EXPECT_EQ(stream.ParticleCount(), particleCount);
    }
}

TEST_F(StreamCollect, ReindexerOfAnotherSizeIsReportedAndFilledAsFarAsItGoes)
{
    for (const u32 count : {1u, 3u})
    {
        CTestStream stream(8, m_Definition, {0, 1});
        CGuid entries[4] = {CGuid(7), CGuid(7), CGuid(7), CGuid(7)};
        TMemoryView<CGuid> reindexer(entries, count);
        stream.GarbageCollectOldPages(&reindexer);
        m_Reports.Expect({"pageReindexer == null || pageReindexer->Count() == m_Pages.Count()"});
        EXPECT_EQ(stream.Pages(), "[0]");
        EXPECT_EQ(entries[0], CGuid::INVALID);
        EXPECT_EQ(entries[1], count == 1 ? 7u : 0u);
        EXPECT_EQ(entries[3], 7u) << "nothing behind it is written";
    }
}

TEST_F(StreamCollect, PendingResizesStayCountedUntilTheyAreComputedAgain)
{
    CTestStream stream(8, m_Definition, {0, 0});
    stream.SetPageSize(16);
    stream.GarbageCollectOldPages(null);
    EXPECT_TRUE(stream.HasPendingResizes());
    stream.ComputePendingResizes_NoLock();
    EXPECT_FALSE(stream.HasPendingResizes());
}
