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

#include <tz_defs.h>

namespace Tessaly
{
namespace Tests
{

struct SSeenReport
{
    std::string m_Text; // the expression
    std::string m_Message;
    std::string m_Function; // full signature
    std::string m_File;
    bool m_IsVerify;
};

// One at a time hears the reports: the innermost. Reports may come from any thread.
class CReportRecorder : public CNonCopyable
{
public:
    using FnAtReport = std::function<void(const Assert::SReport &)>;

    CReportRecorder();
    ~CReportRecorder(); // fails the test when reports are left that were neither expected nor taken

    // Demands that exactly these texts, in this order, were reported since the last Expect or Take.
    void Expect(const std::vector<std::string> &texts);
    // The reports since the last Expect or Take, for a closer look; they count as expected.
    std::vector<SSeenReport> Take();
    u32 Count() const; // of those

    // Every report is answered with "go on", unless another answer is set. A site that was told to be silent stays so
    // for the life of the process: answer Result_Ignore only at sites that the test itself owns.
    void AnswerWith(int result);
    // Runs on the thread and under the locks of the check that failed.
    void AtEachReport(FnAtReport callback);

private:
    static int OnReport(const Assert::SReport &report, void *userData);

    CReportRecorder *m_Outer;
    mutable std::mutex m_Lock;
    std::vector<SSeenReport> m_Seen;
    FnAtReport m_AtReport;
    int m_Answer = Assert::Result_Continue;
};

} // namespace Tests
} // namespace Tessaly
