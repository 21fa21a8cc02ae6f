// Copies that bypass the cache. The library's own; not installed.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// Copies of so many bytes and more are faster with non-temporal stores: half of a usual last-level cache. The cache
// would keep nothing of the copy for its first reader, and an ordinary store reads each line before it writes it.
constexpr u64 kMinBytesNonTemporal = 16 << 20;

// As Mem::Copy, with non-temporal stores where the processor has them.
void CopyNonTemporal(void *dst, const void *src, ureg byteCount);

} // namespace Tessaly
