#pragma once
// The time of each phase of a frame. A phase is also a profiler scope, so a trace shows the library's scopes inside it.

#include <tz_kernel/include/kr_profiler.h>

#include <array>
#include <chrono>

namespace Wind
{
using namespace Tessaly;

enum EPhase : u32
{
    Phase_Birth,
    Phase_Advection,
    Phase_Ageing,
    Phase_Removal,
    Phase_Drawing,
    Phase_Resizing,
    Phase_Collection,
    Phase_Copying,
    Phase_Rebinding,
    __MaxPhases
};

struct SPhaseTotal
{
    u64 m_Nanoseconds = 0;
    u64 m_Handled = 0; // particles, or pages for phases that work on pages
};

class CPhaseClock
{
public:
    void AddTime(EPhase phase, u64 nanoseconds) { m_Totals[phase].m_Nanoseconds += nanoseconds; }
    void AddHandled(EPhase phase, u64 count) { m_Totals[phase].m_Handled += count; }
    void AddParticleFrames(u32 particleCount) { m_ParticleFrames += particleCount; } // once a frame

    const SPhaseTotal &Total(EPhase phase) const { return m_Totals[phase]; }
    u64 ParticleFrames() const { return m_ParticleFrames; }

private:
    std::array<SPhaseTotal, __MaxPhases> m_Totals;
    u64 m_ParticleFrames = 0;
};

const char *PhaseName(EPhase phase);

// Times a phase for the length of a scope.
class CScopedPhase : CNonCopyable
{
public:
    CScopedPhase(CPhaseClock &clock, EPhase phase);
    ~CScopedPhase();

private:
    using Clock = std::chrono::steady_clock;

    CPhaseClock &m_Clock;
    EPhase m_Phase;
    Profiler::CScopedNode m_ProfilerScope;
    Clock::time_point m_Start;
};
} // namespace Wind
