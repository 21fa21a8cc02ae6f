// Copies that are too large for the processor's cache. The library's own; not installed.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// From so many bytes on, copied in one go, nothing of the copy is left in the cache when its reader comes, and
// non-temporal stores spare reading every line first: about half of the last level of today's processors.
constexpr u64 kMinBytesNonTemporal = 16 << 20;

// As Mem::Copy, by non-temporal stores where the processor has them.
void CopyNonTemporal(void *dst, const void *src, ureg byteCount);

} // namespace Tessaly
