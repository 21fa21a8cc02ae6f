// CStringId: the identifier of a name, its FNV-1a hash of 32 bits or a number of the host's choice; 0 is the empty id.
//
// Ids carry no text. A host may register texts, which debuggers and messages then show instead of numbers.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{

// The id of a name.
class TZ_API CStringId
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
    // The id of a text, which ends at its first NUL or with the array: never 0.
    template <size_t _Size>
    constexpr CStringId(const char (&text)[_Size])
        : m_Id(_Hash(text, _Size))
    {
    }
    // The same of the first length characters at most; of null, the empty id.
    static constexpr CStringId FromText(const char *text, u32 length)
    {
        return text != nullptr ? CStringId(_Hash(text, length)) : CStringId();
    }

    // Keeps a copy of the text (NUL-terminated) for Text(), and returns its id. The same text again changes nothing.
    // Fails: another text of the same id is reported and not kept, null is reported and gives the empty id, and where
    // memory is refused the text is not kept. Any thread. O(registered names).
    static CStringId Register(const char *text);
    // Forgets all registered texts and frees their memory; what Text() gave is gone. Nobody else uses them meanwhile.
    // Only a host that counts what it gets back needs it.
    static void UnregisterAll();
    // The text that was registered for the id, or null. Any thread. O(registered names).
    const char *Text() const;

    constexpr bool Empty() const { return m_Id == 0; } // the empty name
    // Equal when the ids are.
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
