#include "program.h"

#include "output_file.h"
#include "report.h"
#include "wind_run.h"

#include <tz_kernel/include/kr_profiler_trace.h>
#include <tz_particles/include/ps_runtime.h>

#include <atomic>
#include <filesystem>

namespace Wind
{
namespace
{
constexpr u32 kMaxReportsShown = 10;

// Counts the assertions reported during its lifetime and prints the first ones.
class CReportCounter : CNonCopyable
{
public:
    explicit CReportCounter(std::FILE *err)
        : m_Err(err)
    {
        Assert::SetHandler(&_OnReport, this);
    }
    ~CReportCounter() { Assert::SetHandler(nullptr, nullptr); }

    u32 Count() const { return m_Count; }

private:
    static int _OnReport(const Assert::SReport &report, void *userData)
    {
        CReportCounter &self = *static_cast<CReportCounter *>(userData);
        if (self.m_Count++ < kMaxReportsShown)
            std::fprintf(self.m_Err, "%s:%d: %s\n", report.m_File, report.m_Line, report.m_Message);
        return Assert::Result_Continue;
    }

    std::FILE *m_Err;
    std::atomic<u32> m_Count = 0;
};

// Starts the library for a scope.
class CScopedRuntime : CNonCopyable
{
public:
    CScopedRuntime()
        : m_IsStarted(Particles::Startup())
    {
    }
    ~CScopedRuntime()
    {
        if (m_IsStarted)
            Particles::Shutdown();
    }

    bool IsStarted() const { return m_IsStarted; }

private:
    bool m_IsStarted;
};

int Fail(std::FILE *err, EExit status, const std::string &problem)
{
    std::fprintf(err, "wind: %s\n", problem.c_str());
    return status;
}

// True if everything was written to the stream.
bool IsWritten(std::FILE *stream) { return std::fflush(stream) == 0 && std::ferror(stream) == 0; }

bool MakeFolder(const std::filesystem::path &folder, std::string &outError)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (folder.empty() || std::filesystem::is_directory(folder, error))
        return true;
    return outError = folder.string() + " is not a folder and cannot be created", false;
}

// Makes the folders of all output files, before the run.
bool MakeFolders(const SOptions &options, std::string &outError)
{
    return MakeFolder(options.m_OutputFolder, outError) &&
           MakeFolder(std::filesystem::path(options.m_TraceFile).parent_path(), outError) &&
           MakeFolder(std::filesystem::path(options.m_SnapshotFile).parent_path(), outError);
}

void RunFrames(CWindRun &run, u32 frameCount, std::FILE *out)
{
    CProgress progress(out, frameCount);
    for (u32 frame = 0; frame < frameCount; ++frame)
    {
        run.PlayFrame(frame);
        progress.Show(frame + 1, run.Particles().Stream().ParticleCount());
    }
}

bool WriteTrace(const Profiler::CTraceSink &trace, const std::string &path, std::string &outError)
{
    COutputFile file(path);
    if (file.Handle() == nullptr || !trace.Write(file.Handle()))
        return outError = path + " cannot be written", false;
    return file.Commit(outError);
}

EExit RunAndWrite(const SOptions &options, const CWindField &field, std::FILE *out, std::vector<std::string> &outPaths,
                  std::string &outError)
{
    const bool isTraced = !options.m_TraceFile.empty();
    Profiler::CTraceSink trace(isTraced ? Profiler::CTraceSink::kDefaultMaxScopes : 0);
    CWindRun run(options, field);
    if (!options.m_FromFile.empty() && !run.LoadFrom(options.m_FromFile, outError))
        return Exit_BadInput;
    if (isTraced)
        Profiler::CProfiler::SetSink(&trace);
    RunFrames(run, options.m_FrameCount, out);
    Profiler::CProfiler::SetSink(nullptr);
    PrintTable(out, run);
    if (!run.WritePictures(outPaths, outError) || (isTraced && !WriteTrace(trace, options.m_TraceFile, outError)))
        return Exit_Failure;
    if (isTraced)
        outPaths.push_back(options.m_TraceFile);
    if (options.m_SnapshotFile.empty())
        return Exit_Success;
    outPaths.push_back(options.m_SnapshotFile);
    return run.Particles().Save(options.m_SnapshotFile, outError) ? Exit_Success : Exit_Failure;
}

int Run(const SOptions &options, const CWindField &field, std::FILE *out, std::FILE *err)
{
    const CScopedRuntime runtime;
    const CReportCounter reports(err);
    std::vector<std::string> paths;
    std::string problem;
    if (!runtime.IsStarted())
        return Fail(err, Exit_Failure, "the particle runtime cannot be started");
    if (const EExit status = RunAndWrite(options, field, out, paths, problem))
        return Fail(err, status, problem);
    std::fprintf(out, "%-12s %u\n", "assertions", reports.Count());
    for (const std::string &path : paths)
        std::fprintf(out, "%-12s %s\n", "written", path.c_str());
    if (!IsWritten(out))
        return Fail(err, Exit_Failure, "the output cannot be written");
    return reports.Count() == 0 ? Exit_Success : Exit_Failure;
}
} // namespace

int RunProgram(int argc, const char *const *argv, std::FILE *out, std::FILE *err)
{
    SOptions options;
    CWindField field;
    std::string text;
    const std::string ownForecast = WIND_DATA_FOLDER "/gfs-wind-2017-10-20.json";
    options.m_Input = ownForecast;
    switch (ParseOptions(argc, argv, options, text))
    {
    case EParse::Help:
        std::fputs(text.c_str(), out);
        return IsWritten(out) ? Exit_Success : Exit_Failure;
    case EParse::Bad:
        return Fail(err, Exit_BadInput, text);
    case EParse::Run:
        break;
    }
    options.m_Source = options.m_Input == ownForecast ? "Global Forecast System of NOAA"
                                                      : std::filesystem::path(options.m_Input).filename().string();
    if (!field.Load(options.m_Input, text) || !MakeFolders(options, text))
        return Fail(err, Exit_BadInput, text);
    return Run(options, field, out, err);
}
} // namespace Wind
