// The page allocator's statistics as text.
#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

#include <cinttypes>
#include <cstdio>

namespace Tessaly
{

int CParticlePageAllocator_Stats::Print(char *buffer, size_t bufferBytes) const
{
    return std::snprintf(buffer, bufferBytes,
                         "blocks in use %" PRIu64 " (%" PRIu64 " bytes), free %" PRIu64 " (%" PRIu64
                         " bytes), reserved %" PRIu64 " bytes, handed out %" PRIu64 " (%" PRIu64
                         " recycled), refused %" PRIu64,
                         m_BlocksInUse, m_BytesInUse, m_BlocksFree, m_BytesFree, m_BytesReserved, m_AllocCount,
                         m_RecycleCount, m_RefusalCount);
}

int CParticlePageAllocator_Stats::PrintTable(char *buffer, size_t bufferBytes) const
{
    return std::snprintf(buffer, bufferBytes,
                         "blocks in use %14" PRIu64 "   %" PRIu64 " bytes\n"
                         "free          %14" PRIu64 "   %" PRIu64 " bytes\n"
                         "reserved      %14s   %" PRIu64 " bytes\n"
                         "handed out    %14" PRIu64 "   %" PRIu64 " recycled\n"
                         "refused       %14" PRIu64 "\n",
                         m_BlocksInUse, m_BytesInUse, m_BlocksFree, m_BytesFree, "", m_BytesReserved, m_AllocCount,
                         m_RecycleCount, m_RefusalCount);
}

int CParticlePageAllocator_Stats::PrintJson(char *buffer, size_t bufferBytes) const
{
    return std::snprintf(buffer, bufferBytes,
                         "{\"bytesInUse\":%" PRIu64 ",\"bytesFree\":%" PRIu64 ",\"bytesReserved\":%" PRIu64
                         ",\"blocksInUse\":%" PRIu64 ",\"blocksFree\":%" PRIu64 ",\"allocations\":%" PRIu64
                         ",\"recycled\":%" PRIu64 ",\"refusals\":%" PRIu64 "}",
                         m_BytesInUse, m_BytesFree, m_BytesReserved, m_BlocksInUse, m_BlocksFree, m_AllocCount,
                         m_RecycleCount, m_RefusalCount);
}

} // namespace Tessaly
