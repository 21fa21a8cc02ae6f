#include "drivers.h"

#include <support/allocator_hook.h>
#include <support/scoped_runtime.h>

#include "interpreter.h"
#include "reduce.h"

namespace Tessaly
{
namespace Model
{

bool g_IsIsolated = false;

namespace
{

constexpr u32 kLength = 200;
constexpr u32 kRefusedLength = 40;
constexpr u32 kMostRequests = 150; // of a script, that are refused in turn

struct SRefusal
{
    const char *m_Name;
    bool (*m_Refuses)(u32 request, u32 n);
};

const SRefusal kRefusals[] = {
    {"only", [](u32 request, u32 n) { return request == n; }},
    {"all from", [](u32 request, u32 n) { return request >= n; }},
    {"every second from", [](u32 request, u32 n) { return request >= n && (request - n) % 2 == 0; }}};

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
Script RefusedScript(u64 seed)
{
    Script script = RandomScript(seed, kRefusedLength);
    for (SOperation &operation : script)
    {
        if (operation.m_Kind == EOperation::Misregister || operation.m_Kind == EOperation::SetBudget)
            operation.m_Kind = EOperation::AllocateAll;
    }
    return script;
}

// Runs the script with the refusal at request n; *outWasRefused: there was such a request.
std::string RunRefused(const Script &script, const SRefusal &refusal, u32 n, bool *outWasRefused)
{
    Tests::CAllocatorHook hook;
    const Tests::CScopedRuntime runtime;
    u32 refusalsBefore = 0, request = 0;
    CInterpreter interpreter([&] { return hook.RefusalCount() != refusalsBefore; });
    hook.RefuseIf([&](const Tests::SMemoryCall &call) { return !IsOfOwner(call) && refusal.m_Refuses(++request, n); });
    const Script whole = WithEpilogue(script);
    std::string difference;
    for (size_t i = 0; i < whole.size() && difference.empty(); ++i)
    {
        if (i == script.size())
        {
            *outWasRefused = hook.RefusalCount() != 0;
            hook.RefuseNone();
        }
        refusalsBefore = hook.RefusalCount();
        difference = interpreter.Run(whole[i]);
    }
    hook.RefuseNone();
    refusalsBefore = 0;
    difference = difference.empty() ? interpreter.Finish() : difference;
    return difference.empty() ? difference : std::string(refusal.m_Name) + " " + std::to_string(n) + ": " + difference;
}

std::string RunAllRefusals(const Script &script, SFigures &figures)
{
    std::string difference;
    for (const SRefusal &refusal : kRefusals)
    {
        bool wasRefused = true;
        for (u32 n = 1; n <= kMostRequests && wasRefused && difference.empty(); ++n, ++figures.m_Refusals)
            difference = RunRefused(script, refusal, n, &wasRefused);
    }
    return difference;
}

std::string RunAllBudgets(const Script &script, SFigures &figures)
{
    std::string difference;
    for (size_t i = 0; i < script.size() * 4 && difference.empty(); ++i, ++figures.m_Refusals)
    {
        Script limited = script;
        limited.insert(limited.begin() + s64(i / 4), {EOperation::SetBudget, script[i / 4].m_Stream, u16(i % 4), 0, 0});
        difference = RunScript(limited);
    }
    return difference;
}

std::string Drive(const Script &script, const FnRun &run, SFigures &figures)
{
    figures.m_Operations += script.size();
    return RunAndReduce(script, g_IsIsolated ? InChild(run) : run);
}

} // namespace

std::string RunScript(const Script &script)
{
    const Tests::CScopedRuntime runtime;
    CInterpreter interpreter;
    std::string difference;
    for (size_t i = 0; i < script.size() && difference.empty(); ++i)
        difference = interpreter.Run(script[i]);
    return difference.empty() ? interpreter.Finish() : difference;
}

std::string DriveRandom(u64 seed, SFigures &figures) { return Drive(RandomScript(seed, kLength), RunScript, figures); }

std::string DriveRefusedMemory(u64 seed, SFigures &figures)
{
    return Drive(
        RefusedScript(seed), [&](const Script &script) { return RunAllRefusals(script, figures); }, figures);
}

std::string DriveRefusedBlocks(u64 seed, SFigures &figures)
{
    return Drive(
        RefusedScript(seed), [&](const Script &script) { return RunAllBudgets(script, figures); }, figures);
}

} // namespace Model
} // namespace Tessaly
