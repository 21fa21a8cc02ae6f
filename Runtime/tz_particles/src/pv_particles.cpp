// Start-up and shutdown of the particle runtime.
#include "include/pv_particles.h"

#include <mutex>

#include <tz_particles/include/ps_runtime.h>

namespace Tessaly
{

namespace
{

std::mutex g_StartupLock;
u32 g_StartupCount = 0;

} // namespace

TSharedPointer<CParticlePageAllocator> CParticlesInternals::m_PageAllocator;

bool CParticlesInternals::Startup()
{
    const std::lock_guard<std::mutex> lock(g_StartupLock);
    if (g_StartupCount == 0)
    {
        CParticlePageAllocator *allocator = Mem::New<CParticlePageAllocator>(TZ_CALL_SITE);
        if (allocator == null || !allocator->Setup())
        {
            Mem::Delete(TZ_CALL_SITE, allocator);
            return false;
        }
        m_PageAllocator = allocator;
    }
    ++g_StartupCount;
    return true;
}

void CParticlesInternals::Shutdown()
{
    const std::lock_guard<std::mutex> lock(g_StartupLock);
    const u32 startupCount = g_StartupCount;
    if (!TZ_VERIFY(startupCount != 0))
        return;
    g_StartupCount = startupCount - 1;
    if (startupCount != 1)
        return;
    CParticlePageAllocator *allocator = m_PageAllocator;
    m_PageAllocator = null;
    allocator->_LeaveToBlocks();
}

namespace Particles
{

bool Startup() { return CParticlesInternals::Startup(); }
void Shutdown() { CParticlesInternals::Shutdown(); }
CParticlePageAllocator *PageAllocator() { return CParticlesInternals::m_PageAllocator; }

} // namespace Particles
} // namespace Tessaly
