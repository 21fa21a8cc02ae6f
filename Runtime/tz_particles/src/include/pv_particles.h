// The runtime's globals. Not installed: hosts use ps_runtime.h.
#pragma once

#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

namespace Tessaly
{

class TZ_API CParticlesInternals
{
public:
    // As Particles::Startup and Particles::Shutdown.
    static bool Startup();
    static void Shutdown();

    // Returns the page allocator.
    // Fails: null, after a report, while the runtime is not started.
    static CParticlePageAllocator *PageAllocator()
    {
        CParticlePageAllocator *allocator = __atomic_load_n(&m_PageAllocator, __ATOMIC_ACQUIRE);
        TZ_ASSERT_TEXT("m_PageAllocator != null", allocator != null);
        return allocator;
    }

    static CParticlePageAllocator *m_PageAllocator; // read without a lock
};

} // namespace Tessaly
