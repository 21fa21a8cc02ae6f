// Vector types for fields: plain records of their components.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

template <typename _Type>
struct TVector2
{
    _Type m_X, m_Y;

    TVector2() = default;
    constexpr TVector2(_Type x, _Type y)
        : m_X(x)
        , m_Y(y)
    {
    }

    constexpr bool operator==(const TVector2 &v) const { return m_X == v.m_X && m_Y == v.m_Y; }
    constexpr bool operator!=(const TVector2 &v) const { return !(*this == v); }
};

template <typename _Type>
struct TVector3
{
    _Type m_X, m_Y, m_Z;

    TVector3() = default;
    constexpr TVector3(_Type x, _Type y, _Type z)
        : m_X(x)
        , m_Y(y)
        , m_Z(z)
    {
    }

    constexpr bool operator==(const TVector3 &v) const { return m_X == v.m_X && m_Y == v.m_Y && m_Z == v.m_Z; }
    constexpr bool operator!=(const TVector3 &v) const { return !(*this == v); }
};

template <typename _Type>
struct TVector4
{
    _Type m_X, m_Y, m_Z, m_W;

    TVector4() = default;
    constexpr TVector4(_Type x, _Type y, _Type z, _Type w)
        : m_X(x)
        , m_Y(y)
        , m_Z(z)
        , m_W(w)
    {
    }

    constexpr bool operator==(const TVector4 &v) const
    {
        return m_X == v.m_X && m_Y == v.m_Y && m_Z == v.m_Z && m_W == v.m_W;
    }
    constexpr bool operator!=(const TVector4 &v) const { return !(*this == v); }
};

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
