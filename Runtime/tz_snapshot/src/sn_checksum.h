// The checksum of a chunk.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{
namespace Snapshot
{

// Fletcher-32 as HDF5's filter computes it. O(bytes).
u32 Fletcher32(const u8 *data, ureg byteCount);

} // namespace Snapshot
} // namespace Tessaly
