// The model's random numbers: the same in every build.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{
namespace Model
{

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

// A word that means something to floats and integers alike: limits, fractions, what does not fit.
u32 InterestingWord(CRandom &random);

} // namespace Model
} // namespace Tessaly
