#pragma once
// Listens to the profiler and writes what it heard as trace-event JSON, which trace viewers open.
// Scopes may come from any thread. At most kMaxScopes are kept; those beyond are counted.

#include <tz_kernel/include/kr_profiler.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace Wind
{
using namespace Tessaly;

class CTraceSink final : public Profiler::CSinkAbstract
{
public:
    static constexpr size_t kMaxScopes = 1u << 20;

    void OnScopeBegin(const Profiler::SNodeDescriptor &node) override;
    void OnScopeEnd(const Profiler::SNodeDescriptor &node) override;

    // False: `outError` names the file, and nothing is left of it.
    bool Write(const std::string &path, std::string &outError) const;

    size_t ScopeCount() const;

private:
    struct SScope
    {
        const Profiler::SNodeDescriptor *m_Node;
        u64 m_Start, m_Duration; // nanoseconds
        u32 m_Thread;
    };

    u64 _Now() const;

    const std::chrono::steady_clock::time_point m_Origin = std::chrono::steady_clock::now();
    mutable std::mutex m_Lock; // guards the two below
    std::vector<SScope> m_Scopes;
    u64 m_DroppedCount = 0;
};

// The main profiler reports to a sink for the length of a scope.
class CScopedTrace : CNonCopyable
{
public:
    explicit CScopedTrace(CTraceSink *sink); // null: no trace
    ~CScopedTrace();
};
} // namespace Wind
