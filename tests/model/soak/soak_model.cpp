// One driver of the model on seed after seed, for as long as told. FILE holds the figures so far in one line, rewritten
// with each seed: the next seed, operations, refusals, rounds, findings. After a crash its first number is that of the
// seed that crashed. What went wrong goes to the standard output.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

#include "../drivers.h"

using namespace Tessaly;
using namespace Tessaly::Model;

int main(int argc, char **argv)
{
    static const std::map<std::string, FnDriver> kDrivers = {{"random", &DriveRandom},
                                                             {"memory", &DriveRefusedMemory},
                                                             {"blocks", &DriveRefusedBlocks},
                                                             {"threads", &DriveThreads}};
    std::string driver, fileName;
    u32 seconds = 0;
    u64 seed = 0, findingCount = 0;
    CLI::App app("Runs one driver of the model on seed after seed, for as long as told.", "soak_model");
    app.add_option("DRIVER", driver, "random, memory, blocks or threads")->required()->check(CLI::IsMember(kDrivers));
    app.add_option("SECONDS", seconds, "how long")->required();
    app.add_option("FIRST_SEED", seed, "counted up from here")->required();
    app.add_option("FILE", fileName, "gets the figures")->required();
    CLI11_PARSE(app, argc, argv);
    ::testing::InitGoogleTest();
    GTEST_FLAG_SET(throw_on_failure, true); // what the tests' support finds ends the process

    std::ofstream file(fileName);
    SFigures figures;
    const auto save = [&]
    {
        file.seekp(0) << seed << ' ' << figures.m_Operations << ' ' << figures.m_Refusals << ' ' << figures.m_Rounds
                      << ' ' << findingCount << std::endl;
    };
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (; file && std::cout && std::chrono::steady_clock::now() < end && findingCount < 5; ++seed)
    {
        save();
        const std::string difference = kDrivers.at(driver)(seed, figures);
        findingCount += difference.empty() ? 0 : 1;
        if (!difference.empty())
            std::cout << driver << ", seed " << seed << ": " << difference << std::endl;
    }
    save();
    return file && std::cout ? 0 : 1; // whatever was found: everything else is a crash
}
