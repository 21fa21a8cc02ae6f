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

CParticlePageAllocator *CParticlesInternals::m_PageAllocator = null;

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
        __atomic_store_n(&m_PageAllocator, allocator, __ATOMIC_RELEASE);
    }
    ++g_StartupCount;
    return true;
}

void CParticlesInternals::Shutdown()
{
    const std::lock_guard<std::mutex> lock(g_StartupLock);
    const u32 startupCount = g_StartupCount;
    if (!TZ_VERIFY_MESSAGE(startupCount != 0, "Shutdown was called more often than Startup"))
        return;
    g_StartupCount = startupCount - 1;
    if (startupCount != 1)
        return;
    CParticlePageAllocator *allocator = m_PageAllocator;
    __atomic_store_n(&m_PageAllocator, null, __ATOMIC_RELEASE);
    allocator->_ShutDown();
}

namespace Particles
{

bool Startup() { return CParticlesInternals::Startup(); }
void Shutdown() { CParticlesInternals::Shutdown(); }
CParticlePageAllocator *PageAllocator()
{
    return __atomic_load_n(&CParticlesInternals::m_PageAllocator, __ATOMIC_ACQUIRE);
}

} // namespace Particles
} // namespace Tessaly
