// Copies that bypass the cache.
#include "storage_ram_copy_nontemporal.h"

#include <cstring>

#include <tz_kernel/include/kr_mem_utils.h>
#include <tz_memory.h>

#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace Tessaly
{

#if defined(__SSE2__)

void CopyNonTemporal(void *dst, const void *src, ureg byteCount)
{
    TZ_ASSERT(!Mem::Overlaps(dst, byteCount, src, byteCount));
    if (byteCount == 0)
        return;
    u8 *to = static_cast<u8 *>(dst);
    const u8 *from = static_cast<const u8 *>(src);
    const ureg headBytes = TZMin(Mem::Align<16>(ureg(to)) - ureg(to), byteCount);
    std::memcpy(to, from, headBytes);
    ureg i = headBytes;
    for (; i + sizeof(__m128i) <= byteCount; i += sizeof(__m128i))
        _mm_stream_si128(reinterpret_cast<__m128i *>(to + i),
                         _mm_loadu_si128(reinterpret_cast<const __m128i *>(from + i)));
    std::memcpy(to + i, from + i, byteCount - i);
    _mm_sfence(); // orders the copy before the stores that publish it
}

#else

void CopyNonTemporal(void *dst, const void *src, ureg byteCount) { Mem::Copy(dst, src, byteCount); }

#endif

} // namespace Tessaly
