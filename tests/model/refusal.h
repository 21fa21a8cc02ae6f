// What a run of a script refuses: requests for memory, or requests for blocks of the page allocator.
#pragma once

#include <support/allocator_hook.h>

#include "naive_page.h"

namespace Tessaly::Model
{

struct SRefusalPlan
{
    bool (*m_Refuses)(u32 request, u32 number) = null; // requests are counted from 1 on
    u32 m_Number = 0;
    bool m_IsOfBlocks = false;
};

// Carries a plan out, on both sides. Blocks are refused by the budget: the page that is made of a block moves on to the
// next request, and a refusal lasts to the end of its operation. It lives around the runtime, whose memory it watches.
class CRefusal : public CNonCopyable
{
public:
    explicit CRefusal(SNaiveWorld &world)
        : m_World(world)
    {
    }

    void Begin(const SRefusalPlan &plan);
    void End(); // nothing is refused from here on
    void BeginOperation();
    void SetBudget(u64 bytes, u32 operationCount); // for so many; 0 bytes: none

    bool WasRefused() const { return _RefusedCount() != m_RefusedBefore; } // in this operation
    bool WasMemoryRefused() const { return HasRefusedMemory() && WasRefused(); }
    bool HasRefused() const { return _RefusedCount() != 0; } // in any
    bool HasRefusedMemory() const { return m_RefusedMemoryCount != 0; }
    // Whether both sides have asked for as many blocks.
    bool RequestsAgree() const { return !m_Plan.m_IsOfBlocks || m_RealRequest == m_NaiveRequest; }

private:
    u64 _RefusedCount() const { return m_RefusedMemoryCount + m_World.m_RefusedCount; }
    bool _Refuses(u32 request) const { return m_Plan.m_Refuses != null && m_Plan.m_Refuses(request, m_Plan.m_Number); }
    void _BeginRealRequest();
    void _BeginNaiveRequest();

    SNaiveWorld &m_World;
    Tests::CAllocatorHook m_Hook;
    SRefusalPlan m_Plan;
    u32 m_RealRequest = 0, m_NaiveRequest = 0; // the last ones, or those that come next
    u64 m_RefusedMemoryCount = 0;
    u64 m_RefusedBefore = 0; // this operation
    u32 m_BudgetLife = 0;    // operations
};

} // namespace Tessaly::Model
