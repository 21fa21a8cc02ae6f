#include <chrono>
#include <cstdlib>

#include <support/scoped_runtime.h>

#include "effort.h"
#include "interpreter.h"
#include "reduce.h"

namespace Tessaly
{
namespace Model
{

namespace
{

constexpr u32 kLength = 200; // operations of a script
constexpr u64 kFixedSeedCount = kIsSanitized ? 25 : 250;

void RunSeed(u64 seed)
{
    const Tests::CScopedRuntime runtime;
    const Script script = RandomScript(seed, kLength);
    const std::string difference = CInterpreter::RunAll(script);
    if (difference.empty())
        return;
    const Script shorter =
        Reduce(script, [](const Script &candidate) { return !CInterpreter::RunAll(candidate).empty(); });
    ADD_FAILURE() << "seed " << seed << ": " << difference << "\nreduced: " << CInterpreter::RunAll(shorter) << "\n"
                  << ToString(shorter);
}

} // namespace

TEST(RandomOperations, FixedSeedsAgreeWithTheModel)
{
    for (u64 seed = 1; seed <= kFixedSeedCount && !::testing::Test::HasFailure(); ++seed)
        RunSeed(seed);
}

// TESSALY_MODEL_SEED: the first seed; TESSALY_MODEL_SECONDS: how long to go on with those behind it.
TEST(RandomOperations, SeedsOfTheEnvironmentAgreeWithTheModel)
{
    const char *seedText = std::getenv("TESSALY_MODEL_SEED"), *secondsText = std::getenv("TESSALY_MODEL_SECONDS");
    u64 seed = seedText != null ? std::strtoull(seedText, null, 0)
                                : u64(std::chrono::system_clock::now().time_since_epoch().count());
    const std::chrono::seconds duration(secondsText != null ? std::atoi(secondsText) : 0);
    const auto end = std::chrono::steady_clock::now() + duration;
    std::printf("first seed: %llu\n", static_cast<unsigned long long>(seed));
    do
        RunSeed(seed++);
    while (std::chrono::steady_clock::now() < end && !::testing::Test::HasFailure());
    std::printf("seed behind the last: %llu\n", static_cast<unsigned long long>(seed));
}

} // namespace Model
} // namespace Tessaly
