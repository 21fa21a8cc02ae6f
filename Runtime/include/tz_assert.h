// The assertion protocol: every run-time check of the runtime goes through the macros below, in every build.
//
// TZ_ASSERT(expr)                      reports a broken invariant and goes on
// TZ_ASSERT_MESSAGE(expr, format, ...) the same with a printf-style message
// TZ_VERIFY(expr)                      an expression with the outcome of expr; a false one is reported
// TZ_VERIFY_MESSAGE(expr, format, ...) the same with a printf-style message
//
// Each site has a flag of its own, which silences it for the life of the process. A silenced assertion does not
// evaluate expr; a verification always does, so that the caller can take its failure branch. The arguments of a message
// are evaluated only when the check has failed. Flags are read and written with relaxed atomic operations.
#pragma once

#include "tz_compiler.h"

namespace Tessaly::Assert
{

// What a handler answers.
enum EResult
{
    Result_Break = 0,    // trap into the debugger, then go on
    Result_Ignore = 1,   // silence this site for the life of the process
    Result_Continue = 2, // go on; so does any other value
};

// A failed check. The handler must not keep the pointers: the texts are valid until it returns.
struct SReport
{
    const char *m_File;
    const char *m_Function; // full signature
    int m_Line;
    const char *m_Expression;
    const char *m_Message; // the formatted message; without one the expression again
    bool m_IsVerify;
};

// Called on the thread whose check failed, which keeps all locks that it holds.
// Returns: an EResult.
using FnHandler = int (*)(const SReport &report, void *userData);

// Sets the handler that the default services below call, at any time and from any thread. Null restores the default
// handler, which writes one line to the standard error stream and returns Result_Continue.
TZ_API void SetHandler(FnHandler handler, void *userData);

// The services behind the macros. A host may define all of them itself instead of linking the default ones.
TZ_API TZ_COLD int EvalAssert(const char *file, const char *function, int line, const char *expression,
                              const char *expression2, const char *message);
TZ_API TZ_COLD int EvalAssertFormat(const char *file, const char *function, int line, const char *expression,
                                    const char *expression2, const char *format, ...) TZ_PRINTF_FORMAT(6, 7);
// Called each time a verification fails. The default one reports nothing when the flag is set, and sets the flag when
// the handler returns Result_Ignore.
// Returns: whether the site shall execute a breakpoint.
TZ_API TZ_COLD bool VerifyAssertFalse_Breaks(bool &ignoredFlag, const char *file, const char *function, int line,
                                             const char *expression, const char *expression2, const char *message);

// What the macros below expand to. The first two read and set the flag of a site.
inline bool _IsIgnored(const bool &ignoredFlag) { return __atomic_load_n(&ignoredFlag, __ATOMIC_RELAXED); }
inline void _SetIgnored(bool &ignoredFlag) { __atomic_store_n(&ignoredFlag, true, __ATOMIC_RELAXED); }

// Formats the message and calls VerifyAssertFalse_Breaks.
TZ_API TZ_COLD bool _VerifyMessageFalse_Breaks(bool &ignoredFlag, const char *file, const char *function, int line,
                                               const char *expression, const char *format, ...) TZ_PRINTF_FORMAT(6, 7);

inline void _Verify_BreakPoint() { BreakPoint(); }

// Does what EvalAssert or EvalAssertFormat returned.
inline void _TakeResult(bool &ignoredFlag, int result)
{
    if (result == Result_Ignore)
        _SetIgnored(ignoredFlag);
    else if (result == Result_Break)
        BreakPoint();
}

} // namespace Tessaly::Assert

// Reports when expr is false, and goes on.
#define TZ_ASSERT(expr) TZ_ASSERT_TEXT(#expr, expr)

// The same with a printf-style message.
#define TZ_ASSERT_MESSAGE(expr, ...) TZ_ASSERT_TEXT_MESSAGE(#expr, expr, __VA_ARGS__)

// The outcome of expr; a false one is reported.
#define TZ_VERIFY(expr) TZ_VERIFY_SITE(expr, VerifyAssertFalse_Breaks, #expr, #expr, #expr)

// The same with a printf-style message.
#define TZ_VERIFY_MESSAGE(expr, ...) TZ_VERIFY_SITE(expr, _VerifyMessageFalse_Breaks, #expr, __VA_ARGS__)

// TZ_ASSERT for a site whose reported text differs from the text of its condition.
#define TZ_ASSERT_TEXT(text, expr) TZ_ASSERT_SITE(expr, EvalAssert, text, text, text)

// The same with a printf-style message.
#define TZ_ASSERT_TEXT_MESSAGE(text, expr, ...) TZ_ASSERT_SITE(expr, EvalAssertFormat, text, text, __VA_ARGS__)

// A site of a verification: its flag, its condition, and the service that is called when the condition is false.
#define TZ_VERIFY_SITE(expr, service, ...)                                                                             \
    (__extension__({                                                                                                   \
        static bool _ignored = false;                                                                                  \
        const bool _holds = static_cast<bool>(expr);                                                                   \
        if (!_holds && ::Tessaly::Assert::service(_ignored, __FILE__, TZ_FUNCTION_SIGNATURE, __LINE__, __VA_ARGS__))   \
            ::Tessaly::Assert::_Verify_BreakPoint();                                                                   \
        _holds;                                                                                                        \
    }))

// The same for an assertion.
#define TZ_ASSERT_SITE(expr, service, ...)                                                                             \
    do                                                                                                                 \
    {                                                                                                                  \
        static bool _ignored = false;                                                                                  \
        if (TZ_LIKELY(!::Tessaly::Assert::_IsIgnored(_ignored)) && !(expr))                                            \
            ::Tessaly::Assert::_TakeResult(                                                                            \
                _ignored, ::Tessaly::Assert::service(__FILE__, TZ_FUNCTION_SIGNATURE, __LINE__, __VA_ARGS__));         \
    } while (false)
