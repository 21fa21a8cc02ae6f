// CStringId: an interned-string identifier; 0 is the empty id. Interning itself is the host's.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// The id of a name.
class CStringId
{
public:
    u32 m_Id; // 0: the empty name

    // The empty id; or that one.
    constexpr CStringId()
        : m_Id(0)
    {
    }
    constexpr CStringId(u32 id)
        : m_Id(id)
    {
    }

    constexpr bool Empty() const { return m_Id == 0; } // the empty name
    // Equal when the ids are.
    constexpr bool operator==(CStringId other) const { return m_Id == other.m_Id; }
    constexpr bool operator!=(CStringId other) const { return m_Id != other.m_Id; }
};

} // namespace Tessaly
