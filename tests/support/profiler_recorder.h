// Records the profiler's scopes while it lives.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <tz_kernel/include/kr_profiler.h>

namespace Tessaly::Tests
{

class CProfilerRecorder : public Profiler::CSinkAbstract
{
public:
    CProfilerRecorder() { Profiler::CProfiler::SetSink(this); }
    ~CProfilerRecorder() override { Profiler::CProfiler::SetSink(null); }

    void OnScopeBegin(const Profiler::SNodeDescriptor &node) override { _Add("+", node); }
    void OnScopeEnd(const Profiler::SNodeDescriptor &node) override { _Add("-", node); }

    // "+name" and "-name" of what began and ended since the last call.
    std::vector<std::string> Take()
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        return std::exchange(m_Scopes, {});
    }
    // The node of that name, or null.
    const Profiler::SNodeDescriptor *Find(const std::string &name) const
    {
        const auto node = m_Nodes.find(name);
        return node != m_Nodes.end() ? node->second : null;
    }

private:
    void _Add(const char *sign, const Profiler::SNodeDescriptor &node)
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        m_Scopes.push_back(std::string(sign) + node.m_Name);
        m_Nodes[node.m_Name] = &node;
    }

    std::mutex m_Lock;
    std::vector<std::string> m_Scopes;
    std::map<std::string, const Profiler::SNodeDescriptor *> m_Nodes;
};

} // namespace Tessaly::Tests
