#include "report.h"

#include <unistd.h>

#include <string>

namespace Wind
{
namespace
{
constexpr u32 kBarWidth = 40;

// What m_Handled counts in each phase; null: its time is not printed per item.
constexpr const char *kHandledNames[__MaxPhases] = {"particles born",
                                                    nullptr,
                                                    nullptr,
                                                    "particles removed",
                                                    nullptr,
                                                    "pages emptied",
                                                    "pages checked",
                                                    "particles copied",
                                                    "particles converted"};

unsigned long long Long(u64 number) { return number; }

void PrintPhase(std::FILE *out, const CPhaseClock &clock, EPhase phase)
{
    const SPhaseTotal &total = clock.Total(phase);
    const u64 particleFrames = clock.ParticleFrames() != 0 ? clock.ParticleFrames() : 1;
    std::fprintf(out, "%-12s %10.1f %12.2f", PhaseName(phase), double(total.m_Nanoseconds) * 1e-6,
                 double(total.m_Nanoseconds) / double(particleFrames));
    if (total.m_Handled != 0 && kHandledNames[phase] != nullptr)
        std::fprintf(out, "   %llu %s, %.1f ns each", Long(total.m_Handled), kHandledNames[phase],
                     double(total.m_Nanoseconds) / double(total.m_Handled));
    std::fputc('\n', out);
}

void PrintPages(std::FILE *out, const CWindParticles &particles)
{
    const CParticleStream_MainMemory &stream = particles.Stream();
    const SParticleStreamStats stats = stream.ComputeStats();
    const double slotCount = stats.m_SlotCount != 0 ? double(stats.m_SlotCount) : 1.0;
    std::fprintf(out, "%-12s %u of up to %u particles; %llu collected; %.1f %% full; by tenths of fill:", "pages",
                 stats.m_PageCount, stream.PageSize(), Long(particles.CollectedPageCount()),
                 100.0 * double(stats.m_ParticleCount) / slotCount);
    for (const u32 pageCount : stats.m_PagesByTenth)
        std::fprintf(out, " %u", pageCount);
    std::fprintf(out, "\n%-12s %llu in total: %llu of particles, %llu free, %llu padding\n", "bytes",
                 Long(stream.ComputeMemoryUsage().Total()), Long(stats.m_LiveBytes), Long(stats.m_FreeBytes),
                 Long(stats.m_PaddingBytes));
}

void PrintParticles(std::FILE *out, const char *name, const CWindParticles &particles)
{
    std::fprintf(out, "%-12s %llu births - %llu deaths = %u alive\n", name, Long(particles.BirthCount()),
                 Long(particles.DeathCount()), particles.Stream().ParticleCount());
}
} // namespace

CProgress::CProgress(std::FILE *out, u32 frameCount)
    : m_Out(out)
    , m_FrameCount(frameCount)
    , m_IsTerminal(isatty(fileno(out)) != 0)
{
}

void CProgress::Show(u32 framesDone, u32 liveCount)
{
    const u32 tenths = u32(u64(framesDone) * 10 / m_FrameCount);
    if (m_IsTerminal)
        _ShowBar(framesDone, liveCount);
    else if (tenths != m_ShownTenths)
        std::fprintf(m_Out, "frame %u of %u: %u particles\n", framesDone, m_FrameCount, liveCount);
    m_ShownTenths = tenths;
    std::fflush(m_Out);
}

void CProgress::_ShowBar(u32 framesDone, u32 liveCount) const
{
    const size_t done = size_t(u64(framesDone) * kBarWidth / m_FrameCount);
    const std::string bar = std::string(done, '#') + std::string(kBarWidth - done, '.');
    std::fprintf(m_Out, "\r[%s] frame %u of %u, %u particles   %s", bar.c_str(), framesDone, m_FrameCount, liveCount,
                 framesDone == m_FrameCount ? "\n" : "");
}

void PrintTable(std::FILE *out, const CWindRun &run)
{
    const CWindParticles &particles = run.Particles();
    std::fprintf(out, "\n%-12s %10s %12s\n", "phase", "ms total", "ns/particle");
    std::fprintf(out, "%-12s %10s %12s\n", "", "", "and frame");
    for (u32 phase = 0; phase < __MaxPhases; ++phase)
        PrintPhase(out, particles.Clock(), EPhase(phase));
    std::fputc('\n', out);
    PrintPages(out, particles);
    PrintParticles(out, "particles", particles);
    if (run.Snapshot() != nullptr)
        PrintParticles(out, "snapshot", *run.Snapshot());
}
} // namespace Wind
