// Verifications with a message: not a service, which is why it has a file of its own.
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
