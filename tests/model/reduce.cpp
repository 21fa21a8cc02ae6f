#include "reduce.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace Tessaly
{
namespace Model
{

namespace
{

constexpr int kReducingSeconds = 30;

bool LeaveOut(Script &script, size_t count, const FnRun &run)
{
    bool isShorter = false;
    for (size_t end = script.size(); end > 0; end -= std::min(end, count))
    {
        Script shorter = script;
        shorter.erase(shorter.begin() + s64(end - std::min(end, count)), shorter.begin() + s64(end));
        if (run(shorter).empty())
            continue;
        script = shorter;
        isShorter = true;
    }
    return isShorter;
}

void SetToZero(Script &script, u16 SOperation::*argument, const FnRun &run)
{
    for (size_t i = 0; i < script.size(); ++i)
    {
        Script simpler = script;
        simpler[i].*argument = 0;
        if (script[i].*argument != 0 && !run(simpler).empty())
            script = simpler;
    }
}

} // namespace

std::string RunAndReduce(const Script &script, const FnRun &run)
{
    const std::string difference = run(script);
    if (difference.empty())
        return difference;
    const char *seconds = std::getenv("TESSALY_MODEL_REDUCE");
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::seconds(seconds != null ? std::atoi(seconds) : kReducingSeconds);
    const FnRun runInTime = [&](const Script &shorter)
    { return std::chrono::steady_clock::now() < end ? run(shorter) : std::string(); };
    Script shortest = script;
    for (size_t count = std::max(script.size() / 2, size_t(1)); count != 0;)
        count = LeaveOut(shortest, count, runInTime) ? count : count / 2;
    for (u16 SOperation::*argument : {&SOperation::m_C, &SOperation::m_B, &SOperation::m_A})
        SetToZero(shortest, argument, runInTime);
    return difference + "\nreduced: " + run(shortest) + "\n" + ToString(shortest);
}

} // namespace Model
} // namespace Tessaly
