// The fuzzer's way into the model: its bytes are a script. A difference ends the process, like any other crash, so that
// the fuzzer keeps the bytes.
#include <algorithm>
#include <cstdlib>
#include <iostream>

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
    std::atexit([] { std::cerr << "operations: " << s_OperationCount << std::endl; });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, size_t size)
{
    const Script script = Decode(data, size);
    s_OperationCount += script.size();
    const std::string difference = RunScript(script);
    if (difference.empty())
        return 0;
    std::cerr << difference << "\n" << ToString(script);
    std::abort();
}

// Mostly whole operations are put in, left out and repeated: bytes alone would shift all that follows.
extern "C" size_t LLVMFuzzerCustomMutator(u8 *data, size_t size, size_t maxSize, unsigned seed)
{
    CRandom random(seed);
    Script script = Decode(data, size);
    if (script.empty() || random.OneIn(3))
        return LLVMFuzzerMutate(data, size, maxSize);
    const u32 first = random.Below(u32(script.size())), count = 1 + random.Below(u32(script.size()) - first);
    const auto begin = script.begin() + first;
    Script inserted = RandomScript(random.Bits(), random.OneIn(4) ? 8 : 1);
    if (random.OneIn(4))
        inserted.assign(begin, begin + count);
    if (random.OneIn(4))
        script.erase(begin, begin + (random.OneIn(2) ? 1 : count));
    else
        script.insert(begin, inserted.begin(), inserted.end());
    const std::vector<u8> bytes = Encode(script);
    return size_t(std::copy_n(bytes.begin(), std::min(bytes.size(), maxSize), data) - data);
}
