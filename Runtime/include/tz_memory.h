// Alignment arithmetic.
#pragma once

#include "tz_defs.h"

namespace Tessaly::Mem
{

// Rounds value up to a multiple of _Alignment, a power of two. Wraps around in _Type.
template <u32 _Alignment, typename _Type>
constexpr _Type Align(_Type value)
{
    static_assert(_Alignment != 0 && (_Alignment & (_Alignment - 1)) == 0, "a power of two");
    return static_cast<_Type>((value + (_Alignment - 1)) & ~static_cast<_Type>(_Alignment - 1));
}

} // namespace Tessaly::Mem
