// Copies that bypass the cache. The library's own; not installed.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// Copies of so many bytes (half of a usual last-level cache) and more are faster with non-temporal stores: ordinary
// stores would read each line before they write it, and the cache could not keep the copy for its reader anyway.
constexpr u64 kMinBytesNonTemporal = 16 << 20;

// As Mem::Copy, with non-temporal stores where the processor has them.
void CopyNonTemporal(void *dst, const void *src, ureg byteCount);

} // namespace Tessaly
