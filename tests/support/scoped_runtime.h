// Starts the particle runtime for a scope.
#pragma once

#include <gtest/gtest.h>

#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>
#include <tz_particles/include/ps_runtime.h>

namespace Tessaly
{
namespace Tests
{

class CScopedRuntime : public CNonCopyable
{
public:
    CScopedRuntime() { EXPECT_TRUE(Particles::Startup()); }
    ~CScopedRuntime() { Particles::Shutdown(); }

    CParticlePageAllocator &Allocator() const { return *Particles::PageAllocator(); }

    // From here on no new page can be had, whatever waits for reuse; until Allow.
    void RefusePages() const { Allocator().SetMemoryBudget(1); }
    // count more blocks of blockBytes can be had.
    void RefusePagesAfter(u32 count, u32 blockBytes) const
    {
        Allocator().SetMemoryBudget(Allocator().TotalMemoryAllocated() + u64(count) * blockBytes);
    }
    void AllowPages() const { Allocator().SetMemoryBudget(0); }
};

} // namespace Tests
} // namespace Tessaly
