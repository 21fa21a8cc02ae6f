// One operation of a script: eight bytes, every value of which means something in every state, so that scripts can be
// drawn at random, mutated, cut into pieces and kept in files.
#pragma once

#include <string>
#include <vector>

#include "random.h"

namespace Tessaly
{
namespace Model
{

enum class EOperation : u8
{
    Bind,        // A: loan
    BindTwin,    // A: 0 of the same object, 1 of null, else of an equal one
    Rebirth,     // A: page size of the stream that takes the place
    Allocate,    // A: wished, B: hint
    AllocateAll, // A: count, over several pages
    Fill,        // A: page, B: first, C: count
    Remove,      // A: page, B: pattern, C: 0 a bad list
    RemoveInPage,
    AllocateInPage, // A: page, B: count, C: 0 unchecked
    Misregister,    // A: count, C: 0 born, 1 dead, 2 unchecked
    Repair,
    SetPageSize, // A: page size
    Resize,      // A: bound
    Recount,
    Collect,  // A: 0 without reindexer, 1 of a wrong size
    DeepCopy, // A: source
    Swap,     // A: other
    Clear,
    Cleanup,
    MakePage, // A: capacity
    TakeView, // A: page, B: first, C: count
    DropView,
    BeginRead, // A: page
    EndRead,
    CopySubRange, // A: pages, B: start, C: count
    CopyPage,     // A: page and view
    Transfer,     // A: page and view, B: start
    Query,        // A: name
    SetBudget,    // A: pages left
    Tend,         // A: 0 cleans the page allocator out
    Count,
};

struct SOperation
{
    EOperation m_Kind;
    u8 m_Stream;
    u16 m_A, m_B, m_C;
};

using Script = std::vector<SOperation>;

Script Decode(const u8 *bytes, size_t size);
std::vector<u8> Encode(const Script &script);
Script RandomScript(u64 seed, u32 length);
// Makes lists of 34 pages, some of which are held, and changes held ones that a collection or a resize has taken out.
Script LongListScript(u64 seed);
std::string ToString(const Script &script); // as C++ and as text

// What the 16 bits of an argument stand for.
u32 CountOf(u16 code);
u32 PageSizeOf(u16 code);

} // namespace Model
} // namespace Tessaly
