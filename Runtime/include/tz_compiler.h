// Compiler-dependent spellings, in one place.
#pragma once

#if !defined(__linux__)
#    error "Tessaly runs on Linux only."
#endif

#include <csignal>

// What a shared library shows to its hosts: everything else stays inside.
#define TZ_API __attribute__((visibility("default")))
#define TZ_NOINLINE __attribute__((noinline))
#define TZ_FORCEINLINE __attribute__((always_inline)) inline
#define TZ_COLD __attribute__((cold, noinline))
// A condition that the code is laid out for, or against.
#define TZ_LIKELY(expr) __builtin_expect(static_cast<bool>(expr), true)
#define TZ_UNLIKELY(expr) __builtin_expect(static_cast<bool>(expr), false)
// A default implementation of a service: a host that defines the function itself replaces it when it links.
#define TZ_REPLACEABLE __attribute__((weak))
#define TZ_PRINTF_FORMAT(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))

// The full signature of the enclosing function.
#define TZ_FUNCTION_SIGNATURE __PRETTY_FUNCTION__

namespace Tessaly
{

// Stops in a debugger; a program that handles or ignores SIGTRAP goes on behind it.
inline void BreakPoint()
{
#if defined(__x86_64__)
    __asm__ volatile("int3");
#else
    std::raise(SIGTRAP);
#endif
}

} // namespace Tessaly
