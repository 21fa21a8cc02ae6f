#include "drivers.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "interpreter.h"

namespace Tessaly::Model
{

EPlanted g_Planted = EPlanted::None;

// Runs a script; returns what went wrong, or nothing.
using FnRun = std::function<std::string(const Script &)>;

// Adds to what goes wrong the shortest script with which something does, and that: operations are left out and
// arguments set to 0, for half a minute at most or the seconds that TESSALY_MODEL_REDUCE sets.
static std::string RunAndReduce(const Script &script, const FnRun &run)
{
    std::string difference = run(script);
    if (difference.empty())
        return difference;
    const char *seconds = std::getenv("TESSALY_MODEL_REDUCE");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds != null ? std::atoi(seconds) : 30);
    const auto fails = [&](const Script &shorter)
    { return std::chrono::steady_clock::now() < end && !run(shorter).empty(); };
    Script shortest = script;
    for (size_t count = script.size(); count != 0; count /= 2)
    {
        for (size_t last = shortest.size(); last-- > 0;)
        {
            Script shorter = shortest;
            const size_t first = last - std::min(last, count - 1);
            shorter.erase(shorter.begin() + s64(first), shorter.begin() + s64(last) + 1);
            if (fails(shorter))
                shortest = shorter;
            last = first;
        }
    }
    for (SOperation &operation : shortest)
    {
        for (u16 *argument : {&operation.m_C, &operation.m_B, &operation.m_A})
        {
            const u16 value = std::exchange(*argument, u16(0));
            *argument = fails(shortest) ? 0 : value;
        }
    }
    return difference + "\nreduced: " + run(shortest) + "\n" + ToString(shortest);
}

// Ends with nothing refused: the streams must be as good as new.
static Script Epilogue()
{
    Script script;
    for (u8 stream = 0; stream < 3; ++stream)
        script.insert(script.end(), {{EOperation::Bind, stream, 5, 0, 0},
                                     {EOperation::AllocateAll, stream, 24, 0, 0},
                                     {EOperation::Fill, stream, 0, 0, 0},
                                     {EOperation::SetPageSize, stream, 5, 0, 0},
                                     {EOperation::Resize, stream, 24, 0, 0},
                                     {EOperation::Collect, stream, 2, 0, 0}});
    return script;
}

std::string RunScript(const Script &script)
{
    CInterpreter interpreter({});
    interpreter.Run(script);
    return interpreter.Finish();
}

static const struct
{
    const char *m_Name;
    bool (*m_Refuses)(u32 request, u32 number);
    u32 m_RunCount; // with the numbers from 1 on; 0: until nothing is refused any more
} kRefusals[] = {
    {"only", [](u32 request, u32 number) { return request == number; }, 0},
    {"all from", [](u32 request, u32 number) { return request >= number; }, 0},
    {"every second from", [](u32 request, u32 number) { return request >= number && (request - number) % 2 == 0; }, 0},
    {"a random tenth by", [](u32 request, u32 number) { return CRandom(number * u64(100000) + request).OneIn(10); },
     15}};

static std::string RunAllRefusals(const Script &script, bool isOfBlocks, SFigures &figures)
{
    static const Script kEpilogue = Epilogue();
    for (const auto &refusal : kRefusals)
    {
        bool goesOn = true;
        // Each of the first requests in turn; of many, fewer and fewer of those behind.
        for (u32 number = 1; goesOn; number += 1 + number / 50, ++figures.m_Refusals)
        {
            CInterpreter interpreter({refusal.m_Refuses, number, isOfBlocks});
            interpreter.Run(script);
            const bool hasRefused = interpreter.EndRefusals();
            interpreter.Run(kEpilogue);
            const std::string difference = interpreter.Finish();
            if (!difference.empty())
                return std::string(refusal.m_Name) + " " + std::to_string(number) + ": " + difference;
            figures.m_Operations += script.size();
            goesOn = refusal.m_RunCount != 0 ? number < refusal.m_RunCount : hasRefused;
        }
    }
    return std::string();
}

// A random script that begins with long lists when the seed is a multiple of longListRarity.
static Script ScriptOf(u64 seed, u32 length, u32 shorterLength, u64 longListRarity)
{
    Script script = seed % longListRarity == 0 ? LongListScript(seed) : Script();
    const Script rest = RandomScript(seed, script.empty() ? length : shorterLength);
    script.insert(script.end(), rest.begin(), rest.end());
    return script;
}

// Counts are right in these scripts, so that they can be compared with the pages after a refusal.
static std::string DriveRefusing(u64 seed, bool isOfBlocks, SFigures &figures)
{
    Script refused = ScriptOf(seed, 40, 18, 16);
    for (SOperation &operation : refused)
    {
        if (operation.m_Kind == EOperation::RegisterCount || operation.m_Kind == EOperation::SetBudget)
            operation.m_Kind = EOperation::AllocateAll;
    }
    return RunAndReduce(refused, [&](const Script &script) { return RunAllRefusals(script, isOfBlocks, figures); });
}

std::string DriveRandom(u64 seed, SFigures &figures)
{
    const Script script = ScriptOf(seed, 200, 100, 8);
    figures.m_Operations += script.size();
    return RunAndReduce(script, [](const Script &shorter) { return RunScript(shorter); });
}

std::string DriveRefusedMemory(u64 seed, SFigures &figures) { return DriveRefusing(seed, false, figures); }

std::string DriveRefusedBlocks(u64 seed, SFigures &figures) { return DriveRefusing(seed, true, figures); }

} // namespace Tessaly::Model
