// Binding a definition, and moving a living stream to another one.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <cstring>

#include <tz_kernel/include/kr_mem_utils.h>

#include "storage_ram_convert.h"

namespace Tessaly
{

namespace
{

constexpr u8 kNoMapping = 0;    // in a remap table: the new field takes nothing from the old definition
constexpr u8 kFirstMapping = 1; // plus the old field's index: it takes that field's values
constexpr u32 kMaxDstStreams = 256;
constexpr u32 kMaxSrcStreams = 255; // so that every mapping fits a u8

// For each new field the first old one of the same name. An empty name matches the empty name.
void MapFieldsByName(const TArray<SParticleStreamFieldDef> &dstDefinition,
                     const TArray<SParticleStreamFieldDef> &srcDefinition, u8 *streamRemap)
{
    const TMemoryView<const SParticleStreamFieldDef> dst = dstDefinition.View();
    const TMemoryView<const SParticleStreamFieldDef> src = srcDefinition.View();
    const u32 dstCount = TZMin(dst.Count(), kMaxDstStreams);
    const u32 srcCount = TZMin(src.Count(), kMaxSrcStreams);
    for (u32 i = 0; i < dstCount; ++i)
    {
        for (u32 j = 0; j < srcCount; ++j)
        {
            if (dst.Data()[i].m_NameGUID == src.Data()[j].m_NameGUID)
            {
                streamRemap[i] = checked_numcast<u8>(j + kFirstMapping);
                break;
            }
        }
    }
}

// The columns of a page that are copied as they are, sorted by source address: the prefetcher follows a block that is
// read in the order of its addresses. The order of the destinations matters little: their block is the one that the
// page before has left, and still in the cache.
class CColumnCopies
{
public:
    void Add(u8 *dst, const u8 *src, u32 bytes)
    {
        u32 place = m_Count++;
        for (; place > m_DoneCount && m_Copies[place - 1].m_Src > src; --place)
            m_Copies[place] = m_Copies[place - 1];
        m_Copies[place] = {dst, src, bytes};
    }
    // Those that are read before the byte at end.
    void RunUpTo(const u8 *end)
    {
        for (; m_DoneCount < m_Count && m_Copies[m_DoneCount].m_Src < end; ++m_DoneCount)
            Mem::Copy(m_Copies[m_DoneCount].m_Dst, m_Copies[m_DoneCount].m_Src, m_Copies[m_DoneCount].m_Bytes);
    }
    void RunAll()
    {
        if (m_Count != 0)
            RunUpTo(m_Copies[m_Count - 1].m_Src + 1);
    }

private:
    struct SCopy
    {
        u8 *m_Dst;
        const u8 *m_Src;
        u32 m_Bytes;
    };

    SCopy m_Copies[kMaxDstStreams]; // the first m_Count
    u32 m_Count = 0;
    u32 m_DoneCount = 0;
};

// Fills the particles' rows of a new stored field from its old namesake, or leaves that to copies.
void TakeOverField(const SParticleStreamField &src, const SParticleStreamField &dst, const CBaseTypeTraits &tDst,
                   u32 particleCount, CColumnCopies &copies)
{
    const u32 dstCoveredBytes = dst.m_Definition.m_StorageSize * particleCount;
    const CBaseTypeTraits &tSrc = CBaseTypeTraits::Traits(src.m_Definition.m_Type);
    if (src.m_RawDataPtr == null) // an old constant without data
        return Mem::Clear(dst.m_RawDataPtr, dstCoveredBytes);
    if (src.m_Definition.m_StorageSize == dst.m_Definition.m_StorageSize && tSrc.IsFp == tDst.IsFp)
        return copies.Add(dst.m_RawDataPtr, src.m_RawDataPtr, dstCoveredBytes);
    copies.RunUpTo(src.m_RawDataPtr);
    ConvertField(src, dst, particleCount);
}

bool HasBadType(const SParticleStreamDef &def)
{
    for (const SParticleStreamFieldDef &field : def.m_StreamDef.View())
    {
        if (field.m_Type < BaseType_Evolved || field.m_Type >= __MaxBaseTypes)
            return true;
    }
    return false;
}

} // namespace

struct CParticleStream_MainMemory::SRebuild
{
    u8 m_StreamRemap[kMaxDstStreams];
    bool m_KeepContents;
    bool m_Reports; // a field is bad: a handler will look at the page in the midst
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
    std::memset(rebuild.m_StreamRemap, kNoMapping, sizeof(rebuild.m_StreamRemap));
    rebuild.m_KeepContents = m_StreamDef != null && !m_Pages.Empty();
    rebuild.m_Reports = HasBadType(*def);
    if (rebuild.m_KeepContents)
    {
        MapFieldsByName(def->m_StreamDef, m_StreamDef->m_StreamDef, rebuild.m_StreamRemap);
        rebuild.m_Reports |= HasBadType(*m_StreamDef);
    }
    m_PageSizeInBytes = _ComputePageSizeInBytes(m_PageSize, def);
    TZ_ASSERT(m_PageSizeInBytes != 0 || def->Empty());
    Threads::StoreShared<__ATOMIC_RELEASE>(m_StreamDef, def);
    rebuild.m_Reports |= _HasBadConstantField();
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
    // A slot for each field, and none of them a constant's.
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

// Replaces the page at index i by one of the same capacity in the new layout, and returns its particles. An empty page,
// or one whose replacement was refused, leaves the list instead (the last page moves to i), and 0 is returned.
u32 CParticleStream_MainMemory::_RebuildPage_NoLock(u32 i, const SRebuild &rebuild)
{
    const u32 particleCount = m_Pages.RawDataPointer()[i].Get()->ParticleCount();
    const PParticlePage page = m_Pages.RawDataPointer()[i];
    const u32 oldCount = m_Pages.Count();
    PParticlePage newPage;
    if (particleCount != 0)
    {
        const u32 pageSize = page->Capacity();
        const u32 pageSizeInBytes = _ComputePageSizeInBytes(pageSize, m_StreamDef);
        // Unless somebody will look, the particles' rows are written below, each byte once.
        newPage = _AllocNewPage_NoLock(pageSize, pageSizeInBytes, false, rebuild.m_Reports ? 0 : particleCount);
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
    CColumnCopies copies;
    for (u32 j = 0; j < dstStreams.Count(); ++j)
    {
        SParticleStreamField &dst = dstStreams.Data()[j];
        dst.m_ParticleCount = particleCount;
        if (dst.IsConstant())
        {
            _RebindConstantField(j, dst);
            continue;
        }
        const CBaseTypeTraits &tDst = CBaseTypeTraits::Traits(dst.m_Definition.m_Type);
        const u32 dstCoveredBytes = dst.m_Definition.m_StorageSize * particleCount;
        TZ_ASSERT(dstCoveredBytes != 0);
        const u32 mapping = rebuild.m_KeepContents && j < kMaxDstStreams ? rebuild.m_StreamRemap[j] : kNoMapping;
        if (mapping != kNoMapping && mapping - kFirstMapping < srcStreams.Count())
            TakeOverField(srcStreams.Data()[mapping - kFirstMapping], dst, tDst, particleCount, copies);
        else
            Mem::Clear(dst.m_RawDataPtr, dstCoveredBytes);
        if (rebuild.m_Reports)
            copies.RunAll();
    }
    copies.RunAll();
    return particleCount;
}

void CParticleStream_MainMemory::_RebindConstantField(u32 streamId, SParticleStreamField &field) const
{
    const CGuid cstId = _ConstantSlot(streamId);
    if (TZ_VERIFY(cstId.Valid() && cstId < m_ConstantData.Count()))
        field.m_RawDataPtr = _ConstantBlock(cstId);
}

// A constant field of the bound definition has no block. Reports nothing.
bool CParticleStream_MainMemory::_HasBadConstantField() const
{
    const TMemoryView<const SParticleStreamFieldDef> fields = m_StreamDef->m_StreamDef.View();
    const SStridedMemoryViewRawStorage &slots = m_ConstantDataFieldSlot.m_Storage;
    bool isBad = false;
    for (u32 i = 0; i < fields.Count() && !isBad; ++i)
    {
        if (fields.Data()[i].m_StorageSize == 0)
            isBad = slots.m_RawDataPtr == null || i >= slots.m_Count || m_ConstantData.Data() == null ||
                    _ConstantSlot(i) >= m_ConstantData.Count();
    }
    return isBad;
}

} // namespace Tessaly
