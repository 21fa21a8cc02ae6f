// Copies that are too large for the processor's caches. The library's own; not installed.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// From so many bytes on, copied in one go, nothing of the copy is left in the caches when its reader comes, and writing
// past them spares reading every line first: about half of the last level of today's processors.
constexpr u64 kMinBytesPastCaches = 16 << 20;

// As Mem::Copy, written to memory without a stay in the caches where the processor can.
void CopyPastCaches(void *dst, const void *src, ureg byteCount);

} // namespace Tessaly
