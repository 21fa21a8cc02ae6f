// A profiler sink that writes trace-event JSON, which trace viewers read.
//
//   Profiler::CTraceSink trace;
//   Profiler::CProfiler::SetSink(&trace);
//   ...
//   Profiler::CProfiler::SetSink(null);
//   trace.Write(file);
//
// It keeps the last scopes of all threads in a ring buffer of fixed size, in the order of their ends. Older ones are
// dropped and counted, as are scopes nested deeper than kMaxDepth. All memory is allocated by the constructor.
#pragma once

#include <cstdio>
#include <mutex>

#include "kr_profiler.h"

namespace Tessaly::Profiler
{

// Records scopes until they are written to a file.
class TZ_API CTraceSink : public CSinkAbstract, public CNonCopyable
{
public:
    static constexpr u32 kDefaultMaxScopes = 1u << 20; // 32 MiB
    static constexpr u32 kMaxDepth = 64;               // open scopes of a thread
    static constexpr u32 kMaxThreads = 256;            // threads with a name; others have only their number

    // Allocates 32 bytes a scope, which are not resident until they are used.
    // Fails: all scopes are dropped when memory is refused.
    explicit CTraceSink(u32 maxScopes = kDefaultMaxScopes);
    // Requires, as CProfiler::SetSink, that another sink is set and that no scope that began with this one is open.
    ~CTraceSink() override;

    // Called by the profiler, on any thread. A scope is recorded when it ends.
    void OnScopeBegin(const SNodeDescriptor &node) override;
    void OnScopeEnd(const SNodeDescriptor &node) override;

    // Scopes that are kept, and scopes that were dropped.
    u32 ScopeCount() const;
    u64 DroppedCount() const;

    // Writes the recorded scopes as one JSON object. Its traceEvents have a complete event (X; times in microseconds
    // since the sink's construction) for each scope, in the order of their ends, and a thread_name event for each
    // thread: the name that the thread had when its first scope ended. otherData.droppedScopes is the number of dropped
    // scopes. Names are written as UTF-8; a byte that is not valid UTF-8 becomes U+FFFD.
    // Returns: false when writing to the stream failed.
    // Lock:    blocks recording threads meanwhile; any thread.
    bool Write(std::FILE *stream) const;

private:
    struct SScope
    {
        const SNodeDescriptor *m_Node;
        u64 m_Start; // nanoseconds since m_Origin
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
    const u32 m_SinkId;        // never reused, unlike the address
    mutable std::mutex m_Lock; // guards the members below; no service is called under it
    SScope *m_Scopes;          // a ring buffer
    u32 m_MaxScopes;
    u32 m_ScopeCount = 0;
    u32 m_NextScope = 0; // index of the next write; in a full ring that of the oldest scope
    u64 m_DroppedCount = 0;
    u32 m_ThreadCount = 0;
    SThread m_Threads[kMaxThreads] = {};
};

} // namespace Tessaly::Profiler
