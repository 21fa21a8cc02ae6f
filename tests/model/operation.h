// The operations of a script. One takes eight bytes: kind, stream and three arguments of 16 bits. Every value is valid
// in every state, so that scripts can be drawn at random, mutated, cut and kept in files.
#pragma once

#include <string>
#include <vector>

#include <tz_defs.h>

namespace Tessaly::Model
{

// The order is that of the files in corpus. A count or a page size is what CountOf or PageSizeOf makes of the argument.
enum class EOperation : u8
{
    Bind,           // A: number of the definition
    BindAgain,      // A: 0 the same object, 1 null, else an equal one
    Replace,        // destroys the stream and makes one of page size A
    Allocate,       // A: wished count, B: minimal count, C: 1 keeps the view
    AllocateAll,    // A: count, over several pages
    Fill,           // A: page, B: first, C: count
    Remove,         // A: page, B: pattern, C: 1 a wrong list, odd numbers ask for the moves
    RemoveInPage,   // the same, by the page's operation
    AllocateInPage, // A: page, B: count
    RegisterCount,  // A: count, C: 0 born, 1 dead; the stream's count is wrong from there on
    CorrectCount,
    SetPageSize, // A: page size
    Resize,      // A: most pages
    Recount,     // of the pending resizes
    Collect,     // A: 0 without reindexer, 1 of a wrong size
    DeepCopy,    // A: source
    Swap,        // A: other
    Clear,
    Cleanup,
    MakePage, // A: page size, B: 0 not listed
    TakeView, // A: page, B: first, C: count
    DropView,
    BeginRead, // A: page
    EndRead,
    CopySubRange, // A: pages, B: start, C: count
    CopyPage,     // A: page and view
    Transfer,     // A: page and view, B: start
    Query,        // A: name, B: page size
    SetBudget,    // A: pages left, B: for how many operations
    Update,       // of the page allocator; A: 0 cleans all free pages
    Count,
};

struct SOperation
{
    EOperation m_Kind;
    u8 m_Stream;
    u16 m_A, m_B, m_C;
};

using Script = std::vector<SOperation>;

// The same in every build.
class CRandom
{
public:
    explicit CRandom(u64 seed)
        : m_State(seed)
    {
    }

    u64 Bits()
    {
        m_State += 0x9E3779B97F4A7C15u;
        u64 bits = (m_State ^ (m_State >> 30)) * 0xBF58476D1CE4E5B9u;
        bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EBu;
        return bits ^ (bits >> 31);
    }
    u32 Below(u32 bound) { return u32(Bits() % bound); }
    bool OneIn(u32 n) { return Below(n) == 0; }
    template <typename _Type, u32 _Count>
    const _Type &Pick(const _Type (&values)[_Count])
    {
        return values[Below(_Count)];
    }

private:
    u64 m_State;
};

u32 CountOf(u16 argument);
u32 PageSizeOf(u16 argument);

Script Decode(const u8 *bytes, size_t size);
std::vector<u8> Encode(const Script &script);
std::string ToString(const Script &script); // as C++, with what the arguments mean

Script RandomScript(u64 seed, u32 length);
// Two streams with 171 pages each, of which held ones leave the list in a collection and a resize and are then changed.
Script LongListScript(u64 seed);

} // namespace Tessaly::Model
