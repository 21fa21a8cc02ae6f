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
    EXPECT_EQ(reports.Count(), 0u);
    AssertSite<0>(false, evaluations);
    MessageSite<0>(false, evaluations);
    EXPECT_FALSE(VerifySite<0>(false, evaluations));
    EXPECT_TRUE(VerifySite<0>(true, evaluations));

    const std::vector<SSeenReport> seen = reports.Take();
    ASSERT_EQ(seen.size(), 3u);
    for (const SSeenReport &report : seen)
    {
        EXPECT_EQ(report.m_Text, "(++evaluations, holds)");
        EXPECT_NE(report.m_Function.find("Site(bool, int"), std::string::npos) << report.m_Function;
        EXPECT_NE(report.m_File.find("assert_test.cpp"), std::string::npos);
    }
    EXPECT_EQ(seen[0].m_Message, seen[0].m_Text);
    EXPECT_EQ(seen[1].m_Message, "3 of many\n") << "the message is formed after the condition";
    EXPECT_EQ(seen[2].m_Message, seen[2].m_Text);
    EXPECT_FALSE(seen[0].m_IsVerify);
    EXPECT_FALSE(seen[1].m_IsVerify);
    EXPECT_TRUE(seen[2].m_IsVerify);
}

TEST(Assertion, IgnoreSilencesThatSiteAlone)
{
    CReportRecorder reports;
    reports.AnswerWith(Assert::Result_Ignore);
    int evaluations = 0;
    AssertSite<1>(false, evaluations);
    MessageSite<1>(false, evaluations);
    EXPECT_EQ(reports.Take().size(), 2u);
    AssertSite<1>(false, evaluations);
    MessageSite<1>(false, evaluations);
    EXPECT_EQ(evaluations, 2) << "a silenced assertion evaluates nothing";

    reports.AnswerWith(Assert::Result_Continue);
    AssertSite<2>(false, evaluations);
    EXPECT_EQ(reports.Take().size(), 1u);
}

TEST(Verification, IgnoredSiteStillTakesItsFailureBranch)
{
    CReportRecorder reports;
    reports.AnswerWith(Assert::Result_Ignore);
    int evaluations = 0;
    EXPECT_FALSE(VerifySite<1>(false, evaluations));
    EXPECT_EQ(reports.Take().size(), 1u);
    EXPECT_FALSE(VerifySite<1>(false, evaluations));
    EXPECT_TRUE(VerifySite<1>(true, evaluations));
    EXPECT_EQ(evaluations, 3) << "a verification is always evaluated";
}

TEST(Assertion, BreakTrapsAndGoesOn)
{
    CReportRecorder reports;
    const CScopedTrapCounter traps;
    reports.AnswerWith(Assert::Result_Break);
    int evaluations = 0;
    for (int round = 1; round <= 2; ++round)
    {
        AssertSite<3>(false, evaluations);
        MessageSite<3>(false, evaluations);
        EXPECT_FALSE(VerifySite<3>(false, evaluations));
        EXPECT_EQ(g_TrapCount, 3 * round);
        EXPECT_EQ(reports.Take().size(), 3u) << "to break silences nothing";
    }
}

TEST(Assertion, AnyOtherAnswerGoesOn)
{
    CReportRecorder reports;
    const CScopedTrapCounter traps;
    int evaluations = 0;
    for (const int answer : {2, -1, 100})
    {
        reports.AnswerWith(answer);
        AssertSite<4>(false, evaluations);
        MessageSite<4>(false, evaluations);
        EXPECT_FALSE(VerifySite<4>(false, evaluations));
        EXPECT_EQ(reports.Take().size(), 3u);
    }
    EXPECT_EQ(g_TrapCount, 0);
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
}

} // namespace
} // namespace Tests
} // namespace Tessaly
