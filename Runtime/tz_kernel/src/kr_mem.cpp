// Memory services: forward to the allocator that the host set, or to the default one: the C library's for small blocks,
// the system's own mappings for large ones.
#include "../include/kr_mem.h"

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>

namespace Tessaly
{
namespace Mem
{

namespace
{

constexpr u32 kDefaultAlignment = 16; // what the C library gives without being asked
constexpr u64 kMinMappedBytes = 1 << 20;
constexpr u64 kHugePageBytes = 2 << 20; // every mapped block is aligned to it

// A mapped block. The record stands behind the block's bytes.
struct SMapping
{
    u8 *m_Block;
    u64 m_BlockBytes; // as asked, rounded up to the record's place
    u64 m_MappedBytes;
    SMapping *m_Next;
    SMapping *m_Previous;
    bool m_HasDiscarded; // no huge pages any more
};

std::mutex g_MappingsLock;
SMapping *g_Mappings = null; // in no order: there are few, and who looks one up is about to call the system

ureg RoundUp(ureg value, ureg step) { return (value + step - 1) / step * step; }

u64 SystemPageBytes()
{
    static const u64 bytes = u64(sysconf(_SC_PAGESIZE));
    return bytes;
}

// Maps a block. First touch in huge pages costs about a tenth of what it costs in small ones. Null when it is refused.
void *MapBlock(u64 size)
{
    const u64 blockBytes = RoundUp(size, alignof(SMapping));
    const u64 mappedBytes = RoundUp(blockBytes + sizeof(SMapping), SystemPageBytes());
    if (size > TNumericTraits<u64>::kMax / 2)
        return null;
    void *memory = mmap(null, mappedBytes + kHugePageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return null;
    // What lies before the aligned block and behind its record is not needed.
    u8 *start = static_cast<u8 *>(memory);
    u8 *block = reinterpret_cast<u8 *>(RoundUp(ureg(start), kHugePageBytes));
    if (block != start)
        munmap(start, size_t(block - start));
    munmap(block + mappedBytes, size_t(start + kHugePageBytes - block));
    if (blockBytes >= kHugePageBytes)
        madvise(block, blockBytes / kHugePageBytes * kHugePageBytes, MADV_HUGEPAGE); // a wish only
    const std::lock_guard<std::mutex> lock(g_MappingsLock);
    SMapping *mapping = ::new (block + blockBytes) SMapping{block, blockBytes, mappedBytes, g_Mappings, null, false};
    if (g_Mappings != null)
        g_Mappings->m_Previous = mapping;
    g_Mappings = mapping;
    return block;
}

// The mapping that address lies in; null: it is none of a mapped block. Under the lock of the mappings.
SMapping *FindMapping(const void *address)
{
    SMapping *mapping = g_Mappings;
    while (mapping != null && ureg(address) - ureg(mapping->m_Block) >= mapping->m_BlockBytes)
        mapping = mapping->m_Next;
    return mapping;
}

// The bytes of a mapped block; 0: the C library's.
u64 MappedBlockBytes(const void *block)
{
    if (block == null || ureg(block) % kHugePageBytes != 0)
        return 0;
    const std::lock_guard<std::mutex> lock(g_MappingsLock);
    const SMapping *mapping = FindMapping(block);
    return mapping != null ? mapping->m_BlockBytes : 0;
}

void UnmapBlock(void *block)
{
    u64 mappedBytes;
    {
        const std::lock_guard<std::mutex> lock(g_MappingsLock);
        SMapping *mapping = FindMapping(block);
        mappedBytes = mapping->m_MappedBytes;
        (mapping->m_Previous != null ? mapping->m_Previous->m_Next : g_Mappings) = mapping->m_Next;
        if (mapping->m_Next != null)
            mapping->m_Next->m_Previous = mapping->m_Previous;
    }
    munmap(block, mappedBytes);
}

void *DefaultAlloc(u64 size, u32 alignment, EAllocType, EOrigin, const char *, const char *, int, const char *)
{
    if (size >= kMinMappedBytes && alignment <= kHugePageBytes)
        return MapBlock(size);
    const size_t bytes = size != 0 ? size_t(size) : 1;
    if (alignment <= kDefaultAlignment)
        return std::malloc(bytes);
    void *block = null;
    return posix_memalign(&block, alignment, bytes) == 0 ? block : null;
}

void DefaultFree(void *ptr, EAllocType, EOrigin, const char *, const char *, int, const char *)
{
    if (MappedBlockBytes(ptr) != 0)
        UnmapBlock(ptr);
    else
        std::free(ptr);
}

void *DefaultRealloc(void *ptr, u64 size, u32 alignment, EAllocType type, const char *tag, const char *file, int line,
                     const char *function)
{
    const u64 mappedBytes = MappedBlockBytes(ptr);
    if (mappedBytes == 0 && size < kMinMappedBytes && alignment <= kDefaultAlignment)
        return std::realloc(ptr, size != 0 ? size_t(size) : 1);
    void *block = DefaultAlloc(size, alignment, type, Origin_Alloc, tag, file, line, function);
    if (block != null && ptr != null)
    {
        const u64 oldBytes = mappedBytes != 0 ? mappedBytes : malloc_usable_size(ptr);
        std::memcpy(block, ptr, size_t(TZMin(size, oldBytes)));
        DefaultFree(ptr, type, Origin_Alloc, tag, file, line, function);
    }
    return block;
}

void DefaultDiscard(void *ptr, u64 size)
{
    const ureg start = RoundUp(ureg(ptr), SystemPageBytes());
    const ureg end = (ureg(ptr) + size) / SystemPageBytes() * SystemPageBytes();
    if (start >= end)
        return;
    const std::lock_guard<std::mutex> lock(g_MappingsLock); // so that the block stays mapped
    SMapping *mapping = FindMapping(ptr);
    if (mapping == null || size > mapping->m_BlockBytes - (ureg(ptr) - ureg(mapping->m_Block)))
        return;
    // The kernel looks for memory under that advice every few seconds, and fills the holes again to make huge pages.
    if (!std::exchange(mapping->m_HasDiscarded, true))
        madvise(mapping->m_Block, mapping->m_MappedBytes, MADV_NOHUGEPAGE);
    madvise(reinterpret_cast<void *>(start), end - start, MADV_DONTNEED);
}

const SAllocator kDefaultAllocator = {&DefaultAlloc, &DefaultRealloc, &DefaultFree, &DefaultDiscard};
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

TZ_REPLACEABLE void _RawDiscard(void *ptr, u64 size)
{
    if (CurrentAllocator().m_Discard != null)
        CurrentAllocator().m_Discard(ptr, size);
}

} // namespace Mem
} // namespace Tessaly
