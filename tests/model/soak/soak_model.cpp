// One driver of the model on seed after seed, for as long as told. FILE holds the figures so far in one line, rewritten
// with each seed: the next seed, operations, failure points, rounds, findings. After a crash its first number is that
// of the seed that crashed. What went wrong goes to the standard output.
#include <chrono>
#include <cstdio>
#include <map>

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

#include "../drivers.h"

using namespace Tessaly;
using namespace Tessaly::Model;

namespace
{

struct SOptions
{
    std::string m_Driver, m_FiguresFile;
    u32 m_Seconds = 0;
    u64 m_FirstSeed = 0;
};

bool Save(std::FILE *file, u64 nextSeed, const SFigures &figures, u64 findingCount)
{
    const auto number = [](u64 value) { return static_cast<unsigned long long>(value); };
    std::rewind(file);
    std::fprintf(file, "%llu %llu %llu %llu %llu\n", number(nextSeed), number(figures.m_Operations),
                 number(figures.m_Refusals), number(figures.m_Rounds), number(findingCount));
    return std::fflush(file) == 0;
}

int Drive(const SOptions &options, std::string (*driver)(u64, SFigures &))
{
    std::FILE *file = std::fopen(options.m_FiguresFile.c_str(), "w");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.m_Seconds);
    SFigures figures;
    u64 seed = options.m_FirstSeed, findingCount = 0;
    bool isWritten = file != null;
    for (; isWritten && std::chrono::steady_clock::now() < end && findingCount < 5; ++seed)
    {
        isWritten = Save(file, seed, figures, findingCount);
        const std::string difference = driver(seed, figures);
        if (difference.empty())
            continue;
        ++findingCount;
        std::printf("%s, seed %llu: %s\n", options.m_Driver.c_str(), static_cast<unsigned long long>(seed),
                    difference.c_str());
        isWritten = std::fflush(stdout) == 0 && isWritten;
    }
    if (isWritten && Save(file, seed, figures, findingCount))
        return 0; // whatever was found: everything else is a crash
    std::fprintf(stderr, "soak_model: an output can not be written\n");
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    static const std::map<std::string, std::string (*)(u64, SFigures &)> kDrivers = {{"random", &DriveRandom},
                                                                                     {"memory", &DriveRefusedMemory},
                                                                                     {"blocks", &DriveRefusedBlocks},
                                                                                     {"threads", &DriveThreads}};
    CLI::App app("Runs one driver of the model on seed after seed, for as long as told.", "soak_model");
    SOptions options;
    app.add_option("DRIVER", options.m_Driver, "random, memory, blocks or threads")
        ->required()
        ->check(CLI::IsMember(kDrivers));
    app.add_option("SECONDS", options.m_Seconds, "how long")->required();
    app.add_option("FIRST_SEED", options.m_FirstSeed, "counted up from here")
        ->required()
        ->check(CLI::NonNegativeNumber);
    app.add_option("FILE", options.m_FiguresFile, "gets the figures")->required();
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp &)
    {
        return std::fputs(app.help().c_str(), stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
    }
    catch (const CLI::ParseError &error)
    {
        std::fprintf(stderr, "soak_model: %s\n", error.what());
        return 2;
    }
    ::testing::InitGoogleTest();
    GTEST_FLAG_SET(throw_on_failure, true); // what the tests' support finds ends the process
    return Drive(options, kDrivers.at(options.m_Driver));
}
