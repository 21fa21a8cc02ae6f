// Assertion services: call the handler that the host set, or the default one, which prints the report.
#include <tz_assert.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace Tessaly::Assert
{

namespace
{

int DefaultHandler(const SReport &report, void *)
{
    const size_t length = std::strlen(report.m_Message);
    const bool endsLine = length != 0 && report.m_Message[length - 1] == '\n';
    std::fprintf(stderr, "%s:%d: %s: %s%s", report.m_File, report.m_Line, report.m_Function, report.m_Message,
                 endsLine ? "" : "\n");
    return Result_Continue;
}

struct SHandler
{
    FnHandler m_Handler;
    void *m_UserData;
};

std::mutex g_HandlerLock;
SHandler g_Handler = {&DefaultHandler, nullptr};

int Report(const SReport &report)
{
    g_HandlerLock.lock();
    const SHandler handler = g_Handler;
    g_HandlerLock.unlock(); // the handler may set another one, or fail an assertion itself
    return handler.m_Handler(report, handler.m_UserData);
}

} // namespace

TZ_REPLACEABLE void SetHandler(FnHandler handler, void *userData)
{
    const std::lock_guard<std::mutex> lock(g_HandlerLock);
    g_Handler.m_Handler = handler != nullptr ? handler : &DefaultHandler;
    g_Handler.m_UserData = userData;
}

TZ_REPLACEABLE int EvalAssert(const char *file, const char *function, int line, const char *expression, const char *,
                              const char *message)
{
    return Report({file, function, line, expression, message, false});
}

TZ_REPLACEABLE int EvalAssertFormat(const char *file, const char *function, int line, const char *expression,
                                    const char *, const char *format, ...)
{
    char message[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    return Report({file, function, line, expression, message, false});
}

TZ_REPLACEABLE bool VerifyAssertFalse_Breaks(bool &ignoredFlag, const char *file, const char *function, int line,
                                             const char *expression, const char *, const char *message)
{
    if (_IsIgnored(ignoredFlag))
        return false;
    const int result = Report({file, function, line, expression, message, true});
    if (result == Result_Ignore)
        _SetIgnored(ignoredFlag);
    return result == Result_Break;
}

} // namespace Tessaly::Assert
