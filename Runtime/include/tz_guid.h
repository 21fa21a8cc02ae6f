// TGuid: an index or identifier whose all-ones value means "none".
// It converts to its integer implicitly. Test Valid(), not the guid itself: INVALID is non-zero, and index 0 is valid.
#pragma once

#include "tz_defs.h"

namespace Tessaly
{

// An index or identifier, or none.
template <typename _Type>
class TGuid
{
public:
    _Type m_Guid;

    static const TGuid INVALID; // all ones; constant-initialised: usable before any dynamic initialiser

    // Without an argument INVALID.
    constexpr TGuid(_Type guid = TNumericTraits<_Type>::kMax)
        : m_Guid(guid)
    {
    }

    // False for INVALID only.
    constexpr bool Valid() const { return m_Guid != TNumericTraits<_Type>::kMax; }
    // The integer: all ones for INVALID.
    constexpr _Type Get() const { return m_Guid; }
    constexpr operator _Type() const { return m_Guid; }

    // Wrap around at the ends of _Type.
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
    constexpr TGuid operator++(int) { return TGuid(m_Guid++); }
    constexpr TGuid operator--(int) { return TGuid(m_Guid--); }
};

template <typename _Type>
constexpr TGuid<_Type> TGuid<_Type>::INVALID{TNumericTraits<_Type>::kMax};

using CGuid = TGuid<u32>;

// The type in which a guid and an integer are compared: the guid's, so that -1 equals INVALID, unless the integer is
// wider.
template <typename _Type, typename _Int>
using TGuidComparand = std::conditional_t<(sizeof(_Int) > sizeof(_Type)), std::common_type_t<_Type, _Int>, _Type>;

// Comparisons with another guid and, on either side, with any integer. Without the overloads for integers "guid == 0"
// would be ambiguous: the guid converts to an integer, and the integer to a guid.
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
