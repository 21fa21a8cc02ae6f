// The page size, and how pages are made.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <cstring>

#include <tz_kernel/include/kr_profiler.h>
#include <tz_memory.h>

#include "../../include/pv_particles.h"

namespace Tessaly
{

namespace
{

// Returns the bytes of one column, in wrapping arithmetic.
u32 _ComputePageStreamSizeInBytes(u32 /*streamOffsetInPage*/, u32 pageSize, u32 storageSize)
{
    return Mem::Align<16, u32>(storageSize * pageSize);
}

// Returns the bytes of all columns without wrapping; the largest u64 when there are more.
u64 ComputeTruePageSizeInBytes(u32 pageSize, const SParticleStreamDef &streamDef)
{
    u64 sum = 0;
    for (const SParticleStreamFieldDef &def : streamDef.m_StreamDef.View())
    {
        const u64 columnBytes = Mem::Align<16, u64>(u64(def.m_StorageSize) * pageSize);
        if (__builtin_add_overflow(sum, columnBytes, &sum))
            return TNumericTraits<u64>::kMax;
    }
    return sum;
}

} // namespace

u32 CParticleStream_MainMemory::_ComputePageSizeInBytes(u32 pageSize, const SParticleStreamDef *streamDef)
{
    TZ_ASSERT(streamDef != null);
    if (streamDef == null)
        return 0;
    u32 sum = 0;
    for (const SParticleStreamFieldDef &def : streamDef->m_StreamDef.View())
        sum += _ComputePageStreamSizeInBytes(sum, pageSize, def.m_StorageSize);
    return sum;
}

bool CParticleStream_MainMemory::_ClampPageSizeToAllocatorCapsIFN()
{
    CParticlesInternals::PageAllocator(); // asserts that there is one
    const u32 kMaxAllocSize = CParticlePageAllocator::kMaxAllocSize;
    if (m_StreamDef == null || m_PageSizeInBytes == 0)
        return false;
    const u64 trueSize = ComputeTruePageSizeInBytes(m_PageSize, *m_StreamDef);
    if (trueSize <= kMaxAllocSize)
        return false;
    const u64 sizePerParticle = trueSize / m_PageSize;
    TZ_ASSERT(sizePerParticle != 0);
    const u32 maxParticleCount = sizePerParticle != 0 ? u32(kMaxAllocSize / sizePerParticle) : 0;
    Threads::StoreShared(m_PageSize, maxParticleCount != 0 ? 1u << IntegerTools::Log2(maxParticleCount) : 1u);
    m_PageSizeInBytes = _ComputePageSizeInBytes(m_PageSize, m_StreamDef);
    TZ_ASSERT(m_PageSizeInBytes <= kMaxAllocSize);
    TZ_ASSERT(m_PageSizeInBytes != 0);
    return true;
}

void CParticleStream_MainMemory::SetPageSize(u32 size)
{
    TZ_PROFILE_SCOPE("SetPageSize");
    if (PageSize() == size)
        return;
    TZ_ASSERT(m_Pages.Empty() || m_ConstantDataFieldSlot.Count() == m_StreamDef->m_StreamDef.Count());
    _DEBUG_CheckParticleCountConsistency();
    LockPages();
    Threads::StoreShared(m_PageSize, size);
    if (m_StreamDef != null)
    {
        m_PageSizeInBytes = _ComputePageSizeInBytes(size, m_StreamDef);
        TZ_ASSERT(m_PageSizeInBytes != 0 || m_StreamDef->Empty());
    }
    if (size == 0)
    {
        Threads::StoreShared(m_PageSize, kDefaultPageSize);
        if (m_StreamDef != null)
            m_PageSizeInBytes = _ComputePageSizeInBytes(kDefaultPageSize, m_StreamDef);
    }
    if (m_StreamDef != null)
        _ClampPageSizeToAllocatorCapsIFN();
    u32 outOfSyncCount = 0;
    for (const PParticlePage &page : m_Pages.View())
        outOfSyncCount += page->Capacity() != m_PageSize ? 1 : 0;
    Threads::StoreShared(m_PageCount_OutOfSync, outOfSyncCount);
    TZ_ASSERT(m_Pages.Empty() || m_StreamDef != null);
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
}

PParticlePage CParticleStream_MainMemory::AllocNewPage_NoLock(bool addToPageList)
{
    return AllocNewPage_NoLock(m_PageSize, m_PageSizeInBytes, addToPageList);
}

PParticlePage CParticleStream_MainMemory::AllocNewPage_NoLock(u32 pageSize, u32 pageSizeInBytes, bool addToPageList)
{
    return _AllocNewPage_NoLock(pageSize, pageSizeInBytes, addToPageList, 0);
}

PParticlePage CParticleStream_MainMemory::_AllocNewPage_NoLock(u32 pageSize, u32 pageSizeInBytes, bool addToPageList,
                                                               u32 firstFreshRow)
{
    if (m_StreamDef == null)
        return null;
    CParticlePageAllocator *allocator = CParticlesInternals::PageAllocator();
    if (allocator == null)
        return null;
    PParticleRawPage_MainMemory rawPage = allocator->AllocPage(pageSizeInBytes);
    if (rawPage == null || ComputeTruePageSizeInBytes(pageSize, *m_StreamDef) > rawPage->Size())
        return null;
    PParticlePage page = Mem::New<CParticlePage>(TZ_CALL_SITE, this, pageSize);
    if (page == null)
        return null;
    TZ_ASSERT(page->ReadyToWrite());
    const TArray<SParticleStreamFieldDef> &streamDef = m_StreamDef->m_StreamDef;
    TZ_ASSERT(m_ConstantDataFieldSlot.Count() == streamDef.Count());
    if (!TZ_VERIFY(page->m_Streams_Unsafe.Reserve(streamDef.Count())))
        return null;
    page->m_RawPage = std::move(rawPage);
    page->m_StreamDef = m_StreamDef;
    _LayOutPage(*page);
    page->_FillFreshRows(firstFreshRow);
    if (!addToPageList)
        return page;
    const u32 pageIndex = m_Pages.Count();
    m_PageIndex.Reserve(TZMax(pageIndex + 1, m_Pages.Capacity()));
    if (!TZ_VERIFY(m_Pages.PushBack(page).Valid()))
        return null;
    m_PageIndex.Attach(*page, pageIndex);
    return page;
}

// Adds the page's fields: columns back to back in its block, constant fields with their constant data.
void CParticleStream_MainMemory::_LayOutPage(CParticlePage &pageToLayOut) const
{
    CParticlePage *page = &pageToLayOut;
    const TArray<SParticleStreamFieldDef> &streamDef = m_StreamDef->m_StreamDef;
    u8 *basePageDataPtr = page->m_RawPage->RawDataForWriting();
    u32 dataOffset = 0;
    for (u32 sidx = 0; sidx < streamDef.Count(); ++sidx)
    {
        const SParticleStreamFieldDef &def = streamDef.RawDataPointer()[sidx];
        TZ_VERIFY(page->m_Streams_Unsafe.PushBackUnsafe(def) == sidx);
        u8 *streamPtr = null;
        if (def.m_StorageSize == 0)
        {
            const CGuid cstId = _ConstantSlot(sidx);
            if (cstId.Valid() && TZ_VERIFY(cstId < m_ConstantData.Count()))
                streamPtr = _ConstantBlock(cstId);
        }
        else
        {
            streamPtr = basePageDataPtr + dataOffset;
            dataOffset += _ComputePageStreamSizeInBytes(dataOffset, page->Capacity(), def.m_StorageSize);
        }
        page->m_Streams_Unsafe.RawDataPointer()[sidx].m_RawDataPtr = streamPtr;
    }
}

CGuid CParticleStream_MainMemory::_ConstantSlot(u32 streamId) const
{
    const SStridedMemoryViewRawStorage &slots = m_ConstantDataFieldSlot.m_Storage;
    m_ConstantDataFieldSlot._AssertAccessible(streamId);
    CGuid slot;
    if (slots.m_RawDataPtr != null && streamId < slots.m_Count)
        std::memcpy(&slot, slots.m_RawDataPtr + streamId * slots.m_Stride, sizeof(slot)); // it may be misaligned
    return slot;
}

u8 *CParticleStream_MainMemory::_ConstantBlock(CGuid cstId) const
{
    m_ConstantData._AssertAccessible(cstId);
    if (m_ConstantData.Data() == null)
        return null;
    return reinterpret_cast<u8 *>(const_cast<S64Bytes *>(m_ConstantData.Data() + cstId.Get()));
}

} // namespace Tessaly
