// Listens to the profiler's scopes while it lives.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <tz_kernel/include/kr_profiler.h>

namespace Tessaly
{
namespace Tests
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
        std::vector<std::string> taken;
        taken.swap(m_Scopes);
        return taken;
    }
    // The node that began last of those with that name, or null.
    const Profiler::SNodeDescriptor *Find(const std::string &name) const
    {
        for (const Profiler::SNodeDescriptor *node : m_Nodes)
        {
            if (node->m_Name == name)
                return node;
        }
        return null;
    }

private:
    void _Add(const char *sign, const Profiler::SNodeDescriptor &node)
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        m_Scopes.push_back(std::string(sign) + node.m_Name);
        m_Nodes.push_back(&node);
    }

    std::mutex m_Lock;
    std::vector<std::string> m_Scopes;
    std::vector<const Profiler::SNodeDescriptor *> m_Nodes;
};

} // namespace Tests
} // namespace Tessaly
