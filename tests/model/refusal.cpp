#include "refusal.h"

#include <support/scoped_runtime.h>

namespace Tessaly::Model
{

void CRefusal::Begin(const SRefusalPlan &plan)
{
    using Tests::SMemoryCall;
    m_Plan = plan;
    if (!plan.m_IsOfBlocks)
        return m_Hook.RefuseIf(
            [this](const SMemoryCall &call)
            {
                // A definition is its owner's, who does not share the library's lack of memory.
                const bool isOfOwner = call.m_Function.find("SParticleStreamFieldDef") != std::string::npos;
                const bool isRefused = !isOfOwner && _Refuses(++m_RealRequest);
                m_RefusedMemoryCount += isRefused ? 1 : 0;
                return isRefused;
            });
    m_World.m_AtPageMade = [this] { _BeginNaiveRequest(); };
    m_Hook.AtEachCall(
        [this](const SMemoryCall &call)
        {
            if (call.m_Kind == SMemoryCall::Alloc && call.m_Function.find("_AllocNewPage") != std::string::npos)
                _BeginRealRequest();
        });
    _BeginRealRequest();
    _BeginNaiveRequest();
}

void CRefusal::End()
{
    m_Plan.m_Refuses = null;
    SetBudget(0, 0);
}

void CRefusal::_BeginRealRequest() { Particles::PageAllocator()->SetMemoryBudget(_Refuses(++m_RealRequest) ? 1 : 0); }

void CRefusal::_BeginNaiveRequest() { m_World.m_Budget = _Refuses(++m_NaiveRequest) ? 1 : 0; }

void CRefusal::BeginOperation()
{
    if (m_Plan.m_IsOfBlocks && WasRefused())
    {
        _BeginRealRequest();
        _BeginNaiveRequest();
    }
    m_RefusedBefore = _RefusedCount();
    if (m_BudgetLife != 0 && --m_BudgetLife == 0)
        SetBudget(0, 0);
}

void CRefusal::SetBudget(u64 bytes, u32 operationCount)
{
    m_World.m_Budget = bytes;
    Particles::PageAllocator()->SetMemoryBudget(bytes);
    m_BudgetLife = operationCount;
}

} // namespace Tessaly::Model
