// Verifications with a message. Not a service: a host that replaces those of kr_assert.cpp uses it as well.
#include <tz_assert.h>

#include <cstdarg>
#include <cstdio>

namespace Tessaly::Assert
{

bool _VerifyMessageFalse_Breaks(bool &ignoredFlag, const char *file, const char *function, int line,
                                const char *expression, const char *format, ...)
{
    char message[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    return VerifyAssertFalse_Breaks(ignoredFlag, file, function, line, expression, expression, message);
}

} // namespace Tessaly::Assert
