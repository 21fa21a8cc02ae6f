// The trace sink: a ring buffer of the last scopes, written as JSON at the end.
#include "../include/kr_profiler_trace.h"

#include <chrono>
#include <cinttypes>
#include <pthread.h>
#include <unistd.h>

#include "../include/kr_mem.h"
#include "../include/kr_threads_basics.h"

namespace Tessaly::Profiler
{

namespace
{

u32 g_LastSinkId = 0;

// The open scopes of a thread, those of other sinks included. They end in the opposite order.
struct SOpenScopes
{
    u64 m_Starts[CTraceSink::kMaxDepth];
    u32 m_Depth;
    u32 m_NamedInSink; // id of the sink that last stored the thread's name
};

thread_local SOpenScopes t_Open;

// The number of bytes of the character at text; 0 when it is not valid UTF-8.
u32 CharacterLength(const u8 *text)
{
    static constexpr u32 kFirstPoints[] = {0, 0, 0x80, 0x800, 0x10000}; // by length; smaller ones are overlong
    const u8 lead = text[0];
    if (lead < 0x80)
        return 1;
    const u32 length = (lead & 0xE0) == 0xC0 ? 2 : (lead & 0xF0) == 0xE0 ? 3 : (lead & 0xF8) == 0xF0 ? 4 : 0;
    u32 point = lead & (0x7Fu >> length);
    for (u32 i = 1; i < length; ++i)
    {
        if ((text[i] & 0xC0) != 0x80) // true at the end of the text, too
            return 0;
        point = point << 6 | (text[i] & 0x3F);
    }
    const bool isSurrogate = point >= 0xD800 && point <= 0xDFFF;
    return point >= kFirstPoints[length] && point <= 0x10FFFF && !isSurrogate ? length : 0;
}

// Writes a JSON string with its quotes.
void WriteText(std::FILE *stream, const char *text)
{
    std::fputc('"', stream);
    for (const u8 *next = reinterpret_cast<const u8 *>(text); *next != '\0';)
    {
        const u32 length = CharacterLength(next);
        if (length == 0)
            std::fputs("\\ufffd", stream);
        else if (*next == '"' || *next == '\\')
            std::fprintf(stream, "\\%c", *next);
        else if (*next < 0x20 || *next == 0x7F)
            std::fprintf(stream, "\\u%04x", *next);
        else
            std::fwrite(next, 1, length, stream);
        next += TZMax(length, 1u);
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
{
}

CTraceSink::~CTraceSink()
{
    Mem::_RawFree(m_Scopes, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
}

u64 CTraceSink::_Nanoseconds()
{
    return u64(std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count());
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
        return; // an end without a beginning
    const u32 depth = --t_Open.m_Depth;
    const u32 threadId = CCurrentThread::ThreadID();

    const std::lock_guard<std::mutex> lock(m_Lock);
    if (depth >= kMaxDepth || m_ScopeCount == m_MaxScopes)
        ++m_DroppedCount; // this scope or the oldest one
    if (depth >= kMaxDepth || m_MaxScopes == 0)
        return;
    if (t_Open.m_NamedInSink != m_SinkId)
        _NameThread_NoLock(threadId);
    const u64 start = t_Open.m_Starts[depth];
    m_Scopes[m_NextScope] = {&node, start - m_Origin, end - start, threadId};
    m_NextScope = m_NextScope + 1 != m_MaxScopes ? m_NextScope + 1 : 0;
    m_ScopeCount = TZMin(m_ScopeCount + 1, m_MaxScopes);
}

void CTraceSink::_NameThread_NoLock(u32 threadId)
{
    t_Open.m_NamedInSink = m_SinkId;
    for (u32 i = 0; i < m_ThreadCount; ++i)
    {
        if (m_Threads[i].m_Id == threadId) // named before it was in another sink
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
    const int processId = getpid();
    for (u32 i = 0; i < m_ThreadCount; ++i, separator = ",\n")
    {
        std::fprintf(stream,
                     "%s{\"ph\":\"M\",\"name\":\"thread_name\",\"pid\":%d,\"tid\":%u,\"args\":{\"name\":", separator,
                     processId, m_Threads[i].m_Id);
        WriteText(stream, m_Threads[i].m_Name);
        std::fputs("}}", stream);
    }
    for (u32 i = 0; i < m_ScopeCount; ++i, separator = ",\n")
    {
        const u32 oldest = m_ScopeCount == m_MaxScopes ? m_NextScope : 0;
        const SScope &scope = m_Scopes[(u64(oldest) + i) % m_MaxScopes];
        std::fprintf(stream, "%s{\"ph\":\"X\",\"name\":", separator);
        WriteText(stream, scope.m_Node->m_Name);
        // Microseconds with three decimals are exact: nested scopes stay nested.
        std::fprintf(stream, ",\"ts\":%" PRIu64 ".%03u,\"dur\":%" PRIu64 ".%03u,\"pid\":%d,\"tid\":%u}",
                     scope.m_Start / 1000, u32(scope.m_Start % 1000), scope.m_Duration / 1000,
                     u32(scope.m_Duration % 1000), processId, scope.m_ThreadId);
    }
    std::fputs("\n]}\n", stream);
    return std::fflush(stream) == 0 && std::ferror(stream) == 0;
}

} // namespace Tessaly::Profiler
