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

// The words are summed up in lanes, as vector units do it; HDF5's words are big endian, and exchanging the bytes of all
// of them multiplies both sums by 256.
u32 Fletcher32(const u8 *data, ureg byteCount)
{
    constexpr ureg kLanes = 16, kMaxRows = 256; // so many rows do not overflow a lane
    u64 sum1 = 0, sum2 = 0;
    ureg wordCount = byteCount / 2;
    while (wordCount >= kLanes)
    {
        const ureg rows = TZMin(wordCount / kLanes, kMaxRows);
        u32 lane1[kLanes] = {}, lane2[kLanes] = {};
        for (ureg row = 0; row < rows; ++row, data += kLanes * 2)
        {
            u16 words[kLanes];
            std::memcpy(words, data, sizeof(words));
            for (ureg lane = 0; lane < kLanes; ++lane)
            {
                lane2[lane] += lane1[lane];
                lane1[lane] += words[lane];
            }
        }
        u64 rowsSum1 = 0, rowsSum2 = sum1 * rows * kLanes;
        for (ureg lane = 0; lane < kLanes; ++lane)
        {
            rowsSum1 += lane1[lane];
            rowsSum2 += u64(lane2[lane]) * kLanes + u64(lane1[lane]) * (kLanes - lane);
        }
        sum1 = Fold(sum1 + rowsSum1);
        sum2 = Fold(sum2 + rowsSum2);
        wordCount -= rows * kLanes;
    }
    for (; wordCount != 0; --wordCount, data += 2)
    {
        sum1 += ureg(data[0]) | ureg(data[1]) << 8;
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

} // namespace Snapshot
} // namespace Tessaly
