// The host's door to the particle runtime: start it before the first stream gets pages, shut it down behind the last.
#pragma once

#include <tz_defs.h>
#include <tz_version.h>

namespace Tessaly
{

class CParticlePageAllocator;

namespace Particles
{

// Makes the page allocator of the process. Calls are counted; each is balanced by one Shutdown. False when memory is
// refused (then there is nothing to shut down). Any thread.
TZ_API bool Startup();

// The last one destroys the page allocator. Pages that are still held stay valid and free themselves later.
TZ_API void Shutdown();

// The page allocator, for its budget, maintenance and statistics; null while the runtime is not started.
TZ_API CParticlePageAllocator *PageAllocator();

// Under the address sanitizer: whether touching a page's free slots, as through a view on particles that are gone, is
// an error. Off by default: what a free slot holds may be read. Holds for pages made, and counts changed, from then on.
// Without the sanitizer it does nothing. Any thread.
TZ_API void SetPoisonFreeSlots(bool isOn);

} // namespace Particles
} // namespace Tessaly
