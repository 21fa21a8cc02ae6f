// The trace sink: scopes kept as they end, written as JSON at the end.
#include "../include/kr_profiler_trace.h"

#include <chrono>
#include <cinttypes>
#include <pthread.h>

#include "../include/kr_mem.h"
#include "../include/kr_threads_basics.h"

namespace Tessaly
{
namespace Profiler
{

namespace
{

u32 g_LastSinkId = 0;

// The open scopes of a thread, which end in the opposite order, whatever sink they began with.
struct SOpenScopes
{
    u64 m_Starts[CTraceSink::kMaxDepth];
    u32 m_Depth;
    u32 m_NamedInSink; // id of the sink that knows the thread already
};

thread_local SOpenScopes t_Open;

// A JSON string, quotes included.
void WriteText(std::FILE *stream, const char *text)
{
    std::fputc('"', stream);
    for (; *text != '\0'; ++text)
    {
        const u8 byte = static_cast<u8>(*text);
        if (byte == '"' || byte == '\\')
            std::fprintf(stream, "\\%c", byte);
        else if (byte >= 0x20 && byte < 0x7F)
            std::fputc(byte, stream);
        else
            std::fprintf(stream, "\\u%04x", byte);
    }
    std::fputc('"', stream);
}

} // namespace

CTraceSink::CTraceSink(u32 maxScopes)
    : m_Origin(_Nanoseconds())
    , m_SinkId(__atomic_add_fetch(&g_LastSinkId, 1, __ATOMIC_RELAXED))
    , m_Scopes(static_cast<SScope *>(Mem::_RawAlloc(u64(maxScopes) * sizeof(SScope), 0, Mem::AllocType_Generic,
                                                    Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                                                    TZ_FUNCTION_SIGNATURE)))
    , m_MaxScopes(m_Scopes != null ? maxScopes : 0)
    , m_ScopeCount(0)
    , m_DroppedCount(0)
    , m_ThreadCount(0)
    , m_Threads()
{
}

CTraceSink::~CTraceSink()
{
    Mem::_RawFree(m_Scopes, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
}

u64 CTraceSink::_Nanoseconds()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return u64(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

void CTraceSink::OnScopeBegin(const SNodeDescriptor &)
{
    const u32 depth = t_Open.m_Depth++;
    if (depth < kMaxDepth)
        t_Open.m_Starts[depth] = _Nanoseconds();
}

void CTraceSink::OnScopeEnd(const SNodeDescriptor &node)
{
    const u64 end = _Nanoseconds();
    if (t_Open.m_Depth == 0)
        return; // it never began
    const u32 depth = --t_Open.m_Depth;
    const u32 threadId = CCurrentThread::ThreadID();

    const std::lock_guard<std::mutex> lock(m_Lock);
    if (depth >= kMaxDepth || m_ScopeCount == m_MaxScopes)
    {
        ++m_DroppedCount;
        return;
    }
    if (t_Open.m_NamedInSink != m_SinkId)
        _NameThread_NoLock(threadId);
    const u64 start = t_Open.m_Starts[depth];
    m_Scopes[m_ScopeCount++] = {&node, start - m_Origin, end - start, threadId};
}

void CTraceSink::_NameThread_NoLock(u32 threadId)
{
    t_Open.m_NamedInSink = m_SinkId;
    for (u32 i = 0; i < m_ThreadCount; ++i)
    {
        if (m_Threads[i].m_Id == threadId) // it was in another sink meanwhile
            return;
    }
    SThread thread = {threadId, {}};
    if (m_ThreadCount != kMaxThreads && pthread_getname_np(pthread_self(), thread.m_Name, sizeof(thread.m_Name)) == 0)
        m_Threads[m_ThreadCount++] = thread;
}

u32 CTraceSink::ScopeCount() const
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    return m_ScopeCount;
}

u64 CTraceSink::DroppedCount() const
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    return m_DroppedCount;
}

bool CTraceSink::Write(std::FILE *stream) const
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    std::fprintf(stream, "{\"displayTimeUnit\":\"ns\",\"otherData\":{\"droppedScopes\":%" PRIu64 "},\"traceEvents\":[",
                 m_DroppedCount);
    const char *separator = "\n";
    for (u32 i = 0; i < m_ThreadCount; ++i, separator = ",\n")
    {
        std::fprintf(stream,
                     "%s{\"ph\":\"M\",\"name\":\"thread_name\",\"pid\":1,\"tid\":%u,\"args\":{\"name\":", separator,
                     m_Threads[i].m_Id);
        WriteText(stream, m_Threads[i].m_Name);
        std::fputs("}}", stream);
    }
    for (u32 i = 0; i < m_ScopeCount; ++i, separator = ",\n")
    {
        const SScope &scope = m_Scopes[i];
        std::fprintf(stream, "%s{\"ph\":\"X\",\"name\":", separator);
        WriteText(stream, scope.m_Node->m_Name);
        // Microseconds with three decimals, exactly: what lies inside another scope must lie there in the file, too.
        std::fprintf(stream, ",\"ts\":%" PRIu64 ".%03u,\"dur\":%" PRIu64 ".%03u,\"pid\":1,\"tid\":%u}",
                     scope.m_Start / 1000, u32(scope.m_Start % 1000), scope.m_Duration / 1000,
                     u32(scope.m_Duration % 1000), scope.m_ThreadId);
    }
    std::fputs("\n]}\n", stream);
    return std::fflush(stream) == 0 && std::ferror(stream) == 0;
}

} // namespace Profiler
} // namespace Tessaly
