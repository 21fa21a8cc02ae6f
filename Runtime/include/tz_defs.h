// Basic types and helpers of the runtime: fixed-width integers, numeric traits, small generic functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>

#include "tz_assert.h"
#include "tz_compiler.h"

namespace Tessaly
{

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using s8 = std::int8_t;
using s16 = std::int16_t;
using s32 = std::int32_t;
using s64 = std::int64_t;

using ureg = std::uintptr_t; // pointer-sized
using sreg = std::intptr_t;

constexpr std::nullptr_t null = nullptr;

// Limits of the unsigned integers.
template <typename _Type>
struct TNumericTraits
{
    static_assert(std::is_integral<_Type>::value && std::is_unsigned<_Type>::value, "unsigned integers only");
    static constexpr _Type kMin = 0;
    static constexpr _Type kMax = static_cast<_Type>(~_Type(0));
};

// Constants of an IEEE-754 binary format, as bit patterns. The widths are in bits.
template <typename _Word, u32 _MantissaBits, u32 _ExponentBits>
struct TAbstractIEEE754_FpConstants
{
    static constexpr _Word FpBits_PositiveInf = ((_Word(1) << _ExponentBits) - 1) << _MantissaBits;
};

// Constants of an IEEE-754 format, as values of the floating-point type. Usable before any dynamic initialiser.
template <typename _Fp, typename _Constants>
struct TAbstractFloatingPointRepresentation
{
    static_assert(std::numeric_limits<_Fp>::is_iec559, "IEEE-754 formats only");
    static constexpr _Fp kPositiveInfinity = std::numeric_limits<_Fp>::infinity(); // bit pattern: FpBits_PositiveInf
};

// A type without its reference and its const and volatile qualifiers.
template <typename _Type>
struct TType_StripQual
{
    using Type = typename std::remove_cv<typename std::remove_reference<_Type>::type>::type;
};

template <typename _Type>
constexpr const _Type &TZMin(const _Type &a, const _Type &b)
{
    return b < a ? b : a;
}

template <typename _Type>
constexpr const _Type &TZMax(const _Type &a, const _Type &b)
{
    return a < b ? b : a;
}

// Exchanges two objects by three moves. Containers and atomics have overloads of their own.
template <typename _Type>
void TZSwap(_Type &a, _Type &b)
{
    _Type tmp(std::move(a));
    a = std::move(b);
    b = std::move(tmp);
}

// Converts to a narrower type. Asserts that the value is unchanged; a changed one is returned all the same.
template <typename _TypeDst, typename _TypeSrc>
_TypeDst checked_numcast(_TypeSrc value)
{
    const _TypeDst result = static_cast<_TypeDst>(value);
    TZ_ASSERT(static_cast<typename TType_StripQual<_TypeSrc>::Type>(result) == value);
    return result;
}

namespace IntegerTools
{
// Index of the highest set bit. Requires value != 0.
constexpr u32 Log2(u32 value) { return 31u - static_cast<u32>(__builtin_clz(value)); }
} // namespace IntegerTools

// A base without copy construction and copy assignment.
class CNonCopyable
{
public:
    CNonCopyable(const CNonCopyable &) = delete;
    CNonCopyable &operator=(const CNonCopyable &) = delete;

protected:
    constexpr CNonCopyable() = default;
    ~CNonCopyable() = default;
};

} // namespace Tessaly
