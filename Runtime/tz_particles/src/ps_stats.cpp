// Statistics records.
#include <tz_particles/include/ps_stats.h>

#include <cinttypes>
#include <cstdio>

namespace Tessaly
{

namespace
{

double Percent(u64 part, u64 whole) { return whole != 0 ? 100.0 * double(part) / double(whole) : 0.0; }

} // namespace

u64 SMediumMemoryReport::Total() const
{
    return m_StaticBytes + m_KernelBytes + m_SamplerBytes + m_SimResourceBytes + m_ParticleBytes + m_AuxiliaryBytes +
           m_GPUAttributesBytes + m_DebugBytes + m_KernelDebugBytes + m_KernelStaticDebugBytes + m_KernelTimingBytes;
}

SMediumMemoryReport &SMediumMemoryReport::operator+=(const SMediumMemoryReport &other)
{
    m_StaticBytes += other.m_StaticBytes;
    m_StaticBytes_Declaration += other.m_StaticBytes_Declaration;
    m_StaticBytes_Kernel += other.m_StaticBytes_Kernel;
    m_StaticBytes_IR += other.m_StaticBytes_IR;
    m_KernelBytes += other.m_KernelBytes;
    m_SamplerBytes += other.m_SamplerBytes;
    m_SimResourceBytes += other.m_SimResourceBytes;
    m_ParticleBytes += other.m_ParticleBytes;
    m_AuxiliaryBytes += other.m_AuxiliaryBytes;
    m_GPUAttributesBytes += other.m_GPUAttributesBytes;
    m_DebugBytes += other.m_DebugBytes;
    m_DebugBytes_IR += other.m_DebugBytes_IR;
    m_KernelDebugBytes += other.m_KernelDebugBytes;
    m_KernelStaticDebugBytes += other.m_KernelStaticDebugBytes;
    m_KernelTimingBytes += other.m_KernelTimingBytes;
    return *this;
}

SMediumMemoryReport SMediumMemoryReport::operator+(const SMediumMemoryReport &other) const
{
    SMediumMemoryReport sum = *this;
    sum += other;
    return sum;
}

int SParticleStreamStats::Print(char *buffer, size_t bufferBytes) const
{
    const u32 *tenths = m_PagesByTenth;
    return std::snprintf(buffer, bufferBytes,
                         "pages %u (%u out of sync), particles %" PRIu64 " of %" PRIu64 " slots, bytes live %" PRIu64
                         " free %" PRIu64 " padding %" PRIu64 ", pages by tenths full %u %u %u %u %u %u %u %u %u %u",
                         m_PageCount, m_PageCount_OutOfSync, m_ParticleCount, m_SlotCount, m_LiveBytes, m_FreeBytes,
                         m_PaddingBytes, tenths[0], tenths[1], tenths[2], tenths[3], tenths[4], tenths[5], tenths[6],
                         tenths[7], tenths[8], tenths[9]);
}

int SParticleStreamStats::PrintTable(char *buffer, size_t bufferBytes) const
{
    const u32 *tenths = m_PagesByTenth;
    const u64 allBytes = m_LiveBytes + m_FreeBytes + m_PaddingBytes;
    return std::snprintf(
        buffer, bufferBytes,
        "pages         %14u   %u out of sync\n"
        "particles     %14" PRIu64 "   %.1f %% of %" PRIu64 " slots\n"
        "live bytes    %14" PRIu64 "   %.1f %%\n"
        "free bytes    %14" PRIu64 "   %.1f %%\n"
        "padding bytes %14" PRIu64 "   %.1f %%\n"
        "how full          0 %%   10 %%   20 %%   30 %%   40 %%   50 %%   60 %%   70 %%   80 %%   90 %%\n"
        "pages         %7u %6u %6u %6u %6u %6u %6u %6u %6u %6u\n",
        m_PageCount, m_PageCount_OutOfSync, m_ParticleCount, Percent(m_ParticleCount, m_SlotCount), m_SlotCount,
        m_LiveBytes, Percent(m_LiveBytes, allBytes), m_FreeBytes, Percent(m_FreeBytes, allBytes), m_PaddingBytes,
        Percent(m_PaddingBytes, allBytes), tenths[0], tenths[1], tenths[2], tenths[3], tenths[4], tenths[5], tenths[6],
        tenths[7], tenths[8], tenths[9]);
}

int SParticleStreamStats::PrintJson(char *buffer, size_t bufferBytes) const
{
    const u32 *tenths = m_PagesByTenth;
    return std::snprintf(
        buffer, bufferBytes,
        "{\"pages\":%u,\"outOfSyncPages\":%u,\"particles\":%" PRIu64 ",\"slots\":%" PRIu64 ",\"liveBytes\":%" PRIu64
        ",\"freeBytes\":%" PRIu64 ",\"paddingBytes\":%" PRIu64 ",\"pagesByTenth\":[%u,%u,%u,%u,%u,%u,%u,%u,%u,%u]}",
        m_PageCount, m_PageCount_OutOfSync, m_ParticleCount, m_SlotCount, m_LiveBytes, m_FreeBytes, m_PaddingBytes,
        tenths[0], tenths[1], tenths[2], tenths[3], tenths[4], tenths[5], tenths[6], tenths[7], tenths[8], tenths[9]);
}

} // namespace Tessaly
