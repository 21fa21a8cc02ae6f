// Load.
#include "sn_checksum.h"
#include "sn_hdf5.h"

#include <tz_snapshot/include/sn_snapshot.h>

#include <cstdio>
#include <cstring>
#include <zlib.h>

namespace Tessaly
{
namespace Snapshot
{

// A file's definition with all that belongs to it, at an address that stays.
struct SLoadedDefinition::SContents
{
    SParticleStreamDef m_Def;
    TArray<S64Bytes> m_Constants;
    TArray<CGuid> m_Slots; // one a field

    TMemoryView<const S64Bytes> ConstantData() const { return m_Constants.View(); }
    TStridedMemoryView<const CGuid> Slots() const { return {m_Slots.RawDataPointer(), m_Slots.Count()}; }
};

const SParticleStreamDef *SLoadedDefinition::Def() const { return m_Contents != null ? &m_Contents->m_Def : null; }

TMemoryView<const S64Bytes> SLoadedDefinition::ConstantData() const
{
    return m_Contents != null ? m_Contents->ConstantData() : TMemoryView<const S64Bytes>();
}

TStridedMemoryView<const CGuid> SLoadedDefinition::ConstantDataFieldSlot() const
{
    return m_Contents != null ? m_Contents->Slots() : TStridedMemoryView<const CGuid>();
}

void SLoadedDefinition::_Take(SContents *contents)
{
    _Release();
    m_Contents = contents;
}

void SLoadedDefinition::_Release()
{
    Mem::Delete(TZ_CALL_SITE, m_Contents);
    m_Contents = null;
}

namespace
{

constexpr u64 kMaxDeflateRatio = 1032;

// A file of a snapshot, read and checked bit by bit.
class CSnapshotReader : public CNonCopyable
{
public:
    CSnapshotReader(CDiskFile &disk, const SLoadOptions &options, CReason &reason)
        : m_Disk(disk)
        , m_Options(options)
        , m_Reason(reason)
    {
    }

    bool Open();
    bool ReadDefinition(SLoadedDefinition::SContents &outContents);
    // Fills an empty stream, which is bound to the definition that was read.
    bool ReadParticles(CParticleStream_MainMemory &stream);
    // Registers the fields' names that nobody registered yet.
    void RegisterNames(const SParticleStreamDef &def) const;

    u32 ParticleCount() const { return m_ParticleCount; }
    u32 PageSize() const { return m_PageSize; }

private:
    // A place among the particles of the stream.
    struct SPlace
    {
        u32 m_Page = 0, m_Row = 0;
    };

    bool _ReadField(u32 field, SLoadedDefinition::SContents &outContents);
    bool _ReadConstant(hid_t object, u32 field, EBaseTypeID type, S64Bytes &outBlock);
    bool _OpenParts(u32 firstPart, u32 partCount, CDataset *outDatasets);
    bool _CheckDataset(hid_t dataset, SPart &part);
    bool _CheckChunks(hid_t dataset, SPart &part);
    bool _ReadParts(u32 firstPart, u32 partCount, CParticleStream_MainMemory &stream);
    bool _AppendPages(CParticleStream_MainMemory &stream, u32 count);
    const u8 *_ReadChunk(hid_t dataset, const SPart &part, u32 firstParticle);
    static void _Scatter(const u8 *in, const SPart &part, u32 count, SPlace &place,
                         const CParticleStream_MainMemory &stream);

    CDiskFile &m_Disk;
    const SLoadOptions &m_Options;
    CReason &m_Reason;
    CFile m_File;
    CGroup m_Fields;
    TArray<SPart> m_Parts;
    u32 m_ParticleCount = 0, m_PageSize = 0, m_FieldCount = 0;
    u32 m_ChunkParticleCount = 0;  // the same in all datasets
    CBytes m_StoredChunk, m_Chunk; // as in the file; unpacked, where it is packed there
};

// Reads an attribute that is of exactly this type and number of elements.
bool ReadAttribute(hid_t object, const char *name, hid_t type, hsize_t count, void *out)
{
    const CAttribute attribute(H5Aopen(object, name, H5P_DEFAULT));
    if (!attribute.IsValid())
        return false;
    const CType fileType(H5Aget_type(attribute.Id()));
    const CSpace space(H5Aget_space(attribute.Id()));
    return fileType.IsValid() && H5Tequal(fileType.Id(), type) > 0 &&
           H5Sget_simple_extent_npoints(space.Id()) == hssize_t(count) && H5Aread(attribute.Id(), type, out) >= 0;
}

bool ReadNumber(hid_t object, const char *name, u32 &outValue)
{
    return ReadAttribute(object, name, H5T_STD_U32LE, 1, &outValue);
}

// Reads a text of less than kMaxTextBytes bytes.
bool ReadText(hid_t object, const char *name, char (&out)[kMaxTextBytes])
{
    const CAttribute attribute(H5Aopen(object, name, H5P_DEFAULT));
    if (!attribute.IsValid())
        return false;
    const CType type(H5Aget_type(attribute.Id()));
    const CSpace space(H5Aget_space(attribute.Id()));
    const ureg byteCount = H5Tget_size(type.Id());
    if (H5Tget_class(type.Id()) != H5T_STRING || H5Tis_variable_str(type.Id()) != 0 || byteCount >= kMaxTextBytes ||
        H5Sget_simple_extent_npoints(space.Id()) != 1)
        return false;
    out[byteCount] = 0;
    return H5Aread(attribute.Id(), type.Id(), out) >= 0;
}

// The type of that name, __MaxBaseTypes when there is none.
EBaseTypeID FindType(const char *name)
{
    for (int type = BaseType_Evolved; type < __MaxBaseTypes; ++type)
    {
        if (std::strcmp(CBaseTypeTraits::Traits(EBaseTypeID(type)).Name, name) == 0)
            return EBaseTypeID(type);
    }
    return __MaxBaseTypes;
}

// Links that lead out of the group, or out of the file, are not followed.
bool IsHardLink(hid_t group, const char *name)
{
    H5L_info_t info;
    return H5Lget_info(group, name, &info, H5P_DEFAULT) >= 0 && info.type == H5L_TYPE_HARD;
}

bool CSnapshotReader::Open()
{
    // Older headers have no checksums: what is wrong in them, HDF5 does not notice.
    static const u8 kSignature[] = {0x89, 'H', 'D', 'F', '\r', '\n', 0x1A, '\n'};
    u8 head[sizeof(kSignature) + 1];
    if (!m_Disk.Read(0, head, sizeof(head)) || std::memcmp(head, kSignature, sizeof(kSignature)) != 0)
        return m_Reason.Set("not an HDF5 file");
    if (head[sizeof(kSignature)] < 2)
        return m_Reason.Set("an HDF5 file without checksums in its headers");
    const CProperties access(m_Disk.MakeAccess());
    if (!access.IsValid() || !m_File.Take(H5Fopen("snapshot", H5F_ACC_RDONLY, access.Id())))
        return m_Reason.Set("a damaged HDF5 file");

    char format[kMaxTextBytes];
    u32 version = 0;
    u64 particleCount = 0;
    if (!ReadText(m_File.Id(), "format", format) || std::strcmp(format, kFormat) != 0)
        return m_Reason.Set("not a file of particles");
    if (!ReadNumber(m_File.Id(), "version", version) || version != kVersion)
        return m_Reason.Set("version %u of the format, %u is known", version, kVersion);
    if (!ReadAttribute(m_File.Id(), "particles", H5T_STD_U64LE, 1, &particleCount) ||
        !ReadNumber(m_File.Id(), "page_size", m_PageSize) || !ReadNumber(m_File.Id(), "fields", m_FieldCount) ||
        !IsHardLink(m_File.Id(), "fields") || !m_Fields.Take(H5Gopen2(m_File.Id(), "fields", H5P_DEFAULT)))
        return m_Reason.Set("the numbers of particles, fields and particles a page are missing or damaged");
    if (particleCount > TNumericTraits<u32>::kMax)
        return m_Reason.Set("%s particles, a stream holds 4,294,967,295", SNumberText(particleCount).m_Text);
    if (m_PageSize == 0)
        return m_Reason.Set("0 particles a page");
    m_ParticleCount = u32(particleCount);
    return true;
}

bool CSnapshotReader::ReadDefinition(SLoadedDefinition::SContents &outContents)
{
    for (u32 i = 0; i < m_FieldCount; ++i)
    {
        if (!_ReadField(i, outContents))
            return m_Reason.Set("field %u is missing or damaged", i);
    }
    if (!CheckParticleSize(outContents.m_Def, m_Reason) || !AppendParts(outContents.m_Def, m_Parts, m_Reason))
        return false;
    if (m_Parts.Empty() && m_ParticleCount != 0)
        return m_Reason.Set("%s particles without a stored field", SNumberText(m_ParticleCount).m_Text);
    for (u32 i = 0; i < m_Parts.Count(); ++i)
    {
        CDataset dataset;
        if (!_OpenParts(i, 1, &dataset) || !_CheckDataset(dataset.Id(), m_Parts.RawDataPointer()[i]))
            return false;
    }
    return true;
}

bool CSnapshotReader::_ReadField(u32 field, SLoadedDefinition::SContents &outContents)
{
    const SFieldName name(field);
    if (!IsHardLink(m_Fields.Id(), name.m_Text))
        return m_Reason.Set("field %u is missing", field);
    const CObject object(H5Oopen(m_Fields.Id(), name.m_Text, H5P_DEFAULT));
    char typeName[kMaxTextBytes];
    u32 id = 0, storageSize = 0;
    if (!object.IsValid() || !ReadNumber(object.Id(), "id", id) || !ReadText(object.Id(), "type", typeName) ||
        !ReadNumber(object.Id(), "storage_size", storageSize))
        return m_Reason.Set("field %u: id, type or storage size is missing or damaged", field);
    const EBaseTypeID type = FindType(typeName);
    if (type == __MaxBaseTypes)
        return m_Reason.Set("field %u: there is no type %s", field, typeName);
    CGuid slot = CGuid::INVALID;
    if (storageSize == 0)
    {
        S64Bytes block = {};
        if (!_ReadConstant(object.Id(), field, type, block))
            return false;
        slot = outContents.m_Constants.PushBack(block);
        if (!slot.Valid())
            return m_Reason.Set("memory for field %u is refused", field);
    }
    return (outContents.m_Def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId(id), type, storageSize)).Valid() &&
            outContents.m_Slots.PushBack(slot).Valid()) ||
           m_Reason.Set("memory for field %u is refused", field);
}

bool CSnapshotReader::_ReadConstant(hid_t object, u32 field, EBaseTypeID type, S64Bytes &outBlock)
{
    const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(type);
    return (traits.Size != 0 &&
            ReadAttribute(object, "value", ComponentType(type), traits.VectorDimension, &outBlock)) ||
           ReadAttribute(object, "value", H5T_STD_U8LE, sizeof(outBlock), &outBlock) ||
           m_Reason.Set("field %u: its value is missing or damaged", field);
}

bool CSnapshotReader::_OpenParts(u32 firstPart, u32 partCount, CDataset *outDatasets)
{
    const CProperties access(H5Pcreate(H5P_DATASET_ACCESS));
    if (H5Pset_chunk_cache(access.Id(), 1, 0, 1) < 0)
        return m_Reason.Set("memory for HDF5 is refused");
    for (u32 i = 0; i < partCount; ++i)
    {
        const SPart &part = m_Parts.RawDataPointer()[firstPart + i];
        const SFieldName name(part.m_Field);
        CGroup group;
        if (!IsHardLink(m_File.Id(), part.GroupName()) ||
            !group.Take(H5Gopen2(m_File.Id(), part.GroupName(), H5P_DEFAULT)) || !IsHardLink(group.Id(), name.m_Text) ||
            !outDatasets[i].Take(H5Dopen2(group.Id(), name.m_Text, access.Id())))
            return m_Reason.Set("field %u: the dataset in %s is missing or damaged", part.m_Field, part.GroupName());
    }
    return true;
}

bool CSnapshotReader::_CheckDataset(hid_t dataset, SPart &part)
{
    const CSpace space(H5Dget_space(dataset));
    const CType type(H5Dget_type(dataset));
    hsize_t size[2] = {};
    if (H5Sget_simple_extent_ndims(space.Id()) != 2 || H5Sget_simple_extent_dims(space.Id(), size, null) != 2)
        return m_Reason.Set("field %u: its dataset is no table of particles x components", part.m_Field);
    if (size[0] != m_ParticleCount)
        return m_Reason.Set("field %u: %s values for %s particles", part.m_Field, SNumberText(size[0]).m_Text,
                            SNumberText(m_ParticleCount).m_Text);
    if (size[1] != part.m_ComponentCount)
        return m_Reason.Set("field %u: %s components, %u needed", part.m_Field, SNumberText(size[1]).m_Text,
                            part.m_ComponentCount);
    if (!type.IsValid() || H5Tequal(type.Id(), part.m_Type) <= 0)
        return m_Reason.Set("field %u: its values are of another kind than its type", part.m_Field);
    return m_ParticleCount == 0 || _CheckChunks(dataset, part);
}

// What the dataset claims to have must be in the file, in chunks that fit in memory, behind no filters but ours.
bool CSnapshotReader::_CheckChunks(hid_t dataset, SPart &part)
{
    const CProperties creation(H5Dget_create_plist(dataset));
    hsize_t chunk[2] = {};
    if (H5Pget_layout(creation.Id()) != H5D_CHUNKED || H5Pget_chunk(creation.Id(), 2, chunk) != 2 ||
        chunk[1] != part.m_ComponentCount || chunk[0] == 0 || chunk[0] > m_ParticleCount ||
        chunk[0] > kMaxChunkBytes / part.m_ByteCount || (m_ChunkParticleCount != 0 && chunk[0] != m_ChunkParticleCount))
        return m_Reason.Set("field %u: chunks of %s x %s values", part.m_Field, SNumberText(chunk[0]).m_Text,
                            SNumberText(chunk[1]).m_Text);
    m_ChunkParticleCount = u32(chunk[0]);

    const int filterCount = H5Pget_nfilters(creation.Id());
    H5Z_filter_t filters[2] = {};
    for (int i = 0; i < filterCount && i < 2; ++i)
    {
        unsigned flags = 0, config = 0;
        size_t valueCount = 0;
        filters[i] = H5Pget_filter2(creation.Id(), unsigned(i), &flags, &valueCount, null, 0, null, &config);
    }
    part.m_IsDeflated = filterCount == 2 && filters[0] == H5Z_FILTER_DEFLATE;
    if (!(filterCount == 1 || part.m_IsDeflated) || filters[filterCount - 1] != H5Z_FILTER_FLETCHER32)
        return m_Reason.Set("field %u: its filters are not Fletcher-32 alone or behind deflate", part.m_Field);

    const u64 storedBytes = H5Dget_storage_size(dataset), byteCount = u64(m_ParticleCount) * part.m_ByteCount;
    if (storedBytes > m_Disk.Size() || byteCount > storedBytes * (part.m_IsDeflated ? kMaxDeflateRatio : 1))
        return m_Reason.Set("field %u: %s bytes in the file for %s particles", part.m_Field,
                            SNumberText(storedBytes).m_Text, SNumberText(m_ParticleCount).m_Text);
    return true;
}

bool CSnapshotReader::ReadParticles(CParticleStream_MainMemory &stream)
{
    u32 largestPart = 0;
    for (const SPart &part : m_Parts.View())
        largestPart = TZMax(largestPart, part.m_ByteCount);
    const u64 chunkBytes = u64(m_ChunkParticleCount) * largestPart + kChecksumBytes;
    if (m_ParticleCount != 0 && (!m_Chunk.Alloc(chunkBytes, m_Reason) || !m_StoredChunk.Alloc(chunkBytes, m_Reason)))
        return false;
    for (u32 i = 0; i < m_Parts.Count(); i += kMaxOpenParts)
    {
        if (!_ReadParts(i, TZMin(kMaxOpenParts, m_Parts.Count() - i), stream))
            return false;
    }
    return true;
}

// Reads the parts' chunks side by side, page after page, as they were written. Pages are made for what was read.
bool CSnapshotReader::_ReadParts(u32 firstPart, u32 partCount, CParticleStream_MainMemory &stream)
{
    CDataset datasets[kMaxOpenParts];
    if (!_OpenParts(firstPart, partCount, datasets))
        return false;
    const SProgress progress = {m_Options.m_Progress, m_Options.m_ProgressData, m_ParticleCount};
    SPlace place;
    for (u32 done = 0; done < m_ParticleCount;)
    {
        const u32 count = TZMin(m_ChunkParticleCount, m_ParticleCount - done);
        SPlace nextPlace;
        for (u32 i = 0; i < partCount; ++i)
        {
            const SPart &part = m_Parts.RawDataPointer()[firstPart + i];
            const u8 *values = _ReadChunk(datasets[i].Id(), part, done);
            if (values == null)
                return m_Reason.Set("field %u: the values from particle %s on are missing or damaged", part.m_Field,
                                    SNumberText(done).m_Text);
            if (stream.ParticleCount() < done + count && !_AppendPages(stream, done + count - stream.ParticleCount()))
                return false;
            nextPlace = place;
            _Scatter(values, part, count, nextPlace, stream);
        }
        place = nextPlace;
        done += count;
        if (!progress.Tell((firstPart * u64(m_ParticleCount) + partCount * u64(done)) / m_Parts.Count()))
            return false;
    }
    return true;
}

// Appends so many particles, whose values are still to be written.
bool CSnapshotReader::_AppendPages(CParticleStream_MainMemory &stream, u32 count)
{
    const CScopedPagesLock lock(stream);
    while (count != 0)
    {
        const u32 pageCount = stream.PageCount();
        PParticlePage page = pageCount != 0 ? stream._UnsafePage(CGuid(pageCount - 1)) : PParticlePage();
        if (page == null || page->Full())
            page = stream.AllocNewPage_NoLock(true);
        if (page == null)
            return m_Reason.Set("memory for %s particles is refused", SNumberText(m_ParticleCount).m_Text);
        const u32 bornCount = TZMin(count, page->FreeCount());
        page->AllocateParticles(bornCount);
        stream.RegisterBornCount_NoConsistencyCheck(bornCount);
        count -= bornCount;
    }
    return true;
}

// Reads one chunk and tests its checksum. Returns its values, or null.
const u8 *CSnapshotReader::_ReadChunk(hid_t dataset, const SPart &part, u32 firstParticle)
{
    const ureg byteCount = ureg(m_ChunkParticleCount) * part.m_ByteCount;
    const hsize_t offset[2] = {firstParticle, 0};
    const u8 *stored = m_StoredChunk.Data();
    hsize_t storedBytes = 0;
    u32 mask = 0, checksum = 0;
    if (H5Dget_chunk_storage_size(dataset, offset, &storedBytes) < 0 || storedBytes < kChecksumBytes ||
        storedBytes > byteCount + kChecksumBytes ||
        H5Dread_chunk(dataset, H5P_DEFAULT, offset, &mask, m_StoredChunk.Data()) < 0)
        return null;
    const ureg packedBytes = ureg(storedBytes) - kChecksumBytes;
    std::memcpy(&checksum, stored + packedBytes, kChecksumBytes);
    if (checksum != Fletcher32(stored, packedBytes) || mask > (part.m_IsDeflated ? kDeflateSkipped : 0))
        return null;
    if (!part.m_IsDeflated || mask != 0)
        return packedBytes == byteCount ? stored : null;
    uLongf unpackedBytes = byteCount;
    const bool isUnpacked = uncompress(m_Chunk.Data(), &unpackedBytes, stored, packedBytes) == Z_OK;
    return isUnpacked && unpackedBytes == byteCount ? m_Chunk.Data() : null;
}

void CSnapshotReader::_Scatter(const u8 *in, const SPart &part, u32 count, SPlace &place,
                               const CParticleStream_MainMemory &stream)
{
    while (count != 0)
    {
        CParticlePage &page = *stream._UnsafePage(CGuid(place.m_Page));
        const u32 rowCount = TZMin(count, page.ParticleCount() - place.m_Row);
        const ureg stride = part.m_StorageSize, byteCount = part.m_ByteCount;
        u8 *column = page.StreamsForWriting().Data()[part.m_Field].m_RawDataPtr;
        u8 *value = column + place.m_Row * stride + part.m_Offset;
        if (stride == byteCount)
            std::memcpy(value, in, rowCount * byteCount);
        else
        {
            for (u32 row = 0; row < rowCount; ++row)
                std::memcpy(value + row * stride, in + row * byteCount, byteCount);
        }
        in += rowCount * byteCount;
        count -= rowCount;
        place.m_Row += rowCount;
        if (place.m_Row == page.Capacity())
            place = {place.m_Page + 1, 0};
    }
}

void CSnapshotReader::RegisterNames(const SParticleStreamDef &def) const
{
    char text[kMaxTextBytes];
    for (u32 i = 0; i < def.m_StreamDef.Count(); ++i)
    {
        const CStringId name = def.m_StreamDef.RawDataPointer()[i].m_NameGUID;
        const CObject object(H5Oopen(m_Fields.Id(), SFieldName(i).m_Text, H5P_DEFAULT));
        if (name.Text() == null && ReadText(object.Id(), "name", text) &&
            CStringId::FromText(text, kMaxTextBytes) == name)
            CStringId::Register(text);
    }
}

// Loads into a stream of its own, which changes places with the caller's at the end.
bool LoadFrom(const char *path, SLoadedDefinition::SContents &contents, CParticleStream_MainMemory &stream,
              const SLoadOptions &options, CReason &reason)
{
    const CHdf5Session session;
    CDiskFile disk;
    if (!disk.OpenToRead(path, reason))
        return false;
    CSnapshotReader reader(disk, options, reason);
    if (!reader.Open() || !reader.ReadDefinition(contents))
        return false;

    const SParticleStreamDef *def = stream.GetStreamDef();
    const SParticleImplementationCache cache;
    CParticleStream_MainMemory loaded(def == null ? reader.PageSize() : stream.PageSize());
    if (def != null && contents.m_Def == *def)
        loaded.BindStreamDef(def, stream.ConstantData(), stream.ConstantDataFieldSlot(), cache);
    else
        loaded.BindStreamDef(&contents.m_Def, contents.ConstantData(), contents.Slots(), cache);
    if (!reader.ReadParticles(loaded))
        return false;
    if (def != null)
    {
        loaded.BindStreamDef(def, stream.ConstantData(), stream.ConstantDataFieldSlot(), cache);
        loaded.SetPageSize(stream.PageSize());
        if (loaded.ParticleCount() != reader.ParticleCount())
            return reason.Set("memory to convert %s particles is refused", SNumberText(reader.ParticleCount()).m_Text);
    }
    else
    {
        stream.SetPageSize(loaded.PageSize());
        stream.BindStreamDef(&contents.m_Def, contents.ConstantData(), contents.Slots(), cache);
    }
    stream.Swap(loaded);
    reader.RegisterNames(contents.m_Def);
    return true;
}

} // namespace

bool Load(const char *path, SLoadedDefinition &outDefinition, CParticleStream_MainMemory &stream,
          const SLoadOptions &options)
{
    CReason reason;
    SLoadedDefinition::SContents *contents = Mem::New<SLoadedDefinition::SContents>(TZ_CALL_SITE);
    const bool isBoundToIt = stream.GetStreamDef() != null && stream.GetStreamDef() == outDefinition.Def();
    const bool isLoaded = contents != null ? LoadFrom(path, *contents, stream, options, reason)
                                           : reason.Set("memory for the definition is refused");
    if (isLoaded && !isBoundToIt)
        outDefinition._Take(contents);
    else
        Mem::Delete(TZ_CALL_SITE, contents);
    if (!isLoaded)
        TZ_ASSERT_TEXT_MESSAGE("the snapshot is loaded", reason.Empty(), "%s: %s", path, reason.Text());
    return isLoaded;
}

} // namespace Snapshot
} // namespace Tessaly
