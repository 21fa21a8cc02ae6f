// Memory services: where every byte of the runtime comes from, and the kernel's new and delete on top of them.
//
// A host replaces the services at run time with Mem::SetAllocator, or at link time by defining Mem::_RawAlloc,
// _RawRealloc and _RawFree (with SetAllocator and DefaultAllocator) itself. Any thread may call them at any time.
#pragma once

#include <new>
#include <utility>

#include <tz_defs.h>
#include <tz_memory.h>

#include "kr_mem_utils.h"

namespace Tessaly
{
namespace Mem
{

// What memory is asked for. The library asks for AllocType_Generic only; the others are for hosts.
enum EAllocType
{
    AllocType_Generic = 0,
    AllocType_Particle = 1,
    AllocType_Scratch = 2,
    AllocType_Debug = 3,
};

// Who asks.
enum EOrigin : u32
{
    Origin_Alloc = 0,        // raw allocation, used with array buffers
    Origin_New = 0x80000000, // an object made by the kernel's new
    _Origin_Mask = 0x80000000,
};

// The tag under which the library asks for all of its memory.
constexpr const char *kDefaultTag = "Kernel|Mem|Default";

// Returns a block of size bytes or null. Alignment 0 means the default: 16 bytes at least.
TZ_API void *_RawAlloc(u64 size, u32 alignment, EAllocType type, EOrigin origin, const char *tag, const char *file,
                       int line, const char *function);
// Resizes ptr to size bytes (null allocates). On null the old block stays valid and unchanged.
TZ_API void *_RawRealloc(void *ptr, u64 size, u32 alignment, EAllocType type, const char *tag, const char *file,
                         int line, const char *function);
// Frees a block of the same type and origin; null is allowed.
TZ_API void _RawFree(void *ptr, EAllocType type, EOrigin origin, const char *tag, const char *file, int line,
                     const char *function);

// Tells that nobody needs what these bytes hold. The block that they belong to stays allocated; what they read
// afterwards is not told. The default service gives the system pages that lie wholly within the range back to the
// operating system, where they belong to a block that it mapped, and touches no other memory. That block gets no new
// huge pages from then on: the system would fill what was given back to make them.
TZ_API void _RawDiscard(void *ptr, u64 size);

// The functions behind the services, each of the contract of its namesake above.
struct SAllocator
{
    // Called by any thread at any time.
    void *(*m_Alloc)(u64 size, u32 alignment, EAllocType type, EOrigin origin, const char *tag, const char *file,
                     int line, const char *function);
    void *(*m_Realloc)(void *ptr, u64 size, u32 alignment, EAllocType type, const char *tag, const char *file, int line,
                       const char *function);
    void (*m_Free)(void *ptr, EAllocType type, EOrigin origin, const char *tag, const char *file, int line,
                   const char *function);
    void (*m_Discard)(void *ptr, u64 size) = null; // optional; null: nothing happens
};

// The C library's allocator; blocks of 1 MiB and more are mapped, with huge pages advised, and unmapped when freed. The
// C library's own functions know nothing of those.
TZ_API const SAllocator &DefaultAllocator();

// Makes the services call allocator, which the caller keeps alive; null restores the default one. A block is freed by
// the allocator of that moment: change it while no block is live, or by one that forwards what it does not know.
TZ_API void SetAllocator(const SAllocator *allocator);

// The place in the source that asks for memory.
struct SCallSite
{
    // As the services take them.
    const char *m_File;
    int m_Line;
    const char *m_Function;
};

// The place where it stands.
#define TZ_CALL_SITE                                                                                                   \
    ::Tessaly::Mem::SCallSite { __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE }

// Constructs an object in place.
template <typename _Type, typename... _Args>
_Type *Construct(void *place, _Args &&...args)
{
    return ::new (place) _Type(std::forward<_Args>(args)...);
}

// The kernel's new: null, and no constructor run, when the memory is refused.
template <typename _Type, typename... _Args>
_Type *New(const SCallSite &site, _Args &&...args)
{
    void *place = _RawAlloc(sizeof(_Type), 0, AllocType_Generic, Origin_New, kDefaultTag, site.m_File, site.m_Line,
                            site.m_Function);
    return place == null ? null : Construct<_Type>(place, std::forward<_Args>(args)...);
}

// Destroys and frees what New made; null is allowed.
template <typename _Type>
void Delete(const SCallSite &site, _Type *object)
{
    if (object == null)
        return;
    object->~_Type();
    _RawFree(object, AllocType_Generic, Origin_New, kDefaultTag, site.m_File, site.m_Line, site.m_Function);
}

} // namespace Mem
} // namespace Tessaly
