// CStringId: the identifier of a name: its 32-bit FNV-1a hash, or a number of the host's choice; 0 is the empty id.
//
// An id holds no text. A host may register texts, which debuggers and messages then show instead of numbers.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// The identifier of a name.
class TZ_API CStringId
{
public:
    u32 m_Id;

    // Without an argument the empty id.
    constexpr CStringId(u32 id = 0)
        : m_Id(id)
    {
    }
    // The hash of a text, which ends at its first NUL or with the array. It is never 0.
    template <size_t _Size>
    constexpr CStringId(const char (&text)[_Size])
        : m_Id(_Hash(text, _Size))
    {
    }
    // The same for a text of at most length characters. Null gives the empty id.
    static constexpr CStringId FromText(const char *text, u32 length)
    {
        return text != nullptr ? CStringId(_Hash(text, length)) : CStringId();
    }

    // Keeps a copy of a NUL-terminated text for Text(). A text that is registered already changes nothing.
    // Returns: its id.
    // Fails:   null is reported and gives the empty id. A text with the same id as another one is reported and not
    //          kept. A text is not kept when memory is refused.
    // Lock:    none; any thread.
    // Cost:    O(registered texts).
    static CStringId Register(const char *text);
    // Frees the memory of all registered texts. Only a host that counts its live blocks at the end needs it.
    // Lock:        none; no other thread may use registered texts at the same time.
    // Invalidates: what Text() returned.
    static void UnregisterAll();
    // Returns: the text that is registered for the id, or null.
    // Lock:    none; any thread.
    // Cost:    O(registered texts).
    const char *Text() const;

    // Ids compare by their numbers; the empty one is 0.
    constexpr bool Empty() const { return m_Id == 0; }
    constexpr bool operator==(CStringId other) const { return m_Id == other.m_Id; }
    constexpr bool operator!=(CStringId other) const { return m_Id != other.m_Id; }

private:
    static constexpr u32 _Hash(const char *text, size_t length)
    {
        u32 hash = 2166136261u;
        for (size_t i = 0; i < length && text[i] != 0; ++i)
            hash = (hash ^ static_cast<u8>(text[i])) * 16777619u;
        return hash != 0 ? hash : 1;
    }
};

} // namespace Tessaly
