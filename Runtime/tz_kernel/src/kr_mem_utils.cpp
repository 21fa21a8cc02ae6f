// Out-of-line byte-range helpers.
#include "../include/kr_mem_utils.h"

namespace Tessaly
{
namespace Mem
{

TZ_REPLACEABLE void Copy_Overlapped(void *dst, const void *src, u64 byteCount)
{
    if (byteCount != 0)
        std::memmove(dst, src, size_t(byteCount));
}

TZ_REPLACEABLE void FillIndices32(void *dst, u32 count, u32 start)
{
    u32 *indices = static_cast<u32 *>(dst);
    for (u32 i = 0; i < count; ++i)
        indices[i] = start + i;
}

} // namespace Mem
} // namespace Tessaly
