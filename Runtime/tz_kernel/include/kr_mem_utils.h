// Byte-range helpers. Sizes are in bytes; a size of 0 touches nothing, whatever the pointers.
#pragma once

#include <cstring>

#include <tz_defs.h>

#include "kr_mem.h"

namespace Tessaly::Mem
{

// Whether [a, a + aBytes) and [b, b + bBytes) share a byte. An empty range shares none.
inline bool Overlaps(const void *a, ureg aBytes, const void *b, ureg bBytes)
{
    const ureg aStart = reinterpret_cast<ureg>(a);
    const ureg bStart = reinterpret_cast<ureg>(b);
    if (aBytes == 0 || bBytes == 0)
        return false;
    return aStart <= bStart ? bStart - aStart < aBytes : aStart - bStart < bBytes;
}

// Copies byteCount bytes. The ranges must not overlap (asserted; overlapping ones are copied as by memmove).
inline void Copy(void *dst, const void *src, ureg byteCount)
{
    TZ_ASSERT(!Mem::Overlaps(dst, byteCount, src, byteCount));
    if (byteCount != 0)
        std::memmove(dst, src, byteCount);
}

// Sets byteCount bytes to zero.
inline void Clear(void *ptr, ureg byteCount)
{
    if (byteCount != 0)
        std::memset(ptr, 0, byteCount);
}

// Copies byteCount bytes; the ranges may overlap.
TZ_API void Copy_Overlapped(void *dst, const void *src, u64 byteCount);

// Writes count consecutive values start, start + 1, ... (4 bytes each).
TZ_API void FillIndices32(void *dst, u32 count, u32 start);

} // namespace Tessaly::Mem

namespace Tessaly::Internal
{

// The zeroed stand-in to which containers return a reference, after a report, for an element that does not exist. There
// is one per type and thread, and each call clears it.
template <typename _Type>
TZ_COLD _Type &MissingElement()
{
    using Stored = typename std::remove_const<_Type>::type;
    alignas(Stored) static thread_local u8 storage[sizeof(Stored)];
    std::memset(storage, 0, sizeof(Stored));
    return reinterpret_cast<Stored &>(storage);
}

} // namespace Tessaly::Internal
