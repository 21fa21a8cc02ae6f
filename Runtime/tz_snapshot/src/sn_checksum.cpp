#include "sn_checksum.h"

#include <cstring>

namespace Tessaly::Snapshot
{

namespace
{

// The sum modulo 65535, except that a multiple above 0 gives 65535.
u64 Fold(u64 sum)
{
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return sum;
}

} // namespace

// Adds eight 16-bit words at a time, two in each lane of a vector: Load takes a third longer with one word at a time.
// HDF5's words are big endian: swapping their bytes multiplies both sums by 256 modulo 65535.
u32 Fletcher32(const u8 *data, ureg byteCount)
{
    typedef u32 Lanes __attribute__((vector_size(16)));
    constexpr ureg kLanes = 4, kMaxRows = 128; // more rows could overflow a lane
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

} // namespace Tessaly::Snapshot
