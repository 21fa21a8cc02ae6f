// The runtime's own globals. Not installed: hosts use ps_runtime.h.
#pragma once

#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

namespace Tessaly
{

class TZ_API CParticlesInternals
{
public:
    // Makes the page allocator; calls are counted. False when memory is refused.
    static bool Startup();
    // Balances one Startup. The last one lets the page allocator go, which lives on until its last block is back.
    static void Shutdown();

    // The page allocator; asserts that it exists, and gives null when it does not.
    static CParticlePageAllocator *PageAllocator()
    {
        CParticlePageAllocator *allocator = __atomic_load_n(&m_PageAllocator, __ATOMIC_ACQUIRE);
        TZ_ASSERT_TEXT("m_PageAllocator != null", allocator != null);
        return allocator;
    }

    static CParticlePageAllocator *m_PageAllocator; // read without a lock
};

} // namespace Tessaly
