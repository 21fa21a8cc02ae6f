// Faults that a test plants between the drivers and the library, to prove that the drivers see.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{
namespace Model
{

enum class EPlanted : u8
{
    None,
    LostRow,        // a resize pass loses the last particle, count and pages agreeing
    FlippedBit,     // rebinding turns over one bit of the last row of the last column
    Miscount,       // an operation that was refused memory counts a particle that is not there
    ForgottenBlock, // an operation that was refused a block keeps another one for ever
    EarlyUnlock,    // a birth lets go of the lock before the rows are written
};

extern EPlanted g_Planted;

} // namespace Model
} // namespace Tessaly
