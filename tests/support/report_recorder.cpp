#include "report_recorder.h"

#include <gtest/gtest.h>

namespace Tessaly
{
namespace Tests
{

namespace
{

CReportRecorder *g_Innermost = null;

std::vector<std::string> Texts(const std::vector<SSeenReport> &reports)
{
    std::vector<std::string> texts;
    for (const SSeenReport &report : reports)
        texts.push_back(report.m_Text);
    return texts;
}

} // namespace

CReportRecorder::CReportRecorder()
    : m_Outer(g_Innermost)
{
    g_Innermost = this;
    Assert::SetHandler(&OnReport, this);
}

CReportRecorder::~CReportRecorder()
{
    g_Innermost = m_Outer;
    Assert::SetHandler(m_Outer != null ? &OnReport : null, m_Outer);
    EXPECT_EQ(Texts(m_Seen), std::vector<std::string>()) << "reports that nobody expected";
}

void CReportRecorder::Expect(const std::vector<std::string> &texts) { EXPECT_EQ(Texts(Take()), texts); }

std::vector<SSeenReport> CReportRecorder::Take()
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    std::vector<SSeenReport> taken;
    taken.swap(m_Seen);
    return taken;
}

u32 CReportRecorder::Count() const
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    return u32(m_Seen.size());
}

void CReportRecorder::AnswerWith(int result)
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    m_Answer = result;
}

void CReportRecorder::AtEachReport(FnAtReport callback)
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    m_AtReport = std::move(callback);
}

int CReportRecorder::OnReport(const Assert::SReport &report, void *userData)
{
    CReportRecorder &self = *static_cast<CReportRecorder *>(userData);
    FnAtReport callback;
    int answer;
    {
        const std::lock_guard<std::mutex> lock(self.m_Lock);
        self.m_Seen.push_back(
            {report.m_Expression, report.m_Message, report.m_Function, report.m_File, report.m_IsVerify});
        callback = self.m_AtReport;
        answer = self.m_Answer;
    }
    if (callback)
        callback(report);
    return answer;
}

} // namespace Tests
} // namespace Tessaly
