// The assertion protocol: what a site evaluates, reports, and does with each answer.

#include <csignal>

#include <gtest/gtest.h>

#include <support/report_recorder.h>
#include <tz_defs.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

// One site per _Site, so that a test may silence its own.
template <int _Site>
void AssertSite(bool holds, int &evaluations)
{
    TZ_ASSERT((++evaluations, holds));
}

template <int _Site>
void MessageSite(bool holds, int &evaluations)
{
    TZ_ASSERT_MESSAGE((++evaluations, holds), "%d of %s\n", evaluations, "many");
}

template <int _Site>
bool VerifySite(bool holds, int &evaluations)
{
    return TZ_VERIFY((++evaluations, holds));
}

template <int _Site>
bool VerifyMessageSite(bool holds, int &evaluations)
{
    return TZ_VERIFY_MESSAGE((++evaluations, holds), "%d of %s", ++evaluations, "many");
}

volatile std::sig_atomic_t g_TrapCount = 0;

// Counts breakpoints instead of stopping at them.
class CScopedTrapCounter
{
public:
    CScopedTrapCounter()
    {
        g_TrapCount = 0;
        m_Former = std::signal(SIGTRAP, [](int) { g_TrapCount = g_TrapCount + 1; });
    }
    ~CScopedTrapCounter() { std::signal(SIGTRAP, m_Former); }

private:
    void (*m_Former)(int);
};

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
    const CScopedTrapCounter traps;
    int evaluations = 0, expected = 0;
    for (const int answer : {int(Assert::Result_Break), 2, -1, 100, int(Assert::Result_Break)})
    {
        reports.AnswerWith(answer);
        AssertSite<3>(false, evaluations);
        MessageSite<3>(false, evaluations);
        EXPECT_FALSE(VerifySite<3>(false, evaluations) || VerifyMessageSite<3>(false, evaluations));
        EXPECT_EQ(g_TrapCount, expected += answer == Assert::Result_Break ? 4 : 0);
        EXPECT_EQ(reports.Take().size(), 4u) << "none of these silences anything";
    }
}

TEST(Assertion, DefaultHandlerPrintsOneLineAndGoesOn)
{
    CReportRecorder reports;
    Assert::SetHandler(null, null);
    int evaluations = 0;
    testing::internal::CaptureStderr();
    AssertSite<5>(false, evaluations);
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_NE(line.find("assert_test.cpp:"), std::string::npos) << line;
    EXPECT_NE(line.find("(++evaluations, holds)\n"), std::string::npos) << line;
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    testing::internal::CaptureStderr();
    TZ_ASSERT_MESSAGE(false, "ends its line itself\n");
    const std::string other = testing::internal::GetCapturedStderr();
    EXPECT_EQ(other.find('\n'), other.size() - 1);
}

} // namespace
} // namespace Tests
} // namespace Tessaly
