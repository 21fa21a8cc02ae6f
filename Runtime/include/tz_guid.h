// TGuid: an index or identifier whose all-ones value means "none".
// It converts to its integer without asking: test Valid(), never the guid itself (INVALID is non-zero, index 0 is not).
#pragma once

#include "tz_defs.h"

namespace Tessaly
{

// An index or identifier, or none.
template <typename _Type>
class TGuid
{
public:
    _Type m_Guid; // all ones: none

    static const TGuid INVALID; // constant-initialised: usable before any dynamic initialiser

    // None; or that index.
    constexpr TGuid()
        : m_Guid(TNumericTraits<_Type>::kMax)
    {
    }
    constexpr TGuid(_Type guid)
        : m_Guid(guid)
    {
    }

    constexpr bool Valid() const { return m_Guid != TNumericTraits<_Type>::kMax; } // it is not none
    // The index, or all ones.
    constexpr _Type Get() const { return m_Guid; }
    constexpr operator _Type() const { return m_Guid; }

    // Additions wrap around.
    template <typename _Int>
    constexpr TGuid operator+(_Int offset) const
    {
        return TGuid(static_cast<_Type>(m_Guid + static_cast<_Type>(offset)));
    }
    template <typename _Int>
    constexpr TGuid &operator+=(_Int offset)
    {
        m_Guid = static_cast<_Type>(m_Guid + static_cast<_Type>(offset));
        return *this;
    }
    constexpr TGuid &operator++() { return *this += _Type(1); }
    constexpr TGuid &operator--() { return *this += TNumericTraits<_Type>::kMax; }
    constexpr TGuid operator++(int)
    {
        const TGuid old = *this;
        ++*this;
        return old;
    }
    constexpr TGuid operator--(int)
    {
        const TGuid old = *this;
        --*this;
        return old;
    }
};

template <typename _Type>
constexpr TGuid<_Type> TGuid<_Type>::INVALID{TNumericTraits<_Type>::kMax};

using CGuid = TGuid<u32>; // the common kind

// What a guid is compared in with an integer: its own width, so that -1 is INVALID, unless the integer is wider.
template <typename _Type, typename _Int>
using TGuidComparand = std::conditional_t<(sizeof(_Int) > sizeof(_Type)), std::common_type_t<_Type, _Int>, _Type>;

// Comparisons with another guid and, on either side, with any integer: the exact overloads keep "guid == 0" from being
// ambiguous between the conversion to the integer and the one from it.
#define TZ_GUID_COMPARISON(op)                                                                                         \
    template <typename _Type>                                                                                          \
    constexpr bool operator op(TGuid<_Type> a, TGuid<_Type> b)                                                         \
    {                                                                                                                  \
        return a.m_Guid op b.m_Guid;                                                                                   \
    }                                                                                                                  \
    template <typename _Type, typename _Int, typename = std::enable_if_t<std::is_integral<_Int>::value>>               \
    constexpr bool operator op(TGuid<_Type> a, _Int b)                                                                 \
    {                                                                                                                  \
        return TGuidComparand<_Type, _Int>(a.m_Guid) op TGuidComparand<_Type, _Int>(b);                                \
    }                                                                                                                  \
    template <typename _Type, typename _Int, typename = std::enable_if_t<std::is_integral<_Int>::value>>               \
    constexpr bool operator op(_Int a, TGuid<_Type> b)                                                                 \
    {                                                                                                                  \
        return TGuidComparand<_Type, _Int>(a) op TGuidComparand<_Type, _Int>(b.m_Guid);                                \
    }

TZ_GUID_COMPARISON(==)
TZ_GUID_COMPARISON(!=)
TZ_GUID_COMPARISON(<)
TZ_GUID_COMPARISON(<=)
TZ_GUID_COMPARISON(>)
TZ_GUID_COMPARISON(>=)

#undef TZ_GUID_COMPARISON

} // namespace Tessaly
