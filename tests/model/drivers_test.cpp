#include <chrono>
#include <cstdlib>

#include <gtest/gtest.h>

#include <support/allocator_hook.h>
#include <support/report_recorder.h>
#include <tz_particles/include/ps_runtime.h>

#include "drivers.h"

namespace Tessaly
{
namespace Model
{

namespace
{

#if defined(__has_feature)
#    if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#        define TZ_TEST_IS_SLOW
#    endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(TZ_TEST_IS_SLOW)
constexpr u64 kSlowness = 10;
#else
constexpr u64 kSlowness = 1;
#endif

using FnDriver = std::string (*)(u64 seed, SFigures &figures);

// TESSALY_MODEL_ISOLATED: in child processes, when a crash has to be found.
void Drive(FnDriver driver, u64 firstSeed, u64 seedCount)
{
    g_IsIsolated = std::getenv("TESSALY_MODEL_ISOLATED") != null;
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

u64 NumberOf(const char *variable, u64 otherwise)
{
    const char *text = std::getenv(variable);
    return text != null ? std::strtoull(text, null, 0) : otherwise;
}

} // namespace

TEST(RandomOperations, AgreeWithTheModel) { Drive(DriveRandom, 1, 200 / kSlowness); }

// TESSALY_MODEL_SEED: the first seed; TESSALY_MODEL_COUNT: how many from there on.
TEST(RandomOperations, OfANewSeedAgreeWithTheModel)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    const u64 seed = NumberOf("TESSALY_MODEL_SEED", u64(now));
    Drive(DriveRandom, seed, NumberOf("TESSALY_MODEL_COUNT", 1));
}

TEST(RefusedMemory, LeavesStreamsAsToldAndUsable) { Drive(DriveRefusedMemory, 1, 20 / kSlowness); }
TEST(RefusedBlocks, AgreeWithTheModel) { Drive(DriveRefusedBlocks, 101, 60 / kSlowness); }

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

TEST(Threads, LeaveWhatTheyWrote) { Drive(DriveThreads, 1, 100 / kSlowness); }

} // namespace Model
} // namespace Tessaly
