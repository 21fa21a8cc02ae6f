#include "reduce.h"

#include <algorithm>

namespace Tessaly
{
namespace Model
{

namespace
{

bool LeaveOut(Script &script, size_t count, const FnFails &fails)
{
    bool isShorter = false;
    for (size_t end = script.size(); end > 0; end -= std::min(end, count))
    {
        Script shorter = script;
        shorter.erase(shorter.begin() + s64(end - std::min(end, count)), shorter.begin() + s64(end));
        if (!fails(shorter))
            continue;
        script = shorter;
        isShorter = true;
    }
    return isShorter;
}

void SetToZero(Script &script, u16 SOperation::*argument, const FnFails &fails)
{
    for (size_t i = 0; i < script.size(); ++i)
    {
        Script simpler = script;
        simpler[i].*argument = 0;
        if (script[i].*argument != 0 && fails(simpler))
            script = simpler;
    }
}

} // namespace

Script Reduce(Script script, const FnFails &fails)
{
    for (size_t count = std::max(script.size() / 2, size_t(1));;)
    {
        const bool isShorter = LeaveOut(script, count, fails);
        if (count == 1 && !isShorter)
            break;
        count = isShorter ? count : count / 2;
    }
    for (u16 SOperation::*argument : {&SOperation::m_C, &SOperation::m_B, &SOperation::m_A})
        SetToZero(script, argument, fails);
    return script;
}

} // namespace Model
} // namespace Tessaly
