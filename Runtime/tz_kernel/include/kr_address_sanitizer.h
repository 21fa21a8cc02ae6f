// What the address sanitizer is told of memory that nobody is to touch for a while; without it, nothing is done.
//
// It keeps a note for each 8 bytes: how many of them, from the first on, may be touched. The calls below change notes
// of the range only, each byte that stays as it was included, so that other threads may use the rest meanwhile.
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
#    define TZ_ADDRESS_SANITIZER 0 // 1 where the sanitizer is on
#endif

#if TZ_ADDRESS_SANITIZER
#    include <sanitizer/asan_interface.h>
#endif

namespace Tessaly
{
namespace Mem
{

// The same for conditions.
constexpr bool kIsAddressSanitized = TZ_ADDRESS_SANITIZER != 0;

#if TZ_ADDRESS_SANITIZER

// From here on touching these bytes is an error, until Unpoison. Of eight bytes that the range does not reach the end
// of, none is poisoned.
inline void Poison(const void *start, ureg byteCount) { __asan_poison_memory_region(start, byteCount); }
inline void Unpoison(const void *start, ureg byteCount) { __asan_unpoison_memory_region(start, byteCount); }

// Mem::Copy from bytes that may be poisoned, unseen by the sanitizer.
__attribute__((no_sanitize("address"), noinline)) inline void CopyPoisoned(void *dst, const void *src, ureg byteCount)
{
    TZ_ASSERT(!Mem::Overlaps(dst, byteCount, src, byteCount));
    // Volatile: a loop that copies would be made a call, which the sanitizer sees.
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

// Without the sanitizer they do nothing, and the copy is Mem::Copy.
inline void Poison(const void *, ureg) {}
inline void Unpoison(const void *, ureg) {}
inline void CopyPoisoned(void *dst, const void *src, ureg byteCount) { Mem::Copy(dst, src, byteCount); }

#endif

} // namespace Mem
} // namespace Tessaly
