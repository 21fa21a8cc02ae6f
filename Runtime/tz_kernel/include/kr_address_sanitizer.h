// Poisoning of free memory for the address sanitizer; without the sanitizer the calls do nothing.
//
// The sanitizer has a shadow byte for each 8 bytes, which tells how many of them, from the first on, may be accessed.
// The calls write only the shadow bytes of their range: other threads may access the memory around it meanwhile.
#pragma once

#include <tz_defs.h>

#include "kr_mem_utils.h"

#if defined(__SANITIZE_ADDRESS__)
#    define TZ_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#    if __has_feature(address_sanitizer)
#        define TZ_ADDRESS_SANITIZER 1
#    endif
#endif
#if !defined(TZ_ADDRESS_SANITIZER)
#    define TZ_ADDRESS_SANITIZER 0
#endif

#if TZ_ADDRESS_SANITIZER
#    include <sanitizer/asan_interface.h>
#endif

namespace Tessaly::Mem
{

// TZ_ADDRESS_SANITIZER, for conditions.
constexpr bool kIsAddressSanitized = TZ_ADDRESS_SANITIZER != 0;

#if TZ_ADDRESS_SANITIZER

// Make accesses to these bytes errors, and allow them again. Where the range ends inside a group of 8 bytes, that group
// is not poisoned.
inline void Poison(const void *start, ureg byteCount) { __asan_poison_memory_region(start, byteCount); }
inline void Unpoison(const void *start, ureg byteCount) { __asan_unpoison_memory_region(start, byteCount); }

// Mem::Copy from bytes that may be poisoned: the sanitizer does not check it.
__attribute__((no_sanitize("address"), noinline)) inline void CopyPoisoned(void *dst, const void *src, ureg byteCount)
{
    TZ_ASSERT(!Mem::Overlaps(dst, byteCount, src, byteCount));
    // Volatile, because the compiler would replace the loop by a call of memmove, which the sanitizer checks.
    volatile u8 *to = static_cast<u8 *>(dst);
    const volatile u8 *from = static_cast<const u8 *>(src);
    const bool isDescending = to > from;
    for (ureg i = 0; i < byteCount; ++i)
    {
        const ureg at = isDescending ? byteCount - 1 - i : i;
        to[at] = from[at];
    }
}

#else

inline void Poison(const void *, ureg) {}
inline void Unpoison(const void *, ureg) {}
inline void CopyPoisoned(void *dst, const void *src, ureg byteCount) { Mem::Copy(dst, src, byteCount); }

#endif

} // namespace Tessaly::Mem
