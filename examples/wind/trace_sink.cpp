#include "trace_sink.h"

#include "output_file.h"

#include <tz_kernel/include/kr_threads_basics.h>

#include <nlohmann/json.hpp>

namespace Wind
{
namespace
{
struct SOpenScope
{
    const Profiler::SNodeDescriptor *m_Node;
    u64 m_Start;
};

thread_local std::vector<SOpenScope> t_OpenScopes;
} // namespace

void CTraceSink::OnScopeBegin(const Profiler::SNodeDescriptor &node) { t_OpenScopes.push_back({&node, _Now()}); }

void CTraceSink::OnScopeEnd(const Profiler::SNodeDescriptor &node)
{
    if (t_OpenScopes.empty() || t_OpenScopes.back().m_Node != &node)
        return; // began before this sink listened
    const u64 start = t_OpenScopes.back().m_Start;
    t_OpenScopes.pop_back();
    const SScope scope = {&node, start, _Now() - start, CCurrentThread::ThreadID()};

    const std::lock_guard<std::mutex> lock(m_Lock);
    if (m_Scopes.size() < kMaxScopes)
        m_Scopes.push_back(scope);
    else
        ++m_DroppedCount;
}

bool CTraceSink::Write(const std::string &path, std::string &outError) const
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    COutputFile file(path);
    if (file.Handle() == nullptr)
        return outError = path + " cannot be written", false;
    const char *separator = "";
    std::fprintf(file.Handle(),
                 "{\"displayTimeUnit\":\"ms\",\"otherData\":{\"droppedScopes\":\"%llu\"},\"traceEvents\":[",
                 static_cast<unsigned long long>(m_DroppedCount));
    for (const SScope &scope : m_Scopes)
    {
        const std::string name = nlohmann::json(scope.m_Node->m_Name).dump();
        std::fprintf(file.Handle(), "%s\n{\"name\":%s,\"ph\":\"X\",\"ts\":%.3f,\"dur\":%.3f,\"pid\":1,\"tid\":%u}",
                     separator, name.c_str(), double(scope.m_Start) * 1e-3, double(scope.m_Duration) * 1e-3,
                     scope.m_Thread);
        separator = ",";
    }
    std::fputs("\n]}\n", file.Handle());
    return file.Commit(outError);
}

size_t CTraceSink::ScopeCount() const
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    return m_Scopes.size();
}

u64 CTraceSink::_Now() const
{
    const auto elapsed = std::chrono::steady_clock::now() - m_Origin;
    return u64(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count());
}

CScopedTrace::CScopedTrace(CTraceSink *sink) { Profiler::CProfiler::SetSink(sink); }
CScopedTrace::~CScopedTrace() { Profiler::CProfiler::SetSink(nullptr); }
} // namespace Wind
