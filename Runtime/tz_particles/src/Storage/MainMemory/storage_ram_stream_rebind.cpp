// Binding a definition, and rebuilding the pages of a bound stream for another one.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <cstring>

#include <tz_kernel/include/kr_mem_utils.h>

#include "storage_ram_convert.h"

namespace Tessaly
{

namespace
{

constexpr u8 kNoMapping = 0;    // in a remap table: the new field has no old one
constexpr u8 kFirstMapping = 1; // plus the index of the old field
constexpr u32 kMaxDstStreams = 256;
constexpr u32 kMaxSrcStreams = 255; // so that every mapping fits a u8

// Fills the particles' rows of a new column with the values of the old field src, or with zero where there is none.
void FillColumn(const SParticleStreamField &dst, const SParticleStreamField *src)
{
    const CBaseTypeTraits &tDst = CBaseTypeTraits::Traits(dst.m_Definition.m_Type);
    const u32 dstCoveredBytes = dst.m_Definition.m_StorageSize * dst.m_ParticleCount;
    TZ_ASSERT(dstCoveredBytes != 0);
    if (src == null)
        return Mem::Clear(dst.m_RawDataPtr, dstCoveredBytes);
    const CBaseTypeTraits &tSrc = CBaseTypeTraits::Traits(src->m_Definition.m_Type);
    if (src->m_RawDataPtr == null) // an old constant without data
        Mem::Clear(dst.m_RawDataPtr, dstCoveredBytes);
    else if (src->m_Definition.m_StorageSize == dst.m_Definition.m_StorageSize && tSrc.IsFp == tDst.IsFp)
        Mem::Copy(dst.m_RawDataPtr, src->m_RawDataPtr, dstCoveredBytes);
    else
        ConvertField(*src, dst, dst.m_ParticleCount);
}

bool HasBadType(const TMemoryView<const SParticleStreamFieldDef> &fields)
{
    for (const SParticleStreamFieldDef &field : fields)
    {
        if (field.m_Type < BaseType_Evolved || field.m_Type >= __MaxBaseTypes)
            return true;
    }
    return false;
}

} // namespace

// How pages are rebuilt, found once for all of them.
struct CParticleStream_MainMemory::SRebuild
{
    u8 m_StreamRemap[kMaxDstStreams];
    // The new fields in the order of the old ones that they take over, then those without an old one. Each old block is
    // read in one ascending stream for the prefetcher, which takes 8 % off a reordered stream of 100,000 particles and
    // a quarter off one of a million.
    u8 m_Order[kMaxDstStreams];
    // A field of either definition may be reported, and the handler may read the page: all rows are filled first, and
    // the fields are written in their own order.
    bool m_MayReport;

    // Finds for each new field the first old one of the same name. The empty name is a name like others here.
    void MapFieldsByName(const TMemoryView<const SParticleStreamFieldDef> &dst,
                         const TMemoryView<const SParticleStreamFieldDef> &src)
    {
        const u32 dstCount = TZMin(dst.Count(), kMaxDstStreams);
        const u32 srcCount = TZMin(src.Count(), kMaxSrcStreams);
        u32 mappedCount = 0;
        std::memset(m_StreamRemap, kNoMapping, sizeof(m_StreamRemap));
        for (u32 j = 0; j < srcCount; ++j)
        {
            for (u32 i = 0; i < dstCount; ++i)
            {
                if (m_StreamRemap[i] != kNoMapping || dst.Data()[i].m_NameGUID != src.Data()[j].m_NameGUID)
                    continue;
                m_StreamRemap[i] = checked_numcast<u8>(j + kFirstMapping);
                m_Order[mappedCount++] = u8(i);
            }
        }
        for (u32 i = 0; i < dstCount; ++i)
        {
            if (m_StreamRemap[i] == kNoMapping)
                m_Order[mappedCount++] = u8(i);
        }
    }
};

void CParticleStream_MainMemory::BindStreamDef(const SParticleStreamDef *def,
                                               const TMemoryView<const S64Bytes> &constantData,
                                               const TStridedMemoryView<const CGuid> &constantDataFieldSlot,
                                               const SParticleImplementationCache & /*cache*/)
{
    _DEBUG_CheckParticleCountConsistency();
    TZ_ASSERT(def != null);
    if (def == null || m_StreamDef == def)
        return;
    m_ConstantData = constantData;
    m_ConstantDataFieldSlot = constantDataFieldSlot;
    TZ_ASSERT(m_ConstantDataFieldSlot.Count() == def->m_StreamDef.Count());

    LockPages();
    SRebuild rebuild;
    const bool keepContents = m_StreamDef != null && !m_Pages.Empty();
    const TMemoryView<const SParticleStreamFieldDef> dstFields = def->m_StreamDef.View();
    const TMemoryView<const SParticleStreamFieldDef> srcFields =
        keepContents ? m_StreamDef->m_StreamDef.View() : TMemoryView<const SParticleStreamFieldDef>();
    rebuild.MapFieldsByName(dstFields, srcFields);
    rebuild.m_MayReport = HasBadType(dstFields) || HasBadType(srcFields);
    m_PageSizeInBytes = _ComputePageSizeInBytes(m_PageSize, def);
    TZ_ASSERT(m_PageSizeInBytes != 0 || def->Empty());
    Threads::StoreShared<__ATOMIC_RELEASE>(m_StreamDef, def);
    rebuild.m_MayReport |= _HasBadConstantField();
    if (_ClampPageSizeToAllocatorCapsIFN())
        Cleanup();
    else if (!m_Pages.Empty())
        _RebuildPages_NoLock(rebuild);
    UnlockPages();
    _DEBUG_CheckParticleCountConsistency();
}

bool CParticleStream_MainMemory::BindStreamDef(const SParticleStreamDef *def)
{
    if (!TZ_VERIFY_MESSAGE(def != null, "BindStreamDef needs a definition: null is none"))
        return false;
    for (u32 i = 0; i < def->m_StreamDef.Count(); ++i)
    {
        const bool isStored = def->m_StreamDef[i].m_StorageSize != 0;
        TZ_ASSERT_MESSAGE(isStored, "field %u is a constant: bind the definition with its constant data and slot table",
                          i);
        if (!isStored)
            return false;
    }
    // Each field's slot is INVALID: the stride is 0.
    const TStridedMemoryView<const CGuid> slots(&CGuid::INVALID, def->m_StreamDef.Count(), 0);
    BindStreamDef(def, TMemoryView<const S64Bytes>(), slots, SParticleImplementationCache());
    return true;
}

void CParticleStream_MainMemory::_RebuildPages_NoLock(const SRebuild &rebuild)
{
    const u32 oldPCount = m_ParticleCount.Load();
    u32 newPCount = 0;
    for (u32 i = 0; i < m_Pages.Count();)
    {
        const u32 particleCount = _RebuildPage_NoLock(i, rebuild);
        newPCount += particleCount;
        i += particleCount != 0 ? 1 : 0;
    }
    TZ_ASSERT(m_ParticleCount.Load() == oldPCount);
    m_ParticleCount.Store(newPCount);
}

// Replaces the page at index i by one of the same capacity in the new layout, and returns its particle count. Returns 0
// when the page is empty or its replacement refused: then it is removed, and the last page moves to i.
u32 CParticleStream_MainMemory::_RebuildPage_NoLock(u32 i, const SRebuild &rebuild)
{
    const PParticlePage page = m_Pages.RawDataPointer()[i];
    const bool mayReport = rebuild.m_MayReport || !page->_HasFieldsOf(*page->m_StreamDef); // a host changed its fields
    const u32 particleCount = page->ParticleCount();
    const u32 oldCount = m_Pages.Count();
    PParticlePage newPage;
    if (particleCount != 0)
    {
        const u32 pageSize = page->Capacity();
        const u32 pageSizeInBytes = _ComputePageSizeInBytes(pageSize, m_StreamDef);
        // The particles' rows are written below: filling them before as well would be a second pass.
        newPage = _AllocNewPage_NoLock(pageSize, pageSizeInBytes, false, mayReport ? 0 : particleCount);
    }
    TZ_ASSERT(oldCount == m_Pages.Count());
    CPageListIndex::Detach(*page);
    if (newPage == null)
    {
        m_Pages.Remove(i);
        return 0;
    }
    TZ_ASSERT(newPage->Capacity() == page->Capacity());
    m_Pages.RawDataPointer()[i] = newPage;
    Threads::StoreShared(newPage->m_ParticleCount, particleCount);
    newPage->_PoisonFreeSlots();
    const TMemoryView<SParticleStreamField> dstStreams = newPage->StreamsForWriting();
    const TMemoryView<const SParticleStreamField> srcStreams = page->Streams();
    const bool isSorted = !mayReport && dstStreams.Count() <= kMaxDstStreams;
    for (u32 k = 0; k < dstStreams.Count(); ++k)
    {
        const u32 j = isSorted ? rebuild.m_Order[k] : k;
        SParticleStreamField &dst = dstStreams.Data()[j];
        dst.m_ParticleCount = particleCount;
        const u32 mapping = j < kMaxDstStreams ? rebuild.m_StreamRemap[j] : kNoMapping;
        const bool isMapped = mapping != kNoMapping && mapping - kFirstMapping < srcStreams.Count();
        if (dst.IsConstant())
            _RebindConstantField(j, dst);
        else
            FillColumn(dst, isMapped ? srcStreams.Data() + (mapping - kFirstMapping) : null);
    }
    return particleCount;
}

void CParticleStream_MainMemory::_RebindConstantField(u32 streamId, SParticleStreamField &field) const
{
    const CGuid cstId = _ConstantSlot(streamId);
    if (TZ_VERIFY(cstId.Valid() && cstId < m_ConstantData.Count()))
        field.m_RawDataPtr = _ConstantBlock(cstId);
}

// Whether a constant field of the bound definition has no block. Reports nothing.
bool CParticleStream_MainMemory::_HasBadConstantField() const
{
    const TMemoryView<const SParticleStreamFieldDef> fields = m_StreamDef->m_StreamDef.View();
    const SStridedMemoryViewRawStorage &slots = m_ConstantDataFieldSlot.m_Storage;
    for (u32 i = 0; i < fields.Count(); ++i)
    {
        if (fields.Data()[i].m_StorageSize == 0 &&
            (slots.m_RawDataPtr == null || i >= slots.m_Count || m_ConstantData.Data() == null ||
             _ConstantSlot(i) >= m_ConstantData.Count()))
            return true;
    }
    return false;
}

} // namespace Tessaly
