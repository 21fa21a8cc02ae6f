// The assertion protocol: what a site evaluates, reports, and does with each answer.
#include <csignal>

#include <gtest/gtest.h>

#include <support/report_recorder.h>
#include <tz_defs.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

// One site per _Site, so that a test may silence its own.
template <int _Site>
static void AssertSite(bool holds, int &evaluations)
{
    TZ_ASSERT((++evaluations, holds));
}

template <int _Site>
static void MessageSite(bool holds, int &evaluations)
{
    TZ_ASSERT_MESSAGE((++evaluations, holds), "%d of %s\n", evaluations, "many");
}

template <int _Site>
static bool VerifySite(bool holds, int &evaluations)
{
    return TZ_VERIFY((++evaluations, holds));
}

template <int _Site>
static bool VerifyMessageSite(bool holds, int &evaluations)
{
    return TZ_VERIFY_MESSAGE((++evaluations, holds), "%d of %s", ++evaluations, "many");
}

TEST(Assertion, FailureIsReportedWithTextFunctionAndMessage)
{
    CReportRecorder reports;
    int evaluations = 0;
    AssertSite<0>(true, evaluations);
    EXPECT_TRUE(VerifySite<0>(true, evaluations) && VerifyMessageSite<0>(true, evaluations));
    EXPECT_EQ(reports.Count(), 0u);
    AssertSite<0>(false, evaluations);
    MessageSite<0>(false, evaluations);
    EXPECT_FALSE(VerifySite<0>(false, evaluations) || VerifyMessageSite<0>(false, evaluations));
    const std::vector<SSeenReport> seen = reports.Take();
    ASSERT_EQ(seen.size(), 4u);
    const std::string messages[] = {seen[0].m_Text, "5 of many\n", seen[2].m_Text, "8 of many"};
    for (u32 i = 0; i < 4; ++i)
    {
        EXPECT_EQ(seen[i].m_Text, "(++evaluations, holds)");
        EXPECT_EQ(seen[i].m_Message, messages[i]) << "formed after the condition, and only when it fails";
        EXPECT_EQ(seen[i].m_IsVerify, i >= 2);
        EXPECT_NE(seen[i].m_Function.find("Site(bool, int"), std::string::npos) << seen[i].m_Function;
        EXPECT_NE(seen[i].m_File.find("assert_test.cpp"), std::string::npos);
    }
}

TEST(Assertion, IgnoreSilencesThatSiteAlone)
{
    CReportRecorder reports;
    reports.AnswerWith(Assert::Result_Ignore);
    int evaluations = 0;
    for (u32 round = 0; round < 2; ++round)
    {
        AssertSite<1>(false, evaluations);
        MessageSite<1>(false, evaluations);
        EXPECT_FALSE(VerifySite<1>(false, evaluations)) << "it still takes its failure branch";
        int others = 0;
        EXPECT_FALSE(VerifyMessageSite<1>(false, others));
        EXPECT_EQ(reports.Take().size(), round == 0 ? 4u : 0u);
    }
    EXPECT_EQ(evaluations, 4) << "a silenced assertion evaluates nothing, a verification everything";
    reports.AnswerWith(Assert::Result_Continue);
    AssertSite<2>(false, evaluations);
    EXPECT_EQ(reports.Take().size(), 1u);
}

TEST(Assertion, BreakTrapsAndEveryAnswerGoesOn)
{
    CReportRecorder reports;
    static volatile std::sig_atomic_t s_TrapCount = 0; // counted instead of stopping the program
    const auto former = std::signal(SIGTRAP, [](int) { s_TrapCount = s_TrapCount + 1; });
    int evaluations = 0, expected = 0;
    for (const int answer : {int(Assert::Result_Break), 2, -1, 100, int(Assert::Result_Break)})
    {
        reports.AnswerWith(answer);
        AssertSite<3>(false, evaluations);
        MessageSite<3>(false, evaluations);
        EXPECT_FALSE(VerifySite<3>(false, evaluations) || VerifyMessageSite<3>(false, evaluations));
        EXPECT_EQ(s_TrapCount, expected += answer == Assert::Result_Break ? 4 : 0);
        EXPECT_EQ(reports.Take().size(), 4u) << "none of these silences anything";
    }
    std::signal(SIGTRAP, former);
}

TEST(Assertion, DefaultHandlerPrintsOneLineAndGoesOn)
{
    CReportRecorder reports;
    Assert::SetHandler(null, null);
    int evaluations = 0;
    for (const bool endsItsLine : {false, true})
    {
        testing::internal::CaptureStderr();
        endsItsLine ? MessageSite<5>(false, evaluations) : AssertSite<5>(false, evaluations);
        const std::string line = testing::internal::GetCapturedStderr();
        EXPECT_NE(line.find("assert_test.cpp:"), std::string::npos) << line;
        EXPECT_NE(line.find(endsItsLine ? "2 of many\n" : "(++evaluations, holds)\n"), std::string::npos) << line;
        EXPECT_EQ(line.find('\n'), line.size() - 1);
    }
}
