// Memory services: forward to the allocator that the host set, or to the C library's.
#include "../include/kr_mem.h"

#include <cstdlib>
#include <cstring>
#include <malloc.h>

namespace Tessaly
{
namespace Mem
{

namespace
{

constexpr u32 kDefaultAlignment = 16; // what the C library gives without being asked

void *DefaultAlloc(u64 size, u32 alignment, EAllocType, EOrigin, const char *, const char *, int, const char *)
{
    const size_t bytes = size != 0 ? size_t(size) : 1;
    if (alignment <= kDefaultAlignment)
        return std::malloc(bytes);
    void *block = null;
    return posix_memalign(&block, alignment, bytes) == 0 ? block : null;
}

void *DefaultRealloc(void *ptr, u64 size, u32 alignment, EAllocType type, const char *tag, const char *file, int line,
                     const char *function)
{
    const size_t bytes = size != 0 ? size_t(size) : 1;
    if (alignment <= kDefaultAlignment)
        return ptr != null ? std::realloc(ptr, bytes) : std::malloc(bytes);
    void *block = DefaultAlloc(size, alignment, type, Origin_Alloc, tag, file, line, function);
    if (block != null && ptr != null)
    {
        std::memcpy(block, ptr, TZMin(bytes, malloc_usable_size(ptr)));
        std::free(ptr);
    }
    return block;
}

void DefaultFree(void *ptr, EAllocType, EOrigin, const char *, const char *, int, const char *) { std::free(ptr); }

const SAllocator kDefaultAllocator = {&DefaultAlloc, &DefaultRealloc, &DefaultFree};
const SAllocator *g_Allocator = &kDefaultAllocator;

const SAllocator &CurrentAllocator() { return *__atomic_load_n(&g_Allocator, __ATOMIC_ACQUIRE); }

} // namespace

TZ_REPLACEABLE const SAllocator &DefaultAllocator() { return kDefaultAllocator; }

TZ_REPLACEABLE void SetAllocator(const SAllocator *allocator)
{
    __atomic_store_n(&g_Allocator, allocator != null ? allocator : &kDefaultAllocator, __ATOMIC_RELEASE);
}

TZ_REPLACEABLE void *_RawAlloc(u64 size, u32 alignment, EAllocType type, EOrigin origin, const char *tag,
                               const char *file, int line, const char *function)
{
    return CurrentAllocator().m_Alloc(size, alignment, type, origin, tag, file, line, function);
}

TZ_REPLACEABLE void *_RawRealloc(void *ptr, u64 size, u32 alignment, EAllocType type, const char *tag, const char *file,
                                 int line, const char *function)
{
    return CurrentAllocator().m_Realloc(ptr, size, alignment, type, tag, file, line, function);
}

TZ_REPLACEABLE void _RawFree(void *ptr, EAllocType type, EOrigin origin, const char *tag, const char *file, int line,
                             const char *function)
{
    CurrentAllocator().m_Free(ptr, type, origin, tag, file, line, function);
}

} // namespace Mem
} // namespace Tessaly
