// The assertion protocol: every run-time check of the runtime goes through the macros below, in every build.
//
// TZ_ASSERT(expr)                      reports a broken invariant and goes on; once silenced, expr is not evaluated
// TZ_ASSERT_MESSAGE(expr, format, ...) the same with a printf-style message
// TZ_VERIFY(expr)                      an expression with the outcome of expr, which is always evaluated;
//                                      a failure is reported and the caller takes its failure branch
// TZ_VERIFY_MESSAGE(expr, format, ...) the same with a printf-style message
//
// A message's values are computed when the check has failed, never before. Each site owns a flag that silences it for
// good. Flags are read and written with relaxed atomic operations.
// An assertion never changes the outcome of the operation that it guards.
#pragma once

#include "tz_compiler.h"

namespace Tessaly
{
namespace Assert
{

// What a handler answers.
enum EResult
{
    Result_Break = 0,    // trap into the debugger, then go on
    Result_Ignore = 1,   // silence this site for the life of the process
    Result_Continue = 2, // go on; so does any other value
};

// A failed check, as the handler sees it. The texts are good until it returns.
struct SReport
{
    // Where the check stands.
    const char *m_File;
    const char *m_Function; // full signature
    int m_Line;
    const char *m_Expression; // the condition's text
    const char *m_Message;    // the expression again, or the formatted message
    bool m_IsVerify;          // the caller takes its failure branch
};

// Answers with an EResult. Runs on the thread that failed the check, under whatever locks it holds.
using FnHandler = int (*)(const SReport &report, void *userData);

// Sets the handler that the default services below ask. Null restores the default handler: one line on the standard
// error stream, then Result_Continue. May be called at any time from any thread.
TZ_API void SetHandler(FnHandler handler, void *userData);

// The services behind the macros. A host may define all of them itself instead of linking the default ones.
TZ_API TZ_COLD int EvalAssert(const char *file, const char *function, int line, const char *expression,
                              const char *expression2, const char *message);
TZ_API TZ_COLD int EvalAssertFormat(const char *file, const char *function, int line, const char *expression,
                                    const char *expression2, const char *format, ...) TZ_PRINTF_FORMAT(6, 7);
// Called at each failure of a verification. True asks the site to break. The default one reports nothing when the
// flag is set, and sets it when the handler answers Result_Ignore.
TZ_API TZ_COLD bool VerifyAssertFalse_Breaks(bool &ignoredFlag, const char *file, const char *function, int line,
                                             const char *expression, const char *expression2, const char *message);

// For the macros below: a site's flag.
inline bool _IsIgnored(const bool &ignoredFlag) { return __atomic_load_n(&ignoredFlag, __ATOMIC_RELAXED); }
inline void _SetIgnored(bool &ignoredFlag) { __atomic_store_n(&ignoredFlag, true, __ATOMIC_RELAXED); }

// For TZ_VERIFY_MESSAGE: forms the message and asks VerifyAssertFalse_Breaks.
TZ_API TZ_COLD bool _VerifyMessageFalse_Breaks(bool &ignoredFlag, const char *file, const char *function, int line,
                                               const char *expression, const char *format, ...) TZ_PRINTF_FORMAT(6, 7);

// Where a verification breaks.
inline void _Verify_BreakPoint() { BreakPoint(); }

// What a site does with the answer of EvalAssert or EvalAssertFormat.
inline void _TakeResult(bool &ignoredFlag, int result)
{
    if (result == Result_Ignore)
        _SetIgnored(ignoredFlag);
    else if (result == Result_Break)
        BreakPoint();
}

} // namespace Assert
} // namespace Tessaly

// Reports unless expr holds, and goes on.
#define TZ_ASSERT(expr) TZ_ASSERT_TEXT(#expr, expr)

// The same with a printf-style message.
#define TZ_ASSERT_MESSAGE(expr, ...) TZ_ASSERT_TEXT_MESSAGE(#expr, expr, __VA_ARGS__)

// The outcome of expr; false is reported.
#define TZ_VERIFY(expr)                                                                                                \
    (__extension__({                                                                                                   \
        static bool _ignored = false;                                                                                  \
        const bool _holds = static_cast<bool>(expr);                                                                   \
        if (!_holds && ::Tessaly::Assert::VerifyAssertFalse_Breaks(_ignored, __FILE__, TZ_FUNCTION_SIGNATURE,          \
                                                                   __LINE__, #expr, #expr, #expr))                     \
            ::Tessaly::Assert::_Verify_BreakPoint();                                                                   \
        _holds;                                                                                                        \
    }))

// The same with a printf-style message.
#define TZ_VERIFY_MESSAGE(expr, ...)                                                                                   \
    (__extension__({                                                                                                   \
        static bool _ignored = false;                                                                                  \
        const bool _holds = static_cast<bool>(expr);                                                                   \
        if (!_holds && ::Tessaly::Assert::_VerifyMessageFalse_Breaks(_ignored, __FILE__, TZ_FUNCTION_SIGNATURE,        \
                                                                     __LINE__, #expr, __VA_ARGS__))                    \
            ::Tessaly::Assert::_Verify_BreakPoint();                                                                   \
        _holds;                                                                                                        \
    }))

// As TZ_ASSERT, for sites whose text is not the text of their condition.
#define TZ_ASSERT_TEXT(text, expr)                                                                                     \
    do                                                                                                                 \
    {                                                                                                                  \
        static bool _ignored = false;                                                                                  \
        if (TZ_LIKELY(!::Tessaly::Assert::_IsIgnored(_ignored)) && !(expr))                                            \
            ::Tessaly::Assert::_TakeResult(                                                                            \
                _ignored, ::Tessaly::Assert::EvalAssert(__FILE__, TZ_FUNCTION_SIGNATURE, __LINE__, text, text, text)); \
    } while (false)

// The same with a printf-style message.
#define TZ_ASSERT_TEXT_MESSAGE(text, expr, ...)                                                                        \
    do                                                                                                                 \
    {                                                                                                                  \
        static bool _ignored = false;                                                                                  \
        if (TZ_LIKELY(!::Tessaly::Assert::_IsIgnored(_ignored)) && !(expr))                                            \
            ::Tessaly::Assert::_TakeResult(_ignored,                                                                   \
                                           ::Tessaly::Assert::EvalAssertFormat(__FILE__, TZ_FUNCTION_SIGNATURE,        \
                                                                               __LINE__, text, text, __VA_ARGS__));    \
    } while (false)
