// Views and iterators beside the standard library's containers and algorithms. Compiled as C++20 for the concepts.
#include <algorithm>
#include <array>
#include <numeric>
#include <span>
#include <vector>

#include <gtest/gtest.h>

#include <support/report_recorder.h>
#include <tz_kernel/include/kr_containers_array.h>
#include <tz_kernel/include/kr_refptr.h>
#include <tz_particles/include/ps_for_each.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

static_assert(std::random_access_iterator<TArray<u32>::Iterator>);
static_assert(std::random_access_iterator<TArray<u32>::ConstIterator>);
static_assert(std::random_access_iterator<TStridedMemoryView<u32>::CIterator>);
static_assert(std::random_access_iterator<TStridedMemoryView<const u32>::CIterator>);
static_assert(std::ranges::contiguous_range<TMemoryView<u32>>);
static_assert(std::is_convertible_v<TArray<u32>::Iterator, TArray<u32>::ConstIterator>);
static_assert(!std::is_convertible_v<TArray<u32>::ConstIterator, TArray<u32>::Iterator>);

using Numbers = std::vector<u32>;

// A temporary may be read while the call lasts, but never be written.
static_assert(std::is_constructible_v<TMemoryView<const u32>, Numbers>);
static_assert(std::is_constructible_v<TMemoryView<u32>, Numbers &>);
static_assert(!std::is_constructible_v<TMemoryView<u32>, Numbers>);
static_assert(!std::is_constructible_v<TMemoryView<u32>, const Numbers &>);
static_assert(!std::is_constructible_v<TStridedMemoryView<u32>, Numbers>);
static_assert(!std::is_constructible_v<TMemoryView<u32>, std::vector<u64> &>);
static_assert(!std::is_constructible_v<TMemoryView<const CRefCountedObject *>, std::vector<u32 *> &>);

TEST(Views, AreMadeFromContiguousContainers)
{
    CReportRecorder reports;
    Numbers numbers{1, 2, 3};
    std::array<u32, 2> pair{8, 9};
    const std::array<u32, 2> &constPair = pair;
    *TMemoryView<u32>(numbers).begin() = 5;
    *(TStridedMemoryView<u32>(pair).end() - 1) = 7;
    EXPECT_EQ(TMemoryView<const u32>(constPair)[1] + TStridedMemoryView<const u32>(numbers)[0], 12u);
    EXPECT_EQ(TMemoryView<const u32>(std::span<u32>(numbers)).Count(), 3u);
    TArray<u32> array(numbers);
    array = pair;
    EXPECT_TRUE(std::ranges::equal(array, pair));
}

template <typename _Range>
static void Sort(_Range &&range)
{
    auto it = std::find(range.begin(), range.end(), 3u);
    EXPECT_EQ(it - range.begin(), 2);
    EXPECT_EQ(*it++, 3u);
    EXPECT_EQ(*it--, 1u);
    EXPECT_EQ(it[-1] + *std::prev(it), 9u + 9);
    EXPECT_TRUE(it > range.begin() && it <= range.end() - 3 && 2 + range.begin() == it && it >= it &&
                it != range.end());
    std::sort(range.begin(), range.end());
    EXPECT_EQ(Numbers(range.begin(), range.end()), (Numbers{1, 3, 4, 5, 9}));
    std::transform(range.begin(), range.end(), range.begin(), [](u32 number) { return number * 2; });
    EXPECT_TRUE(std::ranges::is_sorted(range));
    EXPECT_EQ(std::accumulate(range.begin(), range.end(), 0u), 44u);
}

TEST(Iterators, ServeTheStandardAlgorithms)
{
    CReportRecorder reports;
    const u32 numbers[] = {5, 9, 3, 1, 4};
    u32 spaced[15] = {};
    for (u32 i = 0; i < 5; ++i)
        spaced[i * 3] = numbers[i];
    TArray<u32> array{TMemoryView<const u32>(numbers, 5)};
    Sort(array);
    Sort(TStridedMemoryView<u32>(spaced, 5, 12));
    EXPECT_EQ(spaced[12], 18u);
    EXPECT_EQ(std::accumulate(spaced, spaced + 15, 0u), 44u) << "nothing beside the elements";
    const TStridedMemoryView<const u32> repeated(numbers, 4, 0);
    EXPECT_EQ(Numbers(repeated.begin(), repeated.end()), (Numbers{5, 5, 5, 5}));
    const TStridedMemoryView<const u8> far(reinterpret_cast<const u8 *>(ureg(64)), 0x10001, 0x10000);
    EXPECT_EQ(ureg(far.end().m_Element), 64 + (u64(0x10001) << 16)) << "iterators do not wrap";
    TArray<u32> none;
    std::sort(none.begin(), none.end());
    EXPECT_EQ(Numbers(none.begin(), none.end() + 0), Numbers());
    EXPECT_EQ(TArray<u32>::ConstIterator(array.begin()), array.begin());
    EXPECT_EQ(reports.Count(), 0u);
    EXPECT_EQ(*array.end(), 0u) << "a stand-in";
    EXPECT_EQ(*TArray<u32>::Iterator(), 0u);
    EXPECT_EQ(reports.Take().size(), 3u);
}
