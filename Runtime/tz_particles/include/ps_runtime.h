// Start-up and shutdown of the particle runtime: Startup before a stream makes its first page, Shutdown after the last.
#pragma once

#include <tz_defs.h>
#include <tz_version.h>

namespace Tessaly
{

class CParticlePageAllocator;

namespace Particles
{

// Makes the page allocator of the process. Calls are counted: each needs its Shutdown. Any thread.
// Fails: false, and needs no Shutdown, when memory is refused.
TZ_API bool Startup();

// Balances one Startup; the last one destroys the page allocator. Pages that are still referenced stay valid, and their
// memory is freed with their last references. Any thread.
// Fails: a call without its Startup is reported and does nothing.
TZ_API void Shutdown();

// Returns the page allocator, for its budget, maintenance and statistics; null while the runtime is not started.
TZ_API CParticlePageAllocator *PageAllocator();

// Under the address sanitizer: sets whether an access to a page's free slots, as through a view on removed particles,
// is an error. Off by default, because free slots may be read. Applies to pages made, and counts changed, from then on.
// Does nothing without the sanitizer. Any thread.
TZ_API void SetPoisonFreeSlots(bool isOn);

} // namespace Particles
} // namespace Tessaly
