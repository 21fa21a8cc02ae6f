#pragma once
// A random number generator, like SplitMix64, with the same numbers on every machine.

#include <tz_defs.h>

namespace Wind
{
using namespace Tessaly;

class CRandom
{
public:
    explicit CRandom(u32 seed)
        : m_State(seed)
    {
    }

    u32 Next()
    {
        m_State += 0x9E3779B97F4A7C15ull;
        u64 mixed = (m_State ^ (m_State >> 30)) * 0xBF58476D1CE4E5B9ull;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBull;
        return u32(mixed >> 32);
    }

    u32 Below(u32 end) { return u32(u64(Next()) * end >> 32); }        // from 0 up to, not including, end
    float Unit() { return float(Next() >> 8) * (1.0f / 16777216.0f); } // from 0 up to, not including, 1

private:
    u64 m_State;
};
} // namespace Wind
