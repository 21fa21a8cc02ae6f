// Out-of-line byte-range helpers.
#include "../include/kr_mem_utils.h"

#include <numeric>

namespace Tessaly::Mem
{

TZ_REPLACEABLE void Copy_Overlapped(void *dst, const void *src, u64 byteCount)
{
    if (byteCount != 0)
        std::memmove(dst, src, size_t(byteCount));
}

TZ_REPLACEABLE void FillIndices32(void *dst, u32 count, u32 start)
{
    std::iota(static_cast<u32 *>(dst), static_cast<u32 *>(dst) + count, start);
}

} // namespace Tessaly::Mem
