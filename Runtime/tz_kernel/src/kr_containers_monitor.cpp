// Diagnostic total of the bytes that arrays requested for their buffers.
#include "../include/kr_containers_internals.h"

namespace Tessaly
{

TZ_REPLACEABLE bool g_KRContainersConfig_MonitorTArrays = false;

namespace
{
s64 g_TotalBytes = 0;
} // namespace

TZ_REPLACEABLE void CContainersMonitorTArrays::RegisterNewMemoryMovement(s64 bytes)
{
    __atomic_fetch_add(&g_TotalBytes, bytes, __ATOMIC_RELAXED);
}

TZ_REPLACEABLE s64 CContainersMonitorTArrays::TotalBytes() { return __atomic_load_n(&g_TotalBytes, __ATOMIC_RELAXED); }

} // namespace Tessaly
