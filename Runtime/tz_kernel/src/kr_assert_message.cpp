// Forms the messages of verifications, and has the service report them.
#include <tz_assert.h>

#include <cstdarg>
#include <cstdio>

namespace Tessaly
{
namespace Assert
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

} // namespace Assert
} // namespace Tessaly
