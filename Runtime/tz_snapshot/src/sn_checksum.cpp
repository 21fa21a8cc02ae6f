#include "sn_checksum.h"

#include <cstring>

namespace Tessaly
{
namespace Snapshot
{

namespace
{

// The sum modulo 65535, where only 0 gives 0.
u64 Fold(u64 sum)
{
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return sum;
}

} // namespace

// Eight words at a time, two a lane. HDF5's words are big endian: to exchange the bytes of all of them multiplies both
// sums by 256.
u32 Fletcher32(const u8 *data, ureg byteCount)
{
    typedef u32 Lanes __attribute__((vector_size(16)));
    constexpr ureg kLanes = 4, kMaxRows = 128; // so many rows do not overflow a lane
    u64 sum1 = 0, sum2 = 0;
    for (ureg rowsLeft = byteCount / sizeof(Lanes); rowsLeft != 0;)
    {
        const ureg rows = TZMin(rowsLeft, kMaxRows);
        rowsLeft -= rows;
        Lanes words = {}, lowWords = {}, runningSums = {};
        for (ureg row = 0; row < rows; ++row, data += sizeof(Lanes))
        {
            Lanes pairs;
            std::memcpy(&pairs, data, sizeof(pairs));
            const Lanes low = pairs & 0xFFFF;
            runningSums += words;
            words += low + (pairs >> 16);
            lowWords += low;
        }
        sum2 += sum1 * rows * kLanes * 2;
        for (ureg lane = 0; lane < kLanes; ++lane)
        {
            sum1 += words[lane];
            sum2 +=
                u64(runningSums[lane]) * kLanes * 2 + u64(words[lane]) * (kLanes * 2 - lane * 2 - 1) + lowWords[lane];
        }
        sum1 = Fold(sum1);
        sum2 = Fold(sum2);
    }
    for (ureg wordsLeft = byteCount % sizeof(Lanes) / 2; wordsLeft != 0; --wordsLeft, data += 2)
    {
        sum1 += u64(data[0]) | u64(data[1]) << 8;
        sum2 += sum1;
    }
    sum1 = Fold(Fold(sum1) << 8);
    sum2 = Fold(Fold(sum2) << 8);
    if (byteCount % 2 != 0)
    {
        sum1 = Fold(sum1 + (u64(*data) << 8));
        sum2 = Fold(sum2 + sum1);
    }
    return u32(sum2 << 16 | sum1);
}

namespace
{

u32 Rotate(u32 value, u32 bits) { return value << bits | value >> (32 - bits); }

} // namespace

u32 HeaderChecksum(const u8 *data, ureg byteCount)
{
    static constexpr u32 kMixBits[] = {4, 6, 8, 16, 19, 4};
    static constexpr u32 kFinalBits[] = {14, 11, 25, 16, 4, 14, 24};
    u32 state[3]; // a, b and c
    state[0] = state[1] = state[2] = 0xDEADBEEF + u32(byteCount);
    if (byteCount == 0)
        return state[2];
    for (;;)
    {
        u32 words[3] = {};
        const ureg blockBytes = TZMin(byteCount, sizeof(words));
        std::memcpy(words, data, blockBytes);
        for (u32 i = 0; i < 3; ++i)
            state[i] += words[i];
        data += blockBytes;
        byteCount -= blockBytes;
        if (byteCount == 0)
            break;
        for (u32 i = 0; i < 6; ++i)
        {
            u32 &x = state[i % 3], &y = state[(i + 1) % 3], &z = state[(i + 2) % 3];
            x = (x - z) ^ Rotate(z, kMixBits[i]);
            z += y;
        }
    }
    for (u32 i = 0; i < 7; ++i)
    {
        u32 &x = state[(i + 2) % 3];
        const u32 y = state[(i + 1) % 3];
        x = (x ^ y) - Rotate(y, kFinalBits[i]);
    }
    return state[2];
}

} // namespace Snapshot
} // namespace Tessaly
