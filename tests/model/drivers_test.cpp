#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include <gtest/gtest.h>

#include <support/allocator_hook.h>
#include <support/report_recorder.h>
#include <tz_kernel/include/kr_address_sanitizer.h>
#include <tz_particles/include/ps_runtime.h>

#include "drivers.h"

namespace Tessaly::Model
{

// Sanitizers are slow, and the one for threads finds little where there is one.
#if defined(__SANITIZE_THREAD__)
constexpr u64 kSlowness = 40, kSlownessOfThreads = 10;
#elif defined(__SANITIZE_ADDRESS__)
constexpr u64 kSlowness = 10, kSlownessOfThreads = 10;
#else
constexpr u64 kSlowness = 1, kSlownessOfThreads = 1;
#endif

// The scripts of the corpus, one after the other.
static std::string DriveCorpus(u64 fileCount, SFigures &figures)
{
    for (const auto &file : std::filesystem::directory_iterator(TZ_CORPUS_FOLDER))
    {
        std::ifstream stream(file.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
        const Script script = Decode(reinterpret_cast<const u8 *>(bytes.data()), bytes.size());
        figures.m_Operations += script.size();
        fileCount -= fileCount != 0 ? 1 : 0;
        const std::string difference = RunScript(script);
        if (!difference.empty())
            return file.path().filename().string() + ": " + difference;
    }
    return fileCount == 0 ? "" : "files are missing";
}

struct SSeeds
{
    FnDriver m_Driver;
    u64 m_First, m_Count;
};

static const SSeeds kRandom = {DriveRandom, 1, 200 / kSlowness};
static const SSeeds kCorpus = {DriveCorpus, 41, 1};
static const SSeeds kMemory = {DriveRefusedMemory, 1, (19 + kSlowness) / kSlowness};
static const SSeeds kBlocks = {DriveRefusedBlocks, 101, (44 + kSlowness) / kSlowness};
static const SSeeds kThreads = {DriveThreads, 1, 100 / kSlownessOfThreads};

// The first difference that a driver finds with its seeds, or nothing.
static std::string Drive(const SSeeds &seeds, EPlanted fault = EPlanted::None)
{
    g_Planted = fault;
    SFigures figures;
    std::string difference;
    u64 seed = seeds.m_First;
    for (; seed < seeds.m_First + seeds.m_Count && difference.empty(); ++seed)
        difference = seeds.m_Driver(seed, figures);
    g_Planted = EPlanted::None;
    std::cout << "seeds from " << seeds.m_First << " on: " << figures.m_Operations << " operations, "
              << figures.m_Refusals << " refusals, " << figures.m_Rounds << " rounds\n";
    return difference.empty() ? difference : "seed " + std::to_string(seed - 1) + ": " + difference;
}

static void ExpectAgreement(const SSeeds &seeds)
{
    const std::string difference = Drive(seeds);
    EXPECT_TRUE(difference.empty()) << difference;
}

TEST(RandomOperations, AgreeWithTheModel) { ExpectAgreement(kRandom); }
TEST(RandomOperations, OfANewSeedAgreeWithTheModel)
{
    ExpectAgreement({DriveRandom, u64(std::chrono::system_clock::now().time_since_epoch().count()), 1});
}
TEST(Corpus, AgreesWithTheModel) { ExpectAgreement(kCorpus); }
TEST(RefusedMemory, LeavesStreamsUsable) { ExpectAgreement(kMemory); }
TEST(RefusedBlocks, AgreeWithTheModel) { ExpectAgreement(kBlocks); }
TEST(Threads, LeaveWhatTheyWrote) { ExpectAgreement(kThreads); }

TEST(RefusedMemory, AtStartupLeavesNothing)
{
    bool isStarted = false;
    for (u32 request = 1; !isStarted; ++request)
    {
        Tests::CAllocatorHook hook; // finds what is not given back
        Tests::CReportRecorder reports;
        hook.RefuseAt(request);
        isStarted = Particles::Startup();
        if (isStarted)
            Particles::Shutdown();
        reports.Take();
    }
}

TEST(PlantedFault, IsFoundByEachDriver)
{
    const std::string reduced = Drive(kRandom, EPlanted::LostRow);
    EXPECT_NE(reduced, "");
    EXPECT_LE(std::count(reduced.begin(), reduced.end(), '{'), 6) << reduced;
    EXPECT_NE(Drive(kCorpus, EPlanted::FlippedBit), "");
    EXPECT_NE(Drive(kMemory, EPlanted::Miscount), "");
    EXPECT_NE(Drive(kBlocks, EPlanted::ForgottenBlock), "");
    // Under the address sanitizer the first write through a stale view ends the program.
    EXPECT_TRUE(Mem::kIsAddressSanitized || Drive(kThreads, EPlanted::EarlyUnlock) != "");
}

} // namespace Tessaly::Model
