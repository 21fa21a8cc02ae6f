#include "phases.h"

namespace Wind
{
namespace
{
constexpr const char *kPhaseNames[__MaxPhases] = {"birth",    "advection",  "ageing",  "removal",  "drawing",
                                                  "resizing", "collection", "copying", "rebinding"};

// One static descriptor per phase, because a profiler keeps pointers to them.
const Profiler::SNodeDescriptor &PhaseDescriptor(EPhase phase)
{
    using SNode = Profiler::SNodeDescriptor;
    const auto node = [](EPhase which)
    { return SNode(PhaseName(which), __FILE__, SNode::AutogenColor(PhaseName(which)), SNode::None); };
    static const SNode kNodes[__MaxPhases] = {node(Phase_Birth),      node(Phase_Advection), node(Phase_Ageing),
                                              node(Phase_Removal),    node(Phase_Drawing),   node(Phase_Resizing),
                                              node(Phase_Collection), node(Phase_Copying),   node(Phase_Rebinding)};
    return kNodes[phase];
}
} // namespace

const char *PhaseName(EPhase phase) { return kPhaseNames[phase]; }

CScopedPhase::CScopedPhase(CPhaseClock &clock, EPhase phase)
    : m_Clock(clock)
    , m_Phase(phase)
    , m_ProfilerScope(Profiler::MainEngineProfiler(), &PhaseDescriptor(phase), true)
    , m_Start(Clock::now())
{
}

CScopedPhase::~CScopedPhase()
{
    const auto elapsed = Clock::now() - m_Start;
    m_Clock.AddTime(m_Phase, u64(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()));
}
} // namespace Wind
