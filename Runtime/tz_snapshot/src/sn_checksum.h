// HDF5's checksums: of chunks, and of headers.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{
namespace Snapshot
{

// Fletcher-32 as HDF5's filter computes it. O(bytes).
u32 Fletcher32(const u8 *data, ureg byteCount);

// Jenkins' lookup3, as HDF5 computes it of its headers. O(bytes).
u32 HeaderChecksum(const u8 *data, ureg byteCount);

} // namespace Snapshot
} // namespace Tessaly
