// Internals of the containers: growth policy, destruction of ranges, relocation, the base of iterators, the monitor.
#pragma once

#include <tz_defs.h>

#include "kr_mem.h"
#include "kr_mem_utils.h"
#include "kr_type_traits.h"

namespace Tessaly
{

// When set, arrays report each growth of a buffer to the class below, before they request the memory for it.
TZ_API extern bool g_KRContainersConfig_MonitorTArrays;

class TZ_API CContainersMonitorTArrays
{
public:
    // Adds bytes to the total, on any thread. Growth whose memory is refused stays in it.
    static void RegisterNewMemoryMovement(s64 bytes);
    static s64 TotalBytes();
};

// Growth policy: for n elements an array requests memory for n + n / _GrowDivider + _GrowConstant of them.
// _InitialSize and _GrowMultiplier have no effect.
template <u32 _Alignment = 0, u32 _InitialSize = 8, u32 _GrowConstant = 8, u32 _GrowMultiplier = 0,
          u32 _GrowDivider = 2>
class TArrayStaticController
{
    static_assert(_GrowMultiplier == 0, "growth is n + n / divider + constant");

public:
    // In elements. Asserts when the sum does not fit 32 bits, and then returns its low 32.
    static u32 GrowSize(u32 wishedSize)
    {
        return checked_numcast<u32>(u64(wishedSize) + u64(wishedSize) / _GrowDivider + _GrowConstant);
    }
    static constexpr u32 Alignment() { return _Alignment; }
};

namespace Internal
{

template <typename _Type, bool _HasNonTrivialDtor>
struct TRangeDestructor
{
    // Destroys data[start] to data[end - 1], in that order. Does nothing for a trivial destructor.
    static void Destroy(_Type *data, u32 start, u32 end)
    {
        if constexpr (_HasNonTrivialDtor)
        {
            TZ_ASSERT(start <= end && (data != null || start == end));
            for (u32 i = start; data != null && i < end; ++i)
                data[i].~_Type();
        }
    }
};

struct SRelocationHelper
{
    // Moves count elements from src to the lower address dst by copying their bytes.
    template <typename _Type>
    static void Relocate_OverlappedCompact(_Type *dst, _Type *src, ureg count)
    {
        TZ_ASSERT(dst < src);
        TZ_ASSERT(sreg(src) - sreg(dst) >= sreg(sizeof(_Type)) && count != 0);
        Mem::Copy_Overlapped(dst, src, u64(count) * sizeof(_Type));
    }
};

} // namespace Internal

template <typename _Type>
class TContiguousBaseIterator
{
public:
    _Type *m_Ptr;
};

} // namespace Tessaly
