// Starts the particle runtime for a scope.
#pragma once

#include <gtest/gtest.h>

#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>
#include <tz_particles/include/ps_runtime.h>

namespace Tessaly::Tests
{

class CScopedRuntime : public CNonCopyable
{
public:
    CScopedRuntime() { EXPECT_TRUE(Particles::Startup()); }
    ~CScopedRuntime() { Particles::Shutdown(); }

    CParticlePageAllocator &Allocator() const { return *Particles::PageAllocator(); }
};

} // namespace Tessaly::Tests
