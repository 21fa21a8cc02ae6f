// Copies by non-temporal stores.
#include "storage_ram_copy.h"

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
    constexpr ureg kLineBytes = 64;
    TZ_ASSERT(!Mem::Overlaps(dst, byteCount, src, byteCount));
    if (byteCount == 0)
        return;
    u8 *to = static_cast<u8 *>(dst);
    const u8 *from = static_cast<const u8 *>(src);
    const ureg headBytes = TZMin(Mem::Align<kLineBytes>(ureg(to)) - ureg(to), byteCount);
    std::memcpy(to, from, headBytes);
    const ureg lineEnd = headBytes + (byteCount - headBytes) / kLineBytes * kLineBytes;
    for (ureg i = headBytes; i < lineEnd; i += kLineBytes)
    {
        const __m128i *line = reinterpret_cast<const __m128i *>(from + i);
        __m128i *outLine = reinterpret_cast<__m128i *>(to + i);
        const __m128i a = _mm_loadu_si128(line), b = _mm_loadu_si128(line + 1);
        const __m128i c = _mm_loadu_si128(line + 2), d = _mm_loadu_si128(line + 3);
        _mm_stream_si128(outLine, a);
        _mm_stream_si128(outLine + 1, b);
        _mm_stream_si128(outLine + 2, c);
        _mm_stream_si128(outLine + 3, d);
    }
    std::memcpy(to + lineEnd, from + lineEnd, byteCount - lineEnd);
    _mm_sfence(); // before anybody is told of the copy
}

#else

void CopyNonTemporal(void *dst, const void *src, ureg byteCount) { Mem::Copy(dst, src, byteCount); }

#endif

} // namespace Tessaly
