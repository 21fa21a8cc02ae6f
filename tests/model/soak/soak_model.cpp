// soak_model DRIVER SECONDS FIRST_SEED FILE: one driver on seed after seed, for as long as told. FILE holds the figures
// so far in one line, rewritten with each seed: the next seed, operations, failure points, rounds, findings. After a
// crash its first number is that of the seed that crashed. What went wrong goes to the standard output.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>

#include <gtest/gtest.h>

#include "../drivers.h"

using namespace Tessaly;
using namespace Tessaly::Model;

namespace
{

void Save(std::FILE *file, u64 nextSeed, const SFigures &figures, u64 findingCount)
{
    const auto number = [](u64 value) { return static_cast<unsigned long long>(value); };
    std::rewind(file);
    std::fprintf(file, "%llu %llu %llu %llu %llu\n", number(nextSeed), number(figures.m_Operations),
                 number(figures.m_Refusals), number(figures.m_Rounds), number(findingCount));
    std::fflush(file);
}

} // namespace

int main(int argc, char **argv)
{
    static const std::map<std::string, std::string (*)(u64, SFigures &)> kDrivers = {{"random", &DriveRandom},
                                                                                     {"memory", &DriveRefusedMemory},
                                                                                     {"blocks", &DriveRefusedBlocks},
                                                                                     {"threads", &DriveThreads}};
    ::testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(throw_on_failure, true); // what the tests' support finds ends the process
    const auto driver = argc == 5 ? kDrivers.find(argv[1]) : kDrivers.end();
    std::FILE *file = argc == 5 ? std::fopen(argv[4], "w") : null;
    if (driver == kDrivers.end() || file == null)
        return 2;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(argv[2]));
    SFigures figures;
    u64 seed = std::strtoull(argv[3], null, 0), findingCount = 0;
    for (; std::chrono::steady_clock::now() < end && findingCount < 5; ++seed)
    {
        Save(file, seed, figures, findingCount);
        const std::string difference = driver->second(seed, figures);
        if (difference.empty())
            continue;
        ++findingCount;
        std::printf("%s, seed %llu: %s\n", argv[1], static_cast<unsigned long long>(seed), difference.c_str());
        std::fflush(stdout);
    }
    Save(file, seed, figures, findingCount);
    return 0; // whatever was found: everything else is a crash
}
