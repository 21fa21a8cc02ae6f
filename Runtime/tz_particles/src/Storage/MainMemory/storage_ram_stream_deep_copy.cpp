// The copy of a whole stream.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_mem_utils.h>
#include <tz_kernel/include/kr_profiler.h>
#include <tz_particles/include/ps_runtime.h>

#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace Tessaly
{

namespace
{

// Copies of so many bytes, half of a usual last-level cache, are faster with non-temporal stores: ordinary stores would
// read each line before they write it, and the cache could not keep the copy for its reader anyway. Not if most of the
// destination is new memory: the kernel clears it at the page fault, and then it is in the cache.
constexpr u64 kMinBytesNonTemporal = 16 << 20;

bool ShouldBypassCache(u64 byteCount)
{
    const CParticlePageAllocator *allocator = Particles::PageAllocator();
    return byteCount >= kMinBytesNonTemporal && allocator != null && allocator->TotalMemoryAvailable() >= byteCount / 2;
}

// As Mem::Copy, with non-temporal stores where the processor has them and dst is aligned, as columns are.
void CopyNonTemporal(void *dst, const void *src, ureg byteCount)
{
#if defined(__SSE2__)
    __m128i *to = static_cast<__m128i *>(dst);
    const __m128i *from = static_cast<const __m128i *>(src);
    const ureg vectorCount = ureg(dst) % sizeof(__m128i) == 0 ? byteCount / sizeof(__m128i) : 0;
    for (ureg i = 0; i < vectorCount; ++i)
        _mm_stream_si128(to + i, _mm_loadu_si128(from + i));
    _mm_sfence(); // orders the copy before the stores that publish it
    dst = to + vectorCount;
    src = from + vectorCount;
    byteCount -= vectorCount * sizeof(__m128i);
#endif
    Mem::Copy(dst, src, byteCount);
}

} // namespace

void CParticleStream_MainMemory::DeepCopy(const CParticleStream_MainMemory &other)
{
    TZ_PROFILE_SCOPE_COLORED("DeepCopy", CFloat3(0.4f, 0.3f, 1.0f));
    _DEBUG_CheckParticleCountConsistency();
    LockPages();
    Cleanup();
    TZ_ASSERT(m_Pages.Empty());
    Threads::StoreShared<__ATOMIC_RELEASE>(m_StreamDef, other.GetStreamDef());
    m_ConstantData = other.m_ConstantData;
    m_ConstantDataFieldSlot = other.m_ConstantDataFieldSlot;
    Threads::StoreShared(m_PageSize, other.PageSize());
    m_PageSizeInBytes = other.m_PageSizeInBytes;
    Threads::StoreShared(m_PageCount_OutOfSync, other.m_PageCount_OutOfSync);
    TZ_ASSERT(m_PageSizeInBytes == _ComputePageSizeInBytes(m_PageSize, m_StreamDef));

    u32 newPCount = 0;
    const u32 oldPCount = m_ParticleCount.Load();
    if (!other.m_Pages.Empty() && m_Pages.Reserve(other.m_Pages.Count()))
        newPCount = _DeepCopyPages_NoLock(other);
    TZ_ASSERT(m_ParticleCount.Load() == oldPCount);
    m_ParticleCount.Store(newPCount);
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
}

// Appends copies of other's pages that hold particles, until memory is refused. Returns the number of their particles.
u32 CParticleStream_MainMemory::_DeepCopyPages_NoLock(const CParticleStream_MainMemory &other)
{
    const u64 roughByteCount = u64(other.m_Pages.Count()) * other.m_PageSizeInBytes;
    const auto copyBytes = ShouldBypassCache(roughByteCount) ? &CopyNonTemporal : &Mem::Copy;
    u32 newPCount = 0;
    for (u32 i = 0; i < other.m_Pages.Count(); ++i)
    {
        const CParticlePage *srcPage = other.m_Pages.RawDataPointer()[i].Get();
        if (srcPage->Empty())
            continue;
        const u32 pageSizeInBytes = srcPage->RawPage()->Size();
        // Rows that are copied whole are not filled: they are copied before any report or memory request.
        const u32 firstFreshRow = srcPage->_HasFieldsOf(*m_StreamDef) ? srcPage->ParticleCount() : 0;
        const PParticlePage dstPage = _AllocNewPage_NoLock(srcPage->Capacity(), pageSizeInBytes, true, firstFreshRow);
        if (dstPage == null)
            break;
        TZ_ASSERT(dstPage->Capacity() == srcPage->Capacity());
        TZ_ASSERT(dstPage->RawPage()->Size() == srcPage->RawPage()->Size());
        dstPage->_DeepCopy(*srcPage, copyBytes);
        newPCount += dstPage->ParticleCount();
    }
    return newPCount;
}

} // namespace Tessaly
