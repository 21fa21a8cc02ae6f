// Load.
#include "sn_checksum.h"
#include "sn_hdf5.h"

#include <cstring>
#include <zlib.h>

namespace Tessaly::Snapshot
{

// The definition of a file with its constant data. Its address does not change.
struct SLoadedDefinition::SContents
{
    SParticleStreamDef m_Def;
    TArray<S64Bytes> m_Constants;
    TArray<CGuid> m_Slots; // by field
};

const SParticleStreamDef *SLoadedDefinition::Def() const { return m_Contents != null ? &m_Contents->m_Def : null; }

TMemoryView<const S64Bytes> SLoadedDefinition::ConstantData() const
{
    return m_Contents != null ? m_Contents->m_Constants.View() : TMemoryView<const S64Bytes>();
}

TStridedMemoryView<const CGuid> SLoadedDefinition::ConstantDataFieldSlot() const
{
    return m_Contents != null ? m_Contents->m_Slots.View() : TMemoryView<const CGuid>();
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

// Reads a snapshot file and checks all of it.
class CSnapshotReader final : public CSnapshotFile
{
public:
    CSnapshotReader(CDiskFile &disk, const SLoadOptions &options, CReason &reason)
        : CSnapshotFile(disk, options, reason)
    {
    }

    bool Open();
    bool ReadDefinition(SLoadedDefinition::SContents &outContents);
    // Fills an empty stream, which is bound to the definition that was read.
    bool ReadParticles(CParticleStream_MainMemory &stream);
    // Registers the names of the fields that have no registered name yet.
    void RegisterNames(const SParticleStreamDef &def) const;

    u32 ParticleCount() const { return m_ParticleCount; }
    u32 PageSize() const { return m_PageSize; }

private:
    bool _ReadField(u32 field, SLoadedDefinition::SContents &outContents);
    bool _ReadConstant(hid_t object, u32 field, EBaseTypeID type, S64Bytes &outBlock);
    bool _CheckPart(SPart &part);
    bool _CheckChunks(hid_t dataset, SPart &part);
    bool _AppendParticles(u32 count);
    u8 *_ReadChunk(hid_t dataset, const SPart &part, u32 firstParticle);

    SColumn _Column(u32 page, u32 field) const override
    {
        CParticlePage &filled = *m_Stream->_UnsafePage(CGuid(page));
        return {filled.StreamsForWriting().Data()[field].m_RawDataPtr, filled.ParticleCount()};
    }
    bool _TransferChunk(hid_t dataset, const SPart &part, u32 firstParticle, u32 count, SPlace &place) override;

    CParticleStream_MainMemory *m_Stream = null; // the one that is filled
    u32 m_PageSize = 0, m_FieldCount = 0;
};

// Reads an attribute. False when it has another type or another number of elements.
bool ReadAttribute(hid_t object, const char *name, hid_t type, hsize_t count, void *out)
{
    const CAttribute attribute(H5Aopen(object, name, H5P_DEFAULT));
    const CType fileType(H5Aget_type(attribute.Id()));
    const CSpace space(H5Aget_space(attribute.Id()));
    return fileType.IsValid() && H5Tequal(fileType.Id(), type) > 0 &&
           H5Sget_simple_extent_npoints(space.Id()) == hssize_t(count) && H5Aread(attribute.Id(), type, out) >= 0;
}

bool ReadNumber(hid_t object, const char *name, u32 &outValue)
{
    return ReadAttribute(object, name, H5T_STD_U32LE, 1, &outValue);
}

// Reads a text. False when it has kMaxTextBytes bytes or more.
bool ReadText(hid_t object, const char *name, char (&out)[kMaxTextBytes])
{
    const CAttribute attribute(H5Aopen(object, name, H5P_DEFAULT));
    const CType type(H5Aget_type(attribute.Id()));
    const CSpace space(H5Aget_space(attribute.Id()));
    const ureg byteCount = H5Tget_size(type.Id());
    if (H5Tget_class(type.Id()) != H5T_STRING || H5Tis_variable_str(type.Id()) != 0 || byteCount >= kMaxTextBytes ||
        H5Sget_simple_extent_npoints(space.Id()) != 1)
        return false;
    out[byteCount] = 0;
    return H5Aread(attribute.Id(), type.Id(), out) >= 0;
}

// The type with this name; __MaxBaseTypes when there is none.
EBaseTypeID FindType(const char *name)
{
    for (const CBaseTypeTraits &traits : CBaseTypeTraits::m_BaseTypeTraits)
    {
        if (std::strcmp(traits.Name, name) == 0)
            return traits.Self;
    }
    return __MaxBaseTypes;
}

// Other links may lead to other objects or other files: they are not followed.
bool IsHardLink(hid_t group, const char *name)
{
    H5L_info_t info;
    return H5Lget_info(group, name, &info, H5P_DEFAULT) >= 0 && info.type == H5L_TYPE_HARD;
}

bool CSnapshotReader::Open()
{
    // Superblocks before version 2 have no checksum: HDF5 would not detect damage in them.
    static const u8 kSignature[] = {0x89, 'H', 'D', 'F', '\r', '\n', 0x1A, '\n'};
    u8 head[sizeof(kSignature) + 1];
    if (!m_Disk.Read(0, head, sizeof(head)) || std::memcmp(head, kSignature, sizeof(kSignature)) != 0)
        return m_Reason.Set("not an HDF5 file");
    if (head[sizeof(kSignature)] < 2)
        return m_Reason.Set("an HDF5 file without checksums in its headers");
    const CProperties access(H5Pcreate(H5P_FILE_ACCESS));
    if (!m_Disk.Configure(access.Id()) || !m_File.Take(H5Fopen("snapshot", H5F_ACC_RDONLY, access.Id())))
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
        !IsHardLink(m_File.Id(), "fields") || !CGroup(H5Gopen2(m_File.Id(), "fields", H5P_DEFAULT)).IsValid())
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
    bool isSound = _MakeParts(outContents.m_Def);
    for (u32 i = 0; i < m_Parts.Count() && isSound; ++i)
        isSound = _CheckPart(m_Parts.RawDataPointer()[i]);
    return isSound;
}

bool CSnapshotReader::_ReadField(u32 field, SLoadedDefinition::SContents &outContents)
{
    const SFieldPath path(field);
    if (!IsHardLink(m_File.Id(), path.m_Text))
        return m_Reason.Set("field %u is missing", field);
    const CObject object(H5Oopen(m_File.Id(), path.m_Text, H5P_DEFAULT));
    char typeName[kMaxTextBytes];
    u32 id = 0, storageSize = 0;
    if (!object.IsValid() || !ReadNumber(object.Id(), "id", id) || !ReadText(object.Id(), "type", typeName) ||
        !ReadNumber(object.Id(), "storage_size", storageSize))
        return m_Reason.Set("field %u: id, type or storage size is missing or damaged", field);
    const EBaseTypeID type = FindType(typeName);
    if (type == __MaxBaseTypes)
        return m_Reason.Set("field %u: there is no type %s", field, typeName);
    S64Bytes block = {};
    if (storageSize == 0 && !_ReadConstant(object.Id(), field, type, block))
        return false;
    const CGuid slot = storageSize == 0 ? outContents.m_Constants.PushBack(block) : CGuid::INVALID;
    return (slot.Valid() == (storageSize == 0) &&
            outContents.m_Def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId(id), type, storageSize)).Valid() &&
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

bool CSnapshotReader::_CheckPart(SPart &part)
{
    CDataset dataset;
    if (!IsHardLink(m_File.Id(), part.GroupName()) || !IsHardLink(m_File.Id(), part.Path().m_Text) ||
        !_Open(part, dataset))
        return m_Reason.Set("field %u: the dataset in %s is missing or damaged", part.m_Field, part.GroupName());
    const CSpace space(H5Dget_space(dataset.Id()));
    const CType type(H5Dget_type(dataset.Id()));
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
    return m_ParticleCount == 0 || _CheckChunks(dataset.Id(), part);
}

// Checks that the chunks have a size of Save's and no other filters, and that the file has as many bytes as they need.
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
        filters[i] = H5Pget_filter2(creation.Id(), unsigned(i), null, null, null, 0, null, null);
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
    m_Stream = &stream;
    const u64 chunkBytes = u64(m_ChunkParticleCount) * m_LargestPartBytes + kChecksumBytes;
    if (m_ParticleCount != 0 && (!m_Chunk.Alloc(chunkBytes, m_Reason) || !m_DeflatedChunk.Alloc(chunkBytes, m_Reason)))
        return false;
    return _TransferChunks() || (!m_IsCancelled && m_Reason.Set("a damaged HDF5 file"));
}

// Pages are made only for chunks that were read.
bool CSnapshotReader::_TransferChunk(hid_t dataset, const SPart &part, u32 firstParticle, u32 count, SPlace &place)
{
    u8 *values = _ReadChunk(dataset, part, firstParticle);
    if (values == null)
        return m_Reason.Set("field %u: the values from particle %s on are missing or damaged", part.m_Field,
                            SNumberText(firstParticle).m_Text);
    const u32 endParticle = firstParticle + count;
    if (m_Stream->ParticleCount() < endParticle && !_AppendParticles(endParticle - m_Stream->ParticleCount()))
        return false;
    _Copy(part, count, place, values, true);
    return true;
}

// Appends count particles, whose values are not written yet.
bool CSnapshotReader::_AppendParticles(u32 count)
{
    const CScopedPagesLock lock(*m_Stream);
    while (count != 0)
    {
        const u32 pageCount = m_Stream->PageCount();
        PParticlePage page = pageCount != 0 ? m_Stream->_UnsafePage(CGuid(pageCount - 1)) : PParticlePage();
        if (page == null || page->Full())
            page = m_Stream->AllocNewPage_NoLock(true);
        if (page == null)
            return m_Reason.Set("memory for %s particles is refused", SNumberText(m_ParticleCount).m_Text);
        const u32 bornCount = TZMin(count, page->FreeCount());
        page->AllocateParticles(bornCount);
        m_Stream->RegisterBornCount_NoConsistencyCheck(bornCount);
        count -= bornCount;
    }
    return true;
}

// Reads a chunk and checks its checksum. Returns its values, null when it is damaged.
u8 *CSnapshotReader::_ReadChunk(hid_t dataset, const SPart &part, u32 firstParticle)
{
    const ureg byteCount = ureg(m_ChunkParticleCount) * part.m_ByteCount;
    const hsize_t offset[2] = {firstParticle, 0};
    u8 *stored = m_DeflatedChunk.Data();
    hsize_t storedBytes = 0;
    u32 mask = 0, checksum = 0;
    if (H5Dget_chunk_storage_size(dataset, offset, &storedBytes) < 0 || storedBytes < kChecksumBytes ||
        storedBytes > byteCount + kChecksumBytes || H5Dread_chunk(dataset, H5P_DEFAULT, offset, &mask, stored) < 0)
        return null;
    const ureg deflatedBytes = ureg(storedBytes) - kChecksumBytes;
    std::memcpy(&checksum, stored + deflatedBytes, kChecksumBytes);
    if (checksum != Fletcher32(stored, deflatedBytes) || mask > (part.m_IsDeflated ? kDeflateSkipped : 0))
        return null;
    if (!part.m_IsDeflated || mask != 0)
        return deflatedBytes == byteCount ? stored : null;
    uLongf inflatedBytes = byteCount;
    const bool isInflated = uncompress(m_Chunk.Data(), &inflatedBytes, stored, deflatedBytes) == Z_OK;
    return isInflated && inflatedBytes == byteCount ? m_Chunk.Data() : null;
}

void CSnapshotReader::RegisterNames(const SParticleStreamDef &def) const
{
    char text[kMaxTextBytes];
    for (u32 i = 0; i < def.m_StreamDef.Count(); ++i)
    {
        const CStringId name = def.m_StreamDef.RawDataPointer()[i].m_NameGUID;
        const CObject object(H5Oopen(m_File.Id(), SFieldPath(i).m_Text, H5P_DEFAULT));
        if (name.Text() == null && ReadText(object.Id(), "name", text) &&
            CStringId::FromText(text, kMaxTextBytes) == name)
            CStringId::Register(text);
    }
}

// Loads into a stream of its own and swaps it with the caller's at the end.
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
        loaded.BindStreamDef(&contents.m_Def, contents.m_Constants.View(), contents.m_Slots.View(), cache);
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
        stream.BindStreamDef(&contents.m_Def, contents.m_Constants.View(), contents.m_Slots.View(), cache);
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
    TZ_ASSERT_TEXT_MESSAGE("the snapshot is loaded", reason.Empty(), "%s: %s", path, reason.Text());
    return isLoaded;
}

} // namespace Tessaly::Snapshot
