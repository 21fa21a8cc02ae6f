// The drivers: each runs what follows from one number, and returns what went wrong, or nothing.
//
// A driver starts and ends the runtime by itself and needs a process that is otherwise without streams. Tests run them
// on fixed numbers; soak_model goes on with others.
#pragma once

#include "operation.h"

namespace Tessaly::Model
{

// What has been done so far.
struct SFigures
{
    u64 m_Operations = 0;
    u64 m_Refusals = 0; // runs of a script with another request refused
    u64 m_Rounds = 0;
};

using FnDriver = std::string (*)(u64 seed, SFigures &figures);

// A random script against the model.
std::string DriveRandom(u64 seed, SFigures &figures);
// A random script, with every request for memory refused in turn: it alone, all from it on, every second from it on;
// and with a random tenth of them.
std::string DriveRefusedMemory(u64 seed, SFigures &figures);
// The same for blocks of the page allocator.
std::string DriveRefusedBlocks(u64 seed, SFigures &figures);
// A round of threads: on one stream, on streams of their own, on the page allocator.
std::string DriveThreads(u64 seed, SFigures &figures);

// One script against the model, with nothing refused.
std::string RunScript(const Script &script);

// Faults that a test plants between the drivers and the library, to prove that the drivers see.
enum class EPlanted : u8
{
    None,
    LostRow,        // a resize loses the last particle, count and pages agreeing
    FlippedBit,     // rebinding changes one bit of the last row of the last column
    Miscount,       // an operation that was refused memory counts a particle that is not there
    ForgottenBlock, // an operation that was refused a block keeps another one
    EarlyUnlock,    // the lock is released between an allocation and the writing of its rows
};

extern EPlanted g_Planted;

} // namespace Tessaly::Model
