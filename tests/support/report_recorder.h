// Records the reports of the assertion protocol while it lives; a report that nobody expected fails the running test.
//
//   CReportRecorder reports;
//   stream.UnlockPages();
//   reports.Expect({"m_PagesLocked != 0", "m_ThreadOwningLock == CCurrentThread::ThreadID()"});
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tz_defs.h>

namespace Tessaly::Tests
{

struct SSeenReport
{
    std::string m_Text, m_Message, m_Function, m_File; // the expression; what is told; the full signature
    bool m_IsVerify;
};

// One at a time records: the innermost. Reports may come from any thread.
class CReportRecorder : public CNonCopyable
{
public:
    using FnAtReport = std::function<void(const Assert::SReport &)>;

    CReportRecorder()
        : m_Outer(std::exchange(s_Innermost, this))
    {
        Assert::SetHandler(&OnReport, this);
    }
    // Fails the test when reports are left that were neither expected nor taken.
    ~CReportRecorder()
    {
        s_Innermost = m_Outer;
        Assert::SetHandler(m_Outer != null ? &OnReport : null, m_Outer);
        Expect({});
    }

    // Demands that exactly these texts, in this order, were reported since the last Expect or Take.
    void Expect(const std::vector<std::string> &texts)
    {
        std::vector<std::string> seenTexts;
        for (const SSeenReport &report : Take())
            seenTexts.push_back(report.m_Text);
        EXPECT_EQ(seenTexts, texts) << "reports";
    }
    // The reports since the last Expect or Take, for a closer look; they count as expected.
    std::vector<SSeenReport> Take()
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        return std::exchange(m_Seen, {});
    }
    u32 Count() const // of those
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        return u32(m_Seen.size());
    }

    // Every report is answered with "go on", unless another answer is set. A site that was told to be silent stays so
    // for the life of the process: answer Result_Ignore only at sites that the test itself owns.
    void AnswerWith(int result)
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        m_Answer = result;
    }
    // Runs on the thread and under the locks of the check that failed.
    void AtEachReport(FnAtReport callback)
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        m_AtReport = std::move(callback);
    }

private:
    static int OnReport(const Assert::SReport &report, void *userData)
    {
        CReportRecorder &self = *static_cast<CReportRecorder *>(userData);
        std::unique_lock<std::mutex> lock(self.m_Lock);
        self.m_Seen.push_back(
            {report.m_Expression, report.m_Message, report.m_Function, report.m_File, report.m_IsVerify});
        const FnAtReport callback = self.m_AtReport;
        const int answer = self.m_Answer;
        lock.unlock();
        if (callback)
            callback(report);
        return answer;
    }

    inline static CReportRecorder *s_Innermost = null;

    CReportRecorder *m_Outer;
    mutable std::mutex m_Lock;
    std::vector<SSeenReport> m_Seen;
    FnAtReport m_AtReport;
    int m_Answer = Assert::Result_Continue;
};

} // namespace Tessaly::Tests
