// Memory refused: each request of a script in turn, then every block of the page allocator.
#include <support/allocator_hook.h>
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

constexpr u32 kScriptCount = kIsSanitized ? 4 : 40;
constexpr u32 kLength = 24;        // operations of a script
constexpr u32 kMostRequests = 150; // of a script that are refused in turn

using FnRefuses = bool (*)(u32 request, u32 n);

const struct SMode
{
    const char *m_Name;
    FnRefuses m_Refuses;
} kModes[] = {{"only request", [](u32 request, u32 n) { return request == n; }},
              {"all from request", [](u32 request, u32 n) { return request >= n; }},
              {"every second from request", [](u32 request, u32 n) { return request >= n && (request - n) % 2 == 0; }}};

// A definition is its owner's, who does not share the library's lack of memory.
bool IsOfOwner(const Tests::SMemoryCall &call)
{
    return call.m_Function.find("SParticleStreamFieldDef") != std::string::npos;
}

// Ends with memory to be had: the streams must be as good as new.
Script WithEpilogue(Script script)
{
    for (u8 stream = 0; stream < 3; ++stream)
        script.insert(script.end(), {{EOperation::Bind, stream, 5, 0, 0},
                                     {EOperation::AllocateAll, stream, 24, 0, 0},
                                     {EOperation::Fill, stream, 0, 0, 0},
                                     {EOperation::SetPageSize, stream, 5, 0, 0},
                                     {EOperation::Resize, stream, 24, 0, 0},
                                     {EOperation::Collect, stream, 2, 0, 0}});
    return script;
}

// Counts are true in these scripts, so that they can be held against the pages after a refusal.
Script ScriptOf(u64 seed)
{
    Script script = RandomScript(seed, kLength);
    for (SOperation &operation : script)
    {
        if (operation.m_Kind == EOperation::Misregister || operation.m_Kind == EOperation::SetBudget)
            operation.m_Kind = EOperation::AllocateAll;
    }
    return script;
}

struct SOutcome
{
    std::string m_Difference;
    bool m_WasRefused = false;
};

SOutcome RunRefused(const Script &script, const SMode &mode, u32 n)
{
    SOutcome outcome;
    Tests::CAllocatorHook hook;
    const Tests::CScopedRuntime runtime;
    u32 refusalsBefore = 0, request = 0;
    CInterpreter interpreter([&] { return hook.RefusalCount() != refusalsBefore; });
    hook.RefuseIf([&](const Tests::SMemoryCall &call) { return !IsOfOwner(call) && mode.m_Refuses(++request, n); });
    const Script whole = WithEpilogue(script);
    for (size_t i = 0; i < whole.size() && outcome.m_Difference.empty(); ++i)
    {
        if (i == script.size())
        {
            outcome.m_WasRefused = hook.RefusalCount() != 0;
            hook.RefuseNone();
        }
        refusalsBefore = hook.RefusalCount();
        outcome.m_Difference = interpreter.Run(whole[i]);
    }
    hook.RefuseNone();
    refusalsBefore = 0;
    if (outcome.m_Difference.empty())
        outcome.m_Difference = interpreter.Finish();
    return outcome;
}

// The first request whose refusal makes a difference; 0: none does.
u32 FindFault(const Script &script, const SMode &mode, std::string *outDifference)
{
    for (u32 n = 1; n <= kMostRequests; ++n)
    {
        const SOutcome outcome = RunRefused(script, mode, n);
        *outDifference = outcome.m_Difference;
        if (!outcome.m_Difference.empty())
            return n;
        if (!outcome.m_WasRefused)
            break;
    }
    return 0;
}

void RunAllRefusals(const Script &script, const SMode &mode)
{
    std::string difference;
    if (FindFault(script, mode, &difference) == 0)
        return;
    const Script shorter = Reduce(script,
                                  [&](const Script &candidate)
                                  {
                                      std::string ignored;
                                      return FindFault(candidate, mode, &ignored) != 0;
                                  });
    const u32 n = FindFault(shorter, mode, &difference);
    ADD_FAILURE() << mode.m_Name << " " << n << " refused: " << difference << "\n" << ToString(shorter);
}

} // namespace

TEST(RefusedMemory, EveryRequestInTurnLeavesStreamsUsable)
{
    for (u64 seed = 1; seed <= kScriptCount; ++seed)
    {
        for (const SMode &mode : kModes)
        {
            SCOPED_TRACE("seed " + std::to_string(seed));
            RunAllRefusals(ScriptOf(seed), mode);
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST(RefusedMemory, StartupFailsWithNothingLeft)
{
    for (u32 n = 1;; ++n)
    {
        Tests::CAllocatorHook hook;
        Tests::CReportRecorder reports;
        hook.RefuseAt(n);
        const bool isStarted = Particles::Startup();
        if (isStarted)
            Particles::Shutdown();
        EXPECT_EQ(hook.LiveBlockCount(), 0u);
        reports.Take();
        if (isStarted)
            break;
    }
}

// The budget is set before each operation in turn to what is in use and some pages more.
TEST(RefusedBlocks, EveryBlockInTurnAgreesWithTheModel)
{
    const Tests::CScopedRuntime runtime;
    for (u64 seed = 101; seed < 101 + kScriptCount; ++seed)
    {
        const Script script = ScriptOf(seed);
        for (size_t i = 0; i < script.size() * 4; ++i)
        {
            Script limited = script;
            limited.insert(limited.begin() + s64(i / 4),
                           {EOperation::SetBudget, script[i / 4].m_Stream, u16(i % 4), 0, 0});
            const std::string difference = CInterpreter::RunAll(limited);
            if (difference.empty())
                continue;
            const Script shorter =
                Reduce(limited, [](const Script &candidate) { return !CInterpreter::RunAll(candidate).empty(); });
            FAIL() << CInterpreter::RunAll(shorter) << "\n" << ToString(shorter);
        }
    }
}

} // namespace Model
} // namespace Tessaly
