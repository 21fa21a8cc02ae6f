// Compiler-dependent spellings, in one place.
#pragma once

#if !defined(__linux__)
#    error "Tessaly runs on Linux only."
#endif

#include <csignal>

// Exports a symbol from a shared library. All others are hidden.
#define TZ_API __attribute__((visibility("default")))
#define TZ_NOINLINE __attribute__((noinline))
#define TZ_FORCEINLINE __attribute__((always_inline)) inline
#define TZ_COLD __attribute__((cold, noinline))
// Hints for the branch predictor: how a condition usually turns out.
#define TZ_LIKELY(expr) __builtin_expect(static_cast<bool>(expr), true)
#define TZ_UNLIKELY(expr) __builtin_expect(static_cast<bool>(expr), false)
// The default implementation of a service, as a weak symbol: a host that defines the function itself replaces it.
#define TZ_REPLACEABLE __attribute__((weak))
#define TZ_PRINTF_FORMAT(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))

// The full signature of the enclosing function.
#define TZ_FUNCTION_SIGNATURE __PRETTY_FUNCTION__

namespace Tessaly
{

// Raises SIGTRAP: a debugger stops here. A program with a handler for the signal goes on.
inline void BreakPoint()
{
#if defined(__x86_64__)
    __asm__ volatile("int3");
#else
    std::raise(SIGTRAP);
#endif
}

} // namespace Tessaly
