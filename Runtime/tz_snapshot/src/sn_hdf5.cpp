#include "sn_hdf5.h"

#include <cstdio>
#include <cstring>

#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

namespace Tessaly::Snapshot
{

namespace
{

Threads::CCriticalSection &Mutex()
{
    static Threads::CCriticalSection mutex;
    return mutex;
}

void CopyRows(u8 *out, ureg outStride, const u8 *in, ureg inStride, ureg byteCount, u32 rowCount)
{
    if (outStride == byteCount && inStride == byteCount)
    {
        std::memcpy(out, in, rowCount * byteCount);
        return;
    }
    for (u32 row = 0; row < rowCount; ++row)
        std::memcpy(out + row * outStride, in + row * inStride, byteCount);
}

} // namespace

CHdf5Session::CHdf5Session()
{
    Mutex().Lock();
    H5Eget_auto2(H5E_DEFAULT, &m_Print, &m_PrintData);
    H5Eset_auto2(H5E_DEFAULT, null, null);
}

CHdf5Session::~CHdf5Session()
{
    H5Eset_auto2(H5E_DEFAULT, m_Print, m_PrintData);
    Mutex().Unlock();
}

hid_t ComponentType(EBaseTypeID type)
{
    const CBaseTypeTraits &component = CBaseTypeTraits::Traits(CBaseTypeTraits::Traits(type).ScalarType);
    if (component.IsFp)
        return component.Size == sizeof(double) ? H5T_IEEE_F64LE : H5T_IEEE_F32LE;
    const hid_t unsignedTypes[] = {H5T_STD_U8LE, H5T_STD_U16LE, H5T_STD_U32LE, H5T_STD_U64LE};
    const hid_t signedTypes[] = {H5T_STD_I8LE, H5T_STD_I16LE, H5T_STD_I32LE, H5T_STD_I64LE};
    const u32 index = component.Size != 0 ? IntegerTools::Log2(component.Size) : 0;
    return component.IsSigned ? signedTypes[index] : unsignedTypes[index];
}

SFieldPath::SFieldPath(u32 field, bool isPadding)
{
    std::snprintf(m_Text, sizeof(m_Text), "%s/%u", isPadding ? "padding" : "fields", field);
}

CSnapshotFile::CSnapshotFile(CDiskFile &disk, const SLoadOptions &options, CReason &reason)
    : m_Disk(disk)
    , m_Options(options)
    , m_Reason(reason)
    , m_DatasetAccess(H5Pcreate(H5P_DATASET_ACCESS))
{
    H5Pset_chunk_cache(m_DatasetAccess.Id(), 1, 0, 1); // chunks are not cached
}

bool CSnapshotFile::_MakeParts(const SParticleStreamDef &def)
{
    u64 particleBytes = 0;
    for (const SParticleStreamFieldDef &field : def.m_StreamDef.View())
        particleBytes += Mem::Align<16>(u64(field.m_StorageSize));
    if (particleBytes > CParticlePageAllocator::kMaxAllocSize)
        return m_Reason.Set("a page can not hold a particle of %s bytes", SNumberText(particleBytes).m_Text);
    for (u32 i = 0; i < def.m_StreamDef.Count(); ++i)
    {
        const SParticleStreamFieldDef &field = def.m_StreamDef.RawDataPointer()[i];
        const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(field.m_Type);
        const bool hasValue = traits.Size != 0 && traits.Size <= field.m_StorageSize;
        const u32 valueBytes = hasValue ? traits.Size : 0, restBytes = field.m_StorageSize - valueBytes;
        const SPart value = {
            i, false, 0, valueBytes, traits.VectorDimension, field.m_StorageSize, ComponentType(field.m_Type), false};
        const SPart rest = {i, hasValue, valueBytes, restBytes, restBytes, field.m_StorageSize, H5T_STD_U8LE, false};
        m_LargestPartBytes = TZMax(m_LargestPartBytes, TZMax(valueBytes, restBytes));
        if ((hasValue && !m_Parts.PushBack(value).Valid()) || (restBytes != 0 && !m_Parts.PushBack(rest).Valid()))
            return m_Reason.Set("memory for %s fields is refused", SNumberText(m_Parts.Count() + 1).m_Text);
    }
    if (m_Parts.Empty() && m_ParticleCount != 0)
        return m_Reason.Set("%s particles without a stored field", SNumberText(m_ParticleCount).m_Text);
    return true;
}

bool CSnapshotFile::_Open(const SPart &part, CDataset &outDataset) const
{
    return outDataset.Take(H5Dopen2(m_File.Id(), part.Path().m_Text, m_DatasetAccess.Id()));
}

bool CSnapshotFile::_TransferChunks()
{
    bool isDone = true;
    for (u32 i = 0; i < m_Parts.Count() && isDone; i += kMaxOpenParts)
        isDone = _TransferParts(i, TZMin(kMaxOpenParts, m_Parts.Count() - i));
    return isDone;
}

bool CSnapshotFile::_TransferParts(u32 firstPart, u32 partCount)
{
    const SPart *parts = m_Parts.RawDataPointer() + firstPart;
    CDataset datasets[kMaxOpenParts];
    for (u32 i = 0; i < partCount; ++i)
    {
        if (!_Open(parts[i], datasets[i]))
            return false;
    }
    SPlace place;
    for (u32 done = 0; done < m_ParticleCount;)
    {
        const u32 count = TZMin(m_ChunkParticleCount, m_ParticleCount - done);
        SPlace nextPlace;
        for (u32 i = 0; i < partCount; ++i)
        {
            nextPlace = place;
            if (!_TransferChunk(datasets[i].Id(), parts[i], done, count, nextPlace))
                return false;
        }
        place = nextPlace;
        done += count;
        const u64 allDone = (firstPart * u64(m_ParticleCount) + partCount * u64(done)) / m_Parts.Count();
        m_IsCancelled = m_Options.m_Progress != null &&
                        !m_Options.m_Progress(u32(allDone), m_ParticleCount, m_Options.m_ProgressData);
        if (m_IsCancelled || m_Disk.Error() != 0)
            return false;
    }
    return true;
}

void CSnapshotFile::_Copy(const SPart &part, u32 count, SPlace &place, u8 *chunk, bool isToPages) const
{
    const ureg stride = part.m_StorageSize, byteCount = part.m_ByteCount;
    while (count != 0)
    {
        const SColumn column = _Column(place.m_Page, part.m_Field);
        const u32 rowCount = TZMin(count, column.m_RowCount - place.m_Row);
        u8 *values = column.m_Data + place.m_Row * stride + part.m_Offset;
        if (isToPages)
            CopyRows(values, stride, chunk, byteCount, byteCount, rowCount);
        else
            CopyRows(chunk, byteCount, values, stride, byteCount, rowCount);
        chunk += rowCount * byteCount;
        count -= rowCount;
        place.m_Row += rowCount;
        if (count != 0)
            place = {place.m_Page + 1, 0};
    }
}

} // namespace Tessaly::Snapshot
