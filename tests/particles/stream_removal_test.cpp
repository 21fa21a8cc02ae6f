// Removing particles: what fills the holes, what the caller is told, and what is refused.
#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

using StreamRemoval = CStreamTest;

TEST_F(StreamRemoval, LastParticlesFillTheHoles)
{
    const std::tuple<std::vector<u32>, const char *, const char *> cases[] = {
        {{}, "[0-7]", ""},           {{7}, "[0-6]", ""},
        {{0}, "[7 1-6]", "7>0 "},    {{1, 2}, "[0 6-7 3-5]", "6>1 7>2 "},
        {{0, 7}, "[6 1-5]", "6>0 "}, {{0, 1, 5, 7}, "[4 6 2-3]", "4>0 6>1 "},
        {{4, 5, 6, 7}, "[0-3]", ""}, {{0, 1, 2, 3, 4, 5, 6, 7}, "[]", ""},
    };
    for (const auto &[removed, left, moved] : cases)
    {
        CTestStream stream(8, m_Definition, {8});
        SParticleMove moves[8];
        TMemoryView<SParticleMove> told(moves, 8);
        EXPECT_EQ(stream.RemoveParticles(CGuid(0), removed, &told), removed.size());
        EXPECT_EQ(stream.Pages(), left);
        EXPECT_EQ(stream.ParticleCount(), 8 - removed.size());
        std::string text;
        for (const SParticleMove &move : told)
            text += std::to_string(move.m_From) + ">" + std::to_string(move.m_To) + " ";
        EXPECT_EQ(text, moved);
    }
}

TEST_F(StreamRemoval, BadListIsReportedAndRemovesNothing)
{
    CTestStream stream(8, m_Definition, {8});
    const std::vector<u32> twice = {1, 2, 2}, descending = {3, 2}, beyond = {1, 8};
    SParticleMove moves[8];
    for (const TMemoryView<const u32> &list : {TMemoryView<const u32>(twice), TMemoryView<const u32>(descending),
                                               TMemoryView<const u32>(beyond), TMemoryView<const u32>(null, 2)})
    {
        TMemoryView<SParticleMove> told(moves, 8);
        EXPECT_EQ(stream.RemoveParticles(CGuid(0), list, &told), 0u);
        EXPECT_EQ(m_Reports.Take().size(), 1u);
        EXPECT_TRUE(told.Empty());
    }
    EXPECT_EQ(stream.RemoveParticles(CGuid(1), beyond), 0u);
    EXPECT_EQ(m_Reports.Take().size(), 1u) << "there is no such page";
    const CScopedRawPageReader reader(stream.Page(CGuid(0))->RawPage());
    EXPECT_EQ(stream.RemoveParticles(CGuid(0), {&beyond[0], 1}), 0u);
    EXPECT_EQ(m_Reports.Take().size(), 1u) << "a page that is being read";
    EXPECT_EQ(stream.Pages(), "[0-7]");
    EXPECT_EQ(stream.ParticleCount(), 8u);
}

TEST_F(StreamRemoval, MovesThatDoNotFitAreReportedAndMadeAllTheSame)
{
    CTestStream stream(8, m_Definition, {8});
    SParticleMove moves[1];
    TMemoryView<SParticleMove> told(moves, 1);
    EXPECT_EQ(stream.RemoveParticles(CGuid(0), std::vector<u32>{0, 1, 2}, &told), 3u);
    EXPECT_EQ(m_Reports.Take().size(), 1u);
    EXPECT_EQ(stream.Pages(), "[5-7 3-4]");
    EXPECT_TRUE(told.Count() == 1 && moves[0].m_From == 5 && moves[0].m_To == 0);
}

TEST_F(StreamRemoval, EmptiedPageStaysForTheNextBirths)
{
    CTestStream stream(2, m_Definition, {2, 2});
    stream.RemoveParticles(CGuid(0), std::vector<u32>{0, 1});
    EXPECT_EQ(stream.Pages(), "[] [2-3]");
    stream.Births(1);
    EXPECT_EQ(stream.Pages(), "[4] [2-3]");
}
