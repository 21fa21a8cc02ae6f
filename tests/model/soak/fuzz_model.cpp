// The fuzzer's way into the model: its bytes are a script. A difference ends the process, like any other crash, so that
// the fuzzer keeps the bytes.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "../drivers.h"

using namespace Tessaly;
using namespace Tessaly::Model;

extern "C" size_t LLVMFuzzerMutate(u8 *data, size_t size, size_t maxSize);

static u64 s_OperationCount = 0;

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    ::testing::InitGoogleTest(argc, *argv);
    GTEST_FLAG_SET(throw_on_failure, true); // what the tests' support finds ends the process
    std::atexit([] { std::fprintf(stderr, "operations: %llu\n", static_cast<unsigned long long>(s_OperationCount)); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, size_t size)
{
    const Script script = Decode(data, size);
    s_OperationCount += script.size();
    const std::string difference = RunScript(script);
    if (difference.empty())
        return 0;
    std::fprintf(stderr, "%s\n%s", difference.c_str(), ToString(script).c_str());
    std::abort();
}

// Mostly whole operations are put in, left out and repeated: bytes alone would shift all that follows.
extern "C" size_t LLVMFuzzerCustomMutator(u8 *data, size_t size, size_t maxSize, unsigned seed)
{
    CRandom random(seed);
    Script script = Decode(data, size);
    if (script.empty() || random.OneIn(3))
        return LLVMFuzzerMutate(data, size, maxSize);
    const s64 first = random.Below(u32(script.size())), count = 1 + random.Below(u32(script.size() - u64(first)));
    const auto begin = script.begin() + first;
    const u32 choice = random.Below(6);
    if (choice == 0)
        script.erase(begin, begin + (random.OneIn(2) ? 1 : count));
    else if (choice == 1)
    {
        const Script repeated(begin, begin + count);
        script.insert(begin, repeated.begin(), repeated.end());
    }
    else
    {
        const Script drawn = RandomScript(random.Bits(), choice == 2 ? 8 : 1);
        script.insert(begin, drawn.begin(), drawn.end());
    }
    const std::vector<u8> bytes = Encode(script);
    const size_t newSize = std::min(bytes.size(), maxSize);
    std::copy_n(bytes.begin(), newSize, data);
    return newSize;
}
