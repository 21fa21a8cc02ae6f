// Vector types for fields: plain records of their components. Each component has two names: x and m_X.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// A component under its two names.
#define TZ_COMPONENT(name, memberName)                                                                                 \
    union                                                                                                              \
    {                                                                                                                  \
        _Type name, memberName;                                                                                        \
    }

template <typename _Type>
struct TVector2
{
    TZ_COMPONENT(x, m_X);
    TZ_COMPONENT(y, m_Y);

    TVector2() = default;
    constexpr TVector2(_Type x0, _Type y0)
        : x(x0)
        , y(y0)
    {
    }

    constexpr bool operator==(const TVector2 &v) const { return x == v.x && y == v.y; }
    constexpr bool operator!=(const TVector2 &v) const { return !(*this == v); }
};

template <typename _Type>
struct TVector3
{
    TZ_COMPONENT(x, m_X);
    TZ_COMPONENT(y, m_Y);
    TZ_COMPONENT(z, m_Z);

    TVector3() = default;
    constexpr TVector3(_Type x0, _Type y0, _Type z0)
        : x(x0)
        , y(y0)
        , z(z0)
    {
    }

    constexpr bool operator==(const TVector3 &v) const { return x == v.x && y == v.y && z == v.z; }
    constexpr bool operator!=(const TVector3 &v) const { return !(*this == v); }
};

template <typename _Type>
struct TVector4
{
    TZ_COMPONENT(x, m_X);
    TZ_COMPONENT(y, m_Y);
    TZ_COMPONENT(z, m_Z);
    TZ_COMPONENT(w, m_W);

    TVector4() = default;
    constexpr TVector4(_Type x0, _Type y0, _Type z0, _Type w0)
        : x(x0)
        , y(y0)
        , z(z0)
        , w(w0)
    {
    }

    constexpr bool operator==(const TVector4 &v) const { return x == v.x && y == v.y && z == v.z && w == v.w; }
    constexpr bool operator!=(const TVector4 &v) const { return !(*this == v); }
};

#undef TZ_COMPONENT

using CFloat2 = TVector2<float>;
using CFloat3 = TVector3<float>;
using CFloat4 = TVector4<float>;
using CInt2 = TVector2<s32>;
using CInt3 = TVector3<s32>;
using CInt4 = TVector4<s32>;
using CUInt2 = TVector2<u32>;
using CUInt3 = TVector3<u32>;
using CUInt4 = TVector4<u32>;
using CUWord2 = TVector2<u16>;
using CUWord3 = TVector3<u16>;
using CUWord4 = TVector4<u16>;
using CWord2 = TVector2<s16>;
using CWord3 = TVector3<s16>;
using CWord4 = TVector4<s16>;
using CUByte2 = TVector2<u8>;
using CUByte3 = TVector3<u8>;
using CUByte4 = TVector4<u8>;
using CByte2 = TVector2<s8>;
using CByte3 = TVector3<s8>;
using CByte4 = TVector4<s8>;
using CBool2 = TVector2<bool>;
using CBool3 = TVector3<bool>;
using CBool4 = TVector4<bool>;

} // namespace Tessaly
