// Births: which page serves a request, what new slots hold, and what is counted.
#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

using StreamBirths = CStreamTest;

TEST_F(StreamBirths, FullPageMakesTheNextBirthOpenANewPage)
{
    CTestStream stream(64, m_Definition);
    const CParticlePageView born = stream.Births(50);
    EXPECT_TRUE(born.FirstParticle() == 0 && born.ParticleCount() == 50);
    EXPECT_EQ(stream.Pages(), "[0-49]");
    stream.Births(14);
    EXPECT_EQ(stream.Pages(), "[0-63]");
    stream.Births(2);
    EXPECT_EQ(stream.Pages(), "[0-63] [64-65]");
    EXPECT_EQ(stream.ParticleCount(), 66u);
}

TEST_F(StreamBirths, FirstPageWithTheHintedFreeSlotsServes)
{
    const struct
    {
        const char *m_Case;
        u32 m_Wished, m_Hint;
        u32 m_Page, m_First, m_Count; // expected
    } cases[] = {
        {"without a hint all have to fit", 600, 0, 2, 24, 600},
        {"with a hint less is enough", 600, 5, 0, 1014, 10},
        {"a hint is at most the request", 500, 700, 1, 524, 500},
        {"they fill the page exactly", 1000, 0, 2, 24, 1000},
        {"nothing fits: a new page", 1001, 0, 3, 0, 1001},
        {"more than a page is cut to a page", 5000, 0, 3, 0, 1024},
        {"no particle fits everywhere", 0, 0, 0, 1014, 0},
    };
    for (const auto &birth : cases)
    {
        SCOPED_TRACE(birth.m_Case);
        CTestStream stream(1024, m_Definition, {1014, 524, 24});
        CParticlePageView born = stream.Births(birth.m_Wished, birth.m_Hint);
        EXPECT_EQ(born.OriginalPage(), stream.Page(CGuid(birth.m_Page)));
        EXPECT_EQ(born.FirstParticle(), birth.m_First);
        EXPECT_EQ(born.ParticleCount(), birth.m_Count);
        EXPECT_EQ(stream.ParticleCount(), 1562 + birth.m_Count);
    }
}

TEST_F(StreamBirths, OneRequestIsSpreadOverAsManyPagesAsItNeeds)
{
    CTestStream stream(64, m_Definition, {60, 64, 10});
    TArray<CParticlePageView> views;
    EXPECT_EQ(stream.AllocateParticles(200, views), 200u);
    std::vector<u32> counts;
    for (const CParticlePageView &view : views)
        counts.push_back(view.ParticleCount());
    EXPECT_EQ(counts, (std::vector<u32>{4, 54, 64, 64, 14})) << "free slots are used up first";
    EXPECT_EQ(stream.ParticleCount(), 334u);
}

TEST_F(StreamBirths, FreshSlotsReadF3AndUsedOnesWhatTheDeadLeft)
{
    CTestStream stream(4, m_Definition, {4});
    const u32 last = 3;
    stream.RemoveParticles(CGuid(0), {&last, 1});
    EXPECT_EQ(stream.AllocateParticlesIFP(1, 0).DenseColumn<float>(CGuid(1))[0], 3.0f);
    const CParticlePageView fresh = stream.AllocateParticlesIFP(4, 0);
    EXPECT_EQ(fresh.Column<u32>(CGuid(1))[3], 0xF3F3F3F3u);
    EXPECT_EQ(fresh.Column<CFloat4>(CGuid(2))[3], CFloat4(0.25f, 0.5f, 0.75f, 1.0f)) << "a constant has its value";
}

TEST_F(StreamBirths, WithoutMemoryOnlyFreeSlotsServe)
{
    CTestStream stream(64, m_Definition, {60}), unbound(64);
    m_Runtime.Allocator().SetMemoryBudget(1);
    EXPECT_TRUE(stream.Births(5).Empty());
    EXPECT_EQ(stream.Pages(), "[0-59]");
    TArray<CParticlePageView> views;
    EXPECT_EQ(stream.AllocateParticles(100, views), 4u);
    EXPECT_EQ(views.Count(), 1u);
    EXPECT_EQ(stream.ParticleCount(), 64u);
    EXPECT_TRUE(unbound.AllocateParticlesIFP(1, 0).Empty());
}

TEST_F(StreamBirths, CountThatDoesNotMatchThePagesIsReported)
{
    CTestStream stream(64, m_Definition, {10});
    stream.RegisterBornCount(5); // they were counted when they were allocated
    m_Reports.Expect({kCountText});
    stream.RegisterDeadCount(5);
    stream.RegisterDeadCount(11);
    m_Reports.Expect({kCountText, "s32(m_ParticleCount.Load()) >= 0"});
    stream.RegisterBornCount_NoConsistencyCheck(11);
    stream.Page(CGuid(0))->AllocateParticles(3); // by other means: they have to be registered
    stream.RegisterBornCount(3);
    EXPECT_EQ(stream.ParticleCount(), 13u);
}
