// The copy of a whole stream.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <tz_kernel/include/kr_profiler.h>
#include <tz_particles/include/ps_runtime.h>

#include "storage_ram_copy.h"

namespace Tessaly
{

namespace
{

// True for copies that are larger than the caches, unless most of what they are written to is fresh memory: that is in
// the caches, where the kernel has cleared it just before.
bool GoesPastCaches(u64 byteCount)
{
    const CParticlePageAllocator *allocator = Particles::PageAllocator();
    return byteCount >= kMinBytesPastCaches && allocator != null && allocator->TotalMemoryAvailable() >= byteCount / 2;
}

} // namespace

void CParticleStream_MainMemory::DeepCopy(const CParticleStream_MainMemory &other)
{
    TZ_PROFILE_SCOPE_COLORED("DeepCopy", CFloat3(0.4f, 0.3f, 1.0f));
    _DEBUG_CheckParticleCountConsistency();
    LockPages();
    Cleanup();
    TZ_ASSERT(m_Pages.Empty());
    m_StreamDef = other.m_StreamDef;
    m_ConstantData = other.m_ConstantData;
    m_ConstantDataFieldSlot = other.m_ConstantDataFieldSlot;
    m_PageSize = other.m_PageSize;
    m_PageSizeInBytes = other.m_PageSizeInBytes;
    m_PageCount_OutOfSync = other.m_PageCount_OutOfSync;
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

// Appends copies of other's pages that hold particles, until memory is refused. Returns how many particles they hold.
// Some pages are made before their bytes are copied, which drive all that making one reads out of the first cache.
u32 CParticleStream_MainMemory::_DeepCopyPages_NoLock(const CParticleStream_MainMemory &other)
{
    constexpr u32 kPagesAtATime = 16;
    const CParticlePage *srcPages[kPagesAtATime];
    const u64 roughByteCount = u64(other.m_Pages.Count()) * other.m_PageSizeInBytes;
    const auto copyBytes = GoesPastCaches(roughByteCount) ? &CopyPastCaches : &Mem::Copy;
    u32 newPCount = 0;
    bool isRefused = false;
    for (u32 i = 0; i < other.m_Pages.Count() && !isRefused;)
    {
        u32 pageCount = 0;
        for (; i < other.m_Pages.Count() && pageCount < kPagesAtATime && !isRefused; ++i)
        {
            const CParticlePage *srcPage = other.m_Pages.RawDataPointer()[i].Get();
            if (srcPage->Empty())
                continue;
            isRefused = !_AppendPageLike_NoLock(*srcPage);
            if (!isRefused)
                srcPages[pageCount++] = srcPage;
        }
        const PParticlePage *dstPages = m_Pages.RawDataPointer() + (m_Pages.Count() - pageCount);
        for (u32 k = 0; k < pageCount; ++k)
        {
            dstPages[k].Get()->_DeepCopy(*srcPages[k], copyBytes);
            newPCount += dstPages[k].Get()->ParticleCount();
        }
    }
    return newPCount;
}

// Appends a page for a copy of other, whose rows are not filled first. False when memory is refused.
bool CParticleStream_MainMemory::_AppendPageLike_NoLock(const CParticlePage &other)
{
    const CParticlePage *srcPage = &other;
    const u32 blockBytes = srcPage->RawPage()->Size();
    const CParticlePage *dstPage =
        _AllocNewPage_NoLock(srcPage->Capacity(), blockBytes, true, srcPage->ParticleCount()).Get(); // the list has it
    if (dstPage == null)
        return false;
    TZ_ASSERT(dstPage->Capacity() == srcPage->Capacity());
    TZ_ASSERT_TEXT("dstPage->RawPage()->Size() == srcPage->RawPage()->Size()",
                   dstPage->RawPage().Get()->Size() == blockBytes);
    return true;
}

} // namespace Tessaly
