#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include <support/allocator_hook.h>
#include <support/report_recorder.h>
#include <tz_kernel/include/kr_address_sanitizer.h>
#include <tz_particles/include/ps_runtime.h>

#include "drivers.h"

namespace Tessaly
{
namespace Model
{

namespace
{

// Sanitizers are slow, and the one for threads finds little where there is one.
#if defined(__SANITIZE_THREAD__)
constexpr u64 kSlowness = 40, kSlownessOfThreads = 10;
#elif defined(__SANITIZE_ADDRESS__)
constexpr u64 kSlowness = 10, kSlownessOfThreads = 10;
#else
constexpr u64 kSlowness = 1, kSlownessOfThreads = 1;
#endif

using FnDriver = std::string (*)(u64 seed, SFigures &figures);

void Drive(FnDriver driver, u64 firstSeed, u64 seedCount)
{
    SFigures figures;
    for (u64 seed = firstSeed; seed < firstSeed + seedCount && !::testing::Test::HasFailure(); ++seed)
    {
        const std::string difference = driver(seed, figures);
        if (!difference.empty())
            ADD_FAILURE() << "seed " << seed << ": " << difference;
    }
    const auto number = [](u64 value) { return static_cast<unsigned long long>(value); };
    std::printf("seeds from %llu on: %llu operations, %llu refusals, %llu rounds\n", number(firstSeed),
                number(figures.m_Operations), number(figures.m_Refusals), number(figures.m_Rounds));
}

} // namespace

TEST(RandomOperations, AgreeWithTheModel) { Drive(DriveRandom, 1, 200 / kSlowness); }

TEST(RandomOperations, OfANewSeedAgreeWithTheModel)
{
    Drive(DriveRandom, u64(std::chrono::system_clock::now().time_since_epoch().count()), 1);
}

// What goes wrong with the first file of the corpus with which something does, or nothing.
static std::string DriveCorpus(u64 fileCount, SFigures &figures)
{
    std::string difference;
    for (const auto &file : std::filesystem::directory_iterator(TZ_CORPUS_FOLDER))
    {
        std::ifstream stream(file.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
        const Script script = Decode(reinterpret_cast<const u8 *>(bytes.data()), bytes.size());
        figures.m_Operations += script.size();
        fileCount -= fileCount != 0 ? 1 : 0;
        difference = RunScript(script);
        if (!difference.empty())
            return file.path().filename().string() + ": " + difference;
    }
    return fileCount == 0 ? difference : "files are missing";
}

TEST(Corpus, AgreesWithTheModel) { Drive(DriveCorpus, 20, 1); }

TEST(RefusedMemory, LeavesStreamsAsToldAndUsable) { Drive(DriveRefusedMemory, 1, (19 + kSlowness) / kSlowness); }
TEST(RefusedBlocks, AgreeWithTheModel) { Drive(DriveRefusedBlocks, 101, (59 + kSlowness) / kSlowness); }

TEST(RefusedMemory, AtStartupLeavesNothing)
{
    bool isStarted = false;
    for (u32 n = 1; !isStarted; ++n)
    {
        Tests::CAllocatorHook hook;
        Tests::CReportRecorder reports;
        hook.RefuseAt(n);
        isStarted = Particles::Startup();
        if (isStarted)
            Particles::Shutdown();
        EXPECT_EQ(hook.LiveBlockCount(), 0u);
        reports.Take();
    }
}

TEST(Threads, LeaveWhatTheyWrote) { Drive(DriveThreads, 1, 100 / kSlownessOfThreads); }

// What the driver tells of the planted fault, with the seeds that it runs anyway.
static std::string FindPlanted(EPlanted fault, FnDriver driver, u64 firstSeed, u64 seedCount)
{
    g_Planted = fault;
    SFigures figures;
    std::string difference;
    for (u64 seed = firstSeed; seed < firstSeed + seedCount && difference.empty(); ++seed)
        difference = driver(seed, figures);
    g_Planted = EPlanted::None;
    return difference;
}

TEST(PlantedFault, IsFoundByEachDriver)
{
    const std::string reduced = FindPlanted(EPlanted::LostRow, DriveRandom, 1, 200 / kSlowness);
    EXPECT_NE(reduced, "");
    EXPECT_LE(std::count(reduced.begin(), reduced.end(), '{'), 6) << reduced;
    EXPECT_NE(FindPlanted(EPlanted::FlippedBit, DriveCorpus, 20, 1), "");
    EXPECT_NE(FindPlanted(EPlanted::Miscount, DriveRefusedMemory, 1, (19 + kSlowness) / kSlowness), "");
    EXPECT_NE(FindPlanted(EPlanted::ForgottenBlock, DriveRefusedBlocks, 101, (59 + kSlowness) / kSlowness), "");
    // Under the address sanitizer the first write through a stale view ends the program.
    EXPECT_TRUE(Mem::kIsAddressSanitized ||
                FindPlanted(EPlanted::EarlyUnlock, DriveThreads, 1, 100 / kSlownessOfThreads) != "");
}

} // namespace Model
} // namespace Tessaly
