// A profiler sink that writes trace-event JSON, the format that trace viewers open.
//
//   Profiler::CTraceSink trace;
//   Profiler::CProfiler::SetSink(&trace);
//   ...
//   Profiler::CProfiler::SetSink(null);
//   trace.Write(file);
//
// It keeps the scopes that ended last, of all threads, up to a number that it is told. Those before them are dropped
// and counted, and so is a scope inside kMaxDepth others of its thread. All memory is asked for when the sink is made.
#pragma once

#include <cstdio>
#include <mutex>

#include "kr_profiler.h"

namespace Tessaly
{
namespace Profiler
{

// Keeps the scopes that it hears, for one file.
class TZ_API CTraceSink : public CSinkAbstract, public CNonCopyable
{
public:
    static constexpr u32 kDefaultMaxScopes = 1u << 20; // 32 MiB
    static constexpr u32 kMaxDepth = 64;               // scopes open at a time in one thread
    static constexpr u32 kMaxThreads = 256;            // that are named; others are told by their number alone

    // Asks for 32 bytes a scope, which cost nothing until they are used. When memory is refused, all scopes are
    // dropped.
    explicit CTraceSink(u32 maxScopes = kDefaultMaxScopes);
    // Requires what CProfiler::SetSink does: another sink is set, and no scope that began with this one is open.
    ~CTraceSink() override;

    // Called by the profiler, on any thread. A scope counts when it ends.
    void OnScopeBegin(const SNodeDescriptor &node) override;
    void OnScopeEnd(const SNodeDescriptor &node) override;

    u32 ScopeCount() const;   // kept
    u64 DroppedCount() const; // not kept

    // Writes what was kept until now: one object whose traceEvents hold a complete event (X; times in microseconds
    // since the sink was made) for each scope, in the order in which they ended, and a thread_name event for each
    // thread: the name that the system had for it when it came here first. otherData.droppedScopes tells what is
    // missing. Names are written as they are, in UTF-8; a byte that is not valid UTF-8 becomes U+FFFD.
    // False when the stream refused something. Any thread; recording threads wait meanwhile.
    bool Write(std::FILE *stream) const;

private:
    struct SScope
    {
        const SNodeDescriptor *m_Node;
        u64 m_Start; // nanoseconds since the sink was made
        u64 m_Duration;
        u32 m_ThreadId;
    };
    struct SThread
    {
        u32 m_Id;
        char m_Name[16];
    };

    static u64 _Nanoseconds();
    void _NameThread_NoLock(u32 threadId);

    const u64 m_Origin;
    const u32 m_SinkId;        // told apart from one that stood at the same address
    mutable std::mutex m_Lock; // guards the rest; no service is called under it
    SScope *m_Scopes;
    u32 m_MaxScopes;
    u32 m_ScopeCount; // kept
    u32 m_NextScope;  // where the next one goes: when all are used, the place of the oldest
    u64 m_DroppedCount;
    u32 m_ThreadCount;
    SThread m_Threads[kMaxThreads];
};

} // namespace Profiler
} // namespace Tessaly
