// Memory services: where all memory of the runtime comes from, and the kernel's new and delete, which use them.
//
// A host replaces the services at run time with Mem::SetAllocator, or at link time by defining Mem::_RawAlloc,
// _RawRealloc and _RawFree itself (kr_host.h). Any thread may call them at any time.
#pragma once

#include <new>
#include <utility>

#include <tz_defs.h>
#include <tz_memory.h>

#include "kr_mem_utils.h"

namespace Tessaly::Mem
{

// What memory is used for. The library uses AllocType_Generic only; the others are for hosts.
enum EAllocType
{
    AllocType_Generic = 0,
    AllocType_Particle = 1,
    AllocType_Scratch = 2,
    AllocType_Debug = 3,
};

// What requests memory.
enum EOrigin : u32
{
    Origin_Alloc = 0,        // raw allocations, array buffers among them
    Origin_New = 0x80000000, // the kernel's new, for an object
    _Origin_Mask = 0x80000000,
};

// The tag of all memory that the library requests.
constexpr const char *kDefaultTag = "Kernel|Mem|Default";

// Allocates size bytes. Alignment 0 means the default: 16 bytes at least.
// Returns: the block or null.
TZ_API void *_RawAlloc(u64 size, u32 alignment, EAllocType type, EOrigin origin, const char *tag, const char *file,
                       int line, const char *function);
// Resizes the block ptr to size bytes; a null ptr allocates.
// Returns: the block or null. After null the old block is valid and unchanged.
TZ_API void *_RawRealloc(void *ptr, u64 size, u32 alignment, EAllocType type, const char *tag, const char *file,
                         int line, const char *function);
// Frees a block that was allocated with the same type and origin; null is allowed.
TZ_API void _RawFree(void *ptr, EAllocType type, EOrigin origin, const char *tag, const char *file, int line,
                     const char *function);

// Discards what a range of a block holds; the block stays allocated, and the range reads as unspecified values. The
// default service returns the system pages that lie wholly inside the range to the operating system if the block is one
// that it mapped, and does nothing otherwise. It also disables huge pages for that block, because the system would
// allocate the returned pages again to form huge ones.
TZ_API void _RawDiscard(void *ptr, u64 size);

// The functions behind the services, with the same contracts. Any thread may call them at any time.
struct SAllocator
{
    void *(*m_Alloc)(u64 size, u32 alignment, EAllocType type, EOrigin origin, const char *tag, const char *file,
                     int line, const char *function);
    void *(*m_Realloc)(void *ptr, u64 size, u32 alignment, EAllocType type, const char *tag, const char *file, int line,
                       const char *function);
    void (*m_Free)(void *ptr, EAllocType type, EOrigin origin, const char *tag, const char *file, int line,
                   const char *function);
    void (*m_Discard)(void *ptr, u64 size) = null; // optional
};

// The C library's allocator for blocks below 1 MiB. Larger blocks are mapped, with advice for huge pages, and unmapped
// when they are freed; these must not be passed to the C library's functions.
TZ_API const SAllocator &DefaultAllocator();

// Makes the services call allocator, which the caller keeps alive; null restores the default one. A block is freed by
// the allocator that is set at that time: set another one while no block is live, or one that forwards unknown blocks.
TZ_API void SetAllocator(const SAllocator *allocator);

// The place in the source that requests memory.
struct SCallSite
{
    const char *m_File;
    int m_Line;
    const char *m_Function;
};

// The place where the macro stands.
#define TZ_CALL_SITE                                                                                                   \
    ::Tessaly::Mem::SCallSite { __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE }

// Constructs an object in place.
template <typename _Type, typename... _Args>
_Type *Construct(void *place, _Args &&...args)
{
    return ::new (place) _Type(std::forward<_Args>(args)...);
}

// The kernel's new: allocates and constructs an object.
// Fails: null, and no constructor runs, when memory is refused.
template <typename _Type, typename... _Args>
_Type *New(const SCallSite &site, _Args &&...args)
{
    void *place = _RawAlloc(sizeof(_Type), 0, AllocType_Generic, Origin_New, kDefaultTag, site.m_File, site.m_Line,
                            site.m_Function);
    return place == null ? null : Construct<_Type>(place, std::forward<_Args>(args)...);
}

// Destroys and frees what New returned; null is allowed.
template <typename _Type>
void Delete(const SCallSite &site, _Type *object)
{
    if (object == null)
        return;
    object->~_Type();
    _RawFree(object, AllocType_Generic, Origin_New, kDefaultTag, site.m_File, site.m_Line, site.m_Function);
}

} // namespace Tessaly::Mem
