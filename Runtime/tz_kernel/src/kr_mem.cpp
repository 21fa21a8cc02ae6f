// Memory services: forward to the allocator that the host set, or to the default one, which takes small blocks from the
// C library and maps large ones.
#include "../include/kr_mem.h"

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>

namespace Tessaly::Mem
{

namespace
{

constexpr u32 kDefaultAlignment = 16; // of malloc
constexpr u64 kMinMappedBytes = 1 << 20;
constexpr u64 kHugePageBytes = 2 << 20; // the alignment of all mapped blocks

// A mapped block. The record follows the block's bytes.
struct SMapping
{
    u8 *m_Block;
    u64 m_BlockBytes; // requested size, rounded up to the offset of this record
    u64 m_MappedBytes;
    SMapping *m_Next;
    bool m_HasDiscarded; // huge pages are disabled
};

std::mutex g_MappingsLock;
SMapping *g_Mappings = null; // unsorted: a search among 256, which are 1 GiB of arenas, costs less than unmapping one

ureg RoundUp(ureg value, ureg step) { return (value + step - 1) / step * step; }

u64 SystemPageBytes()
{
    static const u64 bytes = u64(sysconf(_SC_PAGESIZE));
    return bytes;
}

// Maps a block, or returns null. Page faults on huge pages cost about a tenth of those on small ones.
void *MapBlock(u64 size)
{
    if (size > TNumericTraits<u64>::kMax / 2)
        return null;
    const u64 blockBytes = RoundUp(size, alignof(SMapping));
    const u64 mappedBytes = RoundUp(blockBytes + sizeof(SMapping), SystemPageBytes());
    void *memory = mmap(null, mappedBytes + kHugePageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return null;
    // Only the aligned block and its record stay mapped.
    u8 *start = static_cast<u8 *>(memory);
    u8 *block = reinterpret_cast<u8 *>(RoundUp(ureg(start), kHugePageBytes));
    if (block != start)
        munmap(start, size_t(block - start));
    munmap(block + mappedBytes, size_t(start + kHugePageBytes - block));
    if (blockBytes >= kHugePageBytes)
        madvise(block, blockBytes / kHugePageBytes * kHugePageBytes, MADV_HUGEPAGE); // may fail
    const std::lock_guard<std::mutex> lock(g_MappingsLock);
    g_Mappings = ::new (block + blockBytes) SMapping{block, blockBytes, mappedBytes, g_Mappings, false};
    return block;
}

// The link in the list to the mapping that contains address; a link to null for any other address. Expects the lock.
SMapping **FindMapping(const void *address)
{
    SMapping **link = &g_Mappings;
    while (*link != null && ureg(address) - ureg((*link)->m_Block) >= (*link)->m_BlockBytes)
        link = &(*link)->m_Next;
    return link;
}

// The size of a mapped block; 0 for a block of the C library.
u64 MappedBlockBytes(const void *block)
{
    if (block == null || ureg(block) % kHugePageBytes != 0)
        return 0;
    const std::lock_guard<std::mutex> lock(g_MappingsLock);
    const SMapping *mapping = *FindMapping(block);
    return mapping != null ? mapping->m_BlockBytes : 0;
}

void UnmapBlock(void *block)
{
    u64 mappedBytes;
    {
        const std::lock_guard<std::mutex> lock(g_MappingsLock);
        SMapping **link = FindMapping(block);
        mappedBytes = (*link)->m_MappedBytes;
        *link = (*link)->m_Next;
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
    const std::lock_guard<std::mutex> lock(g_MappingsLock); // keeps the block mapped
    SMapping *mapping = *FindMapping(ptr);
    if (mapping == null || size > mapping->m_BlockBytes - (ureg(ptr) - ureg(mapping->m_Block)))
        return;
    // The kernel's background thread would allocate the discarded pages again to form huge ones.
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

} // namespace Tessaly::Mem
