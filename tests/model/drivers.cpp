#include "drivers.h"

#include <support/allocator_hook.h>
#include <support/scoped_runtime.h>

#include "interpreter.h"
#include "reduce.h"

namespace Tessaly
{
namespace Model
{

EPlanted g_Planted = EPlanted::None;

namespace
{

constexpr u32 kLength = 200;
constexpr u32 kRefusedLength = 40;

struct SRefusal
{
    const char *m_Name;
    bool (*m_Refuses)(u32 request, u32 n);
    u32 m_RunCount; // with n = 1, 2, ...; 0: until nothing is refused any more
};

const SRefusal kRefusals[] = {
    {"only", [](u32 request, u32 n) { return request == n; }, 0},
    {"all from", [](u32 request, u32 n) { return request >= n; }, 0},
    {"every second from", [](u32 request, u32 n) { return request >= n && (request - n) % 2 == 0; }, 0},
    {"a random tenth by", [](u32 request, u32 n) { return CRandom(n * u64(100000) + request).OneIn(10); }, 15}};

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

// One in so many begins with long lists.
Script StartOf(u64 seed, u64 rarity) { return seed % rarity == 0 ? LongListScript(seed) : Script(); }

// Counts are true in these scripts, so that they can be held against the pages after a refusal.
Script RefusedScript(u64 seed)
{
    Script script = StartOf(seed, 16);
    const Script rest = RandomScript(seed, kRefusedLength - u32(script.size()));
    script.insert(script.end(), rest.begin(), rest.end());
    for (SOperation &operation : script)
    {
        if (operation.m_Kind == EOperation::Misregister || operation.m_Kind == EOperation::SetBudget)
            operation.m_Kind = EOperation::AllocateAll;
    }
    return script;
}

// Runs the script with the refusal at request n; *outWasRefused: there was such a request.
std::string RunRefusedMemory(const Script &script, const SRefusal &refusal, u32 n, bool *outWasRefused)
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
    return difference.empty() ? interpreter.Finish() : difference;
}

// The same for blocks of the page allocator, and no more than that: what becomes of streams is known exactly.
std::string RunRefusedBlocks(const Script &script, const SRefusal &refusal, u32 n, bool *outWasRefused)
{
    Tests::CAllocatorHook hook;
    const Tests::CScopedRuntime runtime;
    CInterpreter interpreter;
    interpreter.RefuseBlocks([&](u32 request) { return refusal.m_Refuses(request, n); });
    hook.AtEachCall(
        [&](const Tests::SMemoryCall &call)
        {
            if (call.m_Kind == Tests::SMemoryCall::Alloc && call.m_Function.find("_AllocNewPage") != std::string::npos)
                interpreter.OnPageMade();
        });
    std::string difference;
    for (size_t i = 0; i < script.size() && difference.empty(); ++i)
        difference = interpreter.Run(script[i]);
    *outWasRefused = interpreter.WasBlockRefused();
    return difference.empty() ? interpreter.Finish() : difference;
}

using FnRunRefused = std::string (*)(const Script &script, const SRefusal &refusal, u32 n, bool *outWasRefused);

std::string RunAllRefusals(const Script &script, FnRunRefused run, SFigures &figures)
{
    std::string difference;
    for (const SRefusal &refusal : kRefusals)
    {
        bool goesOn = true;
        // Each of the first requests in turn; of many, fewer and fewer of those behind.
        for (u32 n = 1; goesOn && difference.empty(); n += 1 + n / 50, ++figures.m_Refusals)
        {
            bool wasRefused = false;
            figures.m_Operations += script.size();
            difference = run(script, refusal, n, &wasRefused);
            if (!difference.empty())
                difference = std::string(refusal.m_Name) + " " + std::to_string(n) + ": " + difference;
            goesOn = refusal.m_RunCount != 0 ? n < refusal.m_RunCount : wasRefused;
        }
    }
    return difference;
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

std::string DriveRandom(u64 seed, SFigures &figures)
{
    Script script = StartOf(seed, 8);
    const Script rest = RandomScript(seed, script.empty() ? kLength : kLength / 2);
    script.insert(script.end(), rest.begin(), rest.end());
    figures.m_Operations += script.size();
    return RunAndReduce(script, RunScript);
}

std::string DriveRefusedMemory(u64 seed, SFigures &figures)
{
    return RunAndReduce(RefusedScript(seed),
                        [&](const Script &script) { return RunAllRefusals(script, RunRefusedMemory, figures); });
}

std::string DriveRefusedBlocks(u64 seed, SFigures &figures)
{
    return RunAndReduce(RefusedScript(seed),
                        [&](const Script &script) { return RunAllRefusals(script, RunRefusedBlocks, figures); });
}

} // namespace Model
} // namespace Tessaly
