// HDF5's checksum of chunks.
#pragma once

#include <tz_defs.h>

namespace Tessaly::Snapshot
{

// Fletcher-32 as HDF5's filter computes it.
u32 Fletcher32(const u8 *data, ureg byteCount);

} // namespace Tessaly::Snapshot
