// Save.
#include "sn_checksum.h"
#include "sn_hdf5.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace Tessaly::Snapshot
{

namespace
{

// The state of a stream at one moment. Its pages have readers, so that nobody changes them, until it is destroyed.
struct SFrozenStream : public CNonCopyable
{
    struct SPage
    {
        PParticlePage m_Page;
        CScopedRawPageReader m_Reader;
        u32 m_ParticleCount;
    };

    ~SFrozenStream();

    bool Take(const CParticleStream_MainMemory &stream, CReason &reason);
    bool TakeConstants(const CParticleStream_MainMemory &stream, CReason &reason);
    SPage *Pages() const { return reinterpret_cast<SPage *>(m_PageBytes.Data()); }

    SParticleStreamDef m_Def;
    TArray<S64Bytes> m_Constants; // by field; zero for a field without one
    CBytes m_PageBytes;
    u32 m_PageCount = 0;
    u32 m_PageSize = 0;
    u32 m_ParticleCount = 0;
};

SFrozenStream::~SFrozenStream()
{
    for (u32 i = 0; i < m_PageCount; ++i)
        Pages()[i].~SPage();
}

bool SFrozenStream::Take(const CParticleStream_MainMemory &stream, CReason &reason)
{
    const CScopedPagesLock lock(stream);
    const SParticleStreamDef *def = stream.GetStreamDef();
    if (def == null)
        return reason.Set("the stream has no definition");
    if (!m_Def.Copy(*def))
        return reason.Set("memory for the definition is refused");
    const u32 pageCount = stream.PageCount();
    if (!TakeConstants(stream, reason) || !m_PageBytes.Alloc(u64(pageCount) * sizeof(SPage) + 1, reason))
        return false;
    m_PageSize = stream.PageSize();
    for (u32 i = 0; i < pageCount; ++i)
    {
        const PParticlePage &page = stream._UnsafePage(CGuid(i));
        const u32 particleCount = page->ParticleCount();
        if (particleCount != 0)
            ::new (Pages() + m_PageCount++) SPage{page, CScopedRawPageReader(page->RawPage()), particleCount};
        m_ParticleCount += particleCount;
    }
    return true;
}

bool SFrozenStream::TakeConstants(const CParticleStream_MainMemory &stream, CReason &reason)
{
    const u32 fieldCount = m_Def.m_StreamDef.Count();
    const TMemoryView<const S64Bytes> constants = stream.ConstantData();
    const TStridedMemoryView<const CGuid> slots = stream.ConstantDataFieldSlot();
    if (!m_Constants.Reserve(fieldCount))
        return reason.Set("memory for the constants is refused");
    for (u32 i = 0; i < fieldCount; ++i)
    {
        const CGuid slot = i < slots.Count() ? slots[i] : CGuid::INVALID;
        m_Constants.PushBackUnsafe(slot < constants.Count() ? constants[slot] : S64Bytes{});
    }
    return true;
}

bool WriteAttribute(hid_t object, const char *name, hid_t type, hsize_t count, const void *value)
{
    const CSpace space(count == 1 ? H5Screate(H5S_SCALAR) : H5Screate_simple(1, &count, null));
    const CAttribute attribute(H5Acreate2(object, name, type, space.Id(), H5P_DEFAULT, H5P_DEFAULT));
    return attribute.IsValid() && H5Awrite(attribute.Id(), type, value) >= 0;
}

bool WriteNumber(hid_t object, const char *name, u32 value)
{
    return WriteAttribute(object, name, H5T_STD_U32LE, 1, &value);
}

bool WriteText(hid_t object, const char *name, const char *text)
{
    const CType type(H5Tcopy(H5T_C_S1));
    return H5Tset_size(type.Id(), std::strlen(text)) >= 0 && H5Tset_strpad(type.Id(), H5T_STR_NULLPAD) >= 0 &&
           H5Tset_cset(type.Id(), H5T_CSET_UTF8) >= 0 && WriteAttribute(object, name, type.Id(), 1, text);
}

// Writes a frozen stream to a file.
class CSnapshotWriter final : public CSnapshotFile
{
public:
    CSnapshotWriter(const SFrozenStream &stream, CDiskFile &disk, const SSaveOptions &options, CReason &reason)
        : CSnapshotFile(disk, {options.m_Progress, options.m_ProgressData}, reason)
        , m_Stream(stream)
        , m_DeflateLevel(options.m_DeflateLevel)
    {
        m_ParticleCount = stream.m_ParticleCount;
    }

    bool Write();

private:
    bool _MakeBuffers();
    bool _CreateFile();
    bool _CreateFields();
    bool _WriteFieldAttributes(hid_t object, u32 field);
    bool _WriteName(hid_t object, CStringId name);
    bool _CreateDataset(const SPart &part);

    SColumn _Column(u32 page, u32 field) const override
    {
        const SFrozenStream::SPage &frozen = m_Stream.Pages()[page];
        return {frozen.m_Page->Streams().Data()[field].m_RawDataPtr, frozen.m_ParticleCount};
    }
    bool _TransferChunk(hid_t dataset, const SPart &part, u32 firstParticle, u32 count, SPlace &place) override;

    const SFrozenStream &m_Stream;
    const u32 m_DeflateLevel;
    ureg m_MaxDeflatedBytes = 0; // of a chunk; 0: chunks are not deflated
};

bool CSnapshotWriter::Write()
{
    const SParticleStreamDef &def = m_Stream.m_Def;
    for (u32 i = 0; i < def.m_StreamDef.Count(); ++i)
    {
        const EBaseTypeID type = def.m_StreamDef.RawDataPointer()[i].m_Type;
        if (type < BaseType_Evolved || type >= __MaxBaseTypes)
            return m_Reason.Set("field %u: %d is no type", i, int(type));
    }
    if (m_DeflateLevel > 9)
        return m_Reason.Set("%u is no level of deflate: 0 to 9 are", m_DeflateLevel);
    if (!_MakeParts(def) || !_MakeBuffers())
        return false;

    const bool isWritten = _CreateFile() && _CreateFields() && _TransferChunks();
    if (!isWritten)
        m_Disk.Abandon();
    const bool isClosed = m_File.Close();
    if (m_Disk.Error() != 0 || (isWritten && !m_Disk.Sync()))
        return m_Reason.Set("%s", std::strerror(m_Disk.Error()));
    return (isWritten && isClosed) || (!m_IsCancelled && m_Reason.Set("HDF5 can not write the file"));
}

bool CSnapshotWriter::_MakeBuffers()
{
    const u32 largestPart = TZMax(m_LargestPartBytes, 1u);
    m_ChunkParticleCount = TZMin(TZMin(m_Stream.m_PageSize, kMaxChunkBytes / largestPart), m_ParticleCount);
    const u32 chunkBytes = m_ChunkParticleCount * largestPart;
    m_MaxDeflatedBytes = m_DeflateLevel != 0 ? compressBound(chunkBytes) : 0;
    return m_Chunk.Alloc(chunkBytes + kChecksumBytes, m_Reason) &&
           (m_MaxDeflatedBytes == 0 || m_DeflatedChunk.Alloc(m_MaxDeflatedBytes + kChecksumBytes, m_Reason));
}

bool CSnapshotWriter::_CreateFile()
{
    const CProperties access(H5Pcreate(H5P_FILE_ACCESS)), creation(H5Pcreate(H5P_GROUP_CREATE));
    if (!m_Disk.Configure(access.Id()) || !m_File.Take(H5Fcreate("snapshot", H5F_ACC_TRUNC, H5P_DEFAULT, access.Id())))
        return false;
    const u64 particleCount = m_ParticleCount;
    bool hasPadding = false;
    for (const SPart &part : m_Parts.View())
        hasPadding |= part.m_IsPadding;
    const auto createGroup = [&](const char *name)
    { return CGroup(H5Gcreate2(m_File.Id(), name, H5P_DEFAULT, creation.Id(), H5P_DEFAULT)).IsValid(); };
    return H5Pset_link_creation_order(creation.Id(), H5P_CRT_ORDER_TRACKED | H5P_CRT_ORDER_INDEXED) >= 0 &&
           WriteText(m_File.Id(), "format", kFormat) && WriteNumber(m_File.Id(), "version", kVersion) &&
           WriteAttribute(m_File.Id(), "particles", H5T_STD_U64LE, 1, &particleCount) &&
           WriteNumber(m_File.Id(), "page_size", m_Stream.m_PageSize) &&
           WriteNumber(m_File.Id(), "fields", m_Stream.m_Def.m_StreamDef.Count()) && createGroup("fields") &&
           (!hasPadding || createGroup("padding"));
}

bool CSnapshotWriter::_CreateFields()
{
    const TMemoryView<const SParticleStreamFieldDef> fields = m_Stream.m_Def.m_StreamDef.View();
    const SPart *part = m_Parts.RawDataPointer();
    for (u32 i = 0; i < fields.Count(); ++i)
    {
        const SFieldPath path(i);
        if (fields[i].m_StorageSize == 0)
            CGroup(H5Gcreate2(m_File.Id(), path.m_Text, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
        for (; part != m_Parts._RawEnd() && part->m_Field == i; ++part)
        {
            if (!_CreateDataset(*part))
                return false;
        }
        const CObject object(H5Oopen(m_File.Id(), path.m_Text, H5P_DEFAULT));
        if (!object.IsValid() || !_WriteFieldAttributes(object.Id(), i))
            return false;
    }
    return true;
}

bool CSnapshotWriter::_WriteFieldAttributes(hid_t object, u32 field)
{
    const SParticleStreamFieldDef &def = m_Stream.m_Def.m_StreamDef.RawDataPointer()[field];
    const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(def.m_Type);
    if (!WriteNumber(object, "id", def.m_NameGUID.m_Id) || !WriteText(object, "type", traits.Name) ||
        !WriteNumber(object, "storage_size", def.m_StorageSize) || !_WriteName(object, def.m_NameGUID))
        return false;
    if (def.m_StorageSize != 0)
        return true;
    // The whole block is written as bytes when there is more in it than a value.
    const S64Bytes &block = m_Stream.m_Constants.RawDataPointer()[field];
    const u8 *bytes = reinterpret_cast<const u8 *>(&block);
    u32 usedBytes = sizeof(block);
    while (usedBytes != 0 && bytes[usedBytes - 1] == 0)
        --usedBytes;
    const bool isValue = traits.Size != 0 && usedBytes <= traits.Size;
    return WriteAttribute(object, "value", isValue ? ComponentType(def.m_Type) : H5T_STD_U8LE,
                          isValue ? traits.VectorDimension : sizeof(block), &block);
}

// Writes the name as an attribute, and as a link in the root group if it can be one and is not taken.
bool CSnapshotWriter::_WriteName(hid_t object, CStringId name)
{
    const char *text = name.Text();
    if (text == null || text[0] == 0 || std::strlen(text) >= kMaxTextBytes)
        return true;
    if (!WriteText(object, "name", text))
        return false;
    if (std::strchr(text, '/') == null && std::strcmp(text, ".") != 0 && H5Lexists(m_File.Id(), text, H5P_DEFAULT) == 0)
        return H5Olink(object, m_File.Id(), text, H5P_DEFAULT, H5P_DEFAULT) >= 0;
    return true;
}

bool CSnapshotWriter::_CreateDataset(const SPart &part)
{
    const hsize_t size[2] = {m_ParticleCount, part.m_ComponentCount};
    const hsize_t chunk[2] = {m_ChunkParticleCount, part.m_ComponentCount};
    const CSpace space(H5Screate_simple(2, size, null));
    const CProperties creation(H5Pcreate(H5P_DATASET_CREATE));
    if (H5Pset_fill_time(creation.Id(), H5D_FILL_TIME_NEVER) < 0 ||
        H5Pset_attr_phase_change(creation.Id(), 16, 0) < 0 || H5Pset_obj_track_times(creation.Id(), false) < 0)
        return false;
    if (m_ChunkParticleCount != 0 && (H5Pset_chunk(creation.Id(), 2, chunk) < 0 ||
                                      (m_DeflateLevel != 0 && H5Pset_deflate(creation.Id(), m_DeflateLevel) < 0) ||
                                      H5Pset_fletcher32(creation.Id()) < 0))
        return false;
    return CDataset(H5Dcreate2(m_File.Id(), part.Path().m_Text, part.m_Type, space.Id(), H5P_DEFAULT, creation.Id(),
                               H5P_DEFAULT))
        .IsValid();
}

// Applies the filters itself and writes the result: HDF5 would copy the chunk between them.
bool CSnapshotWriter::_TransferChunk(hid_t dataset, const SPart &part, u32 firstParticle, u32 count, SPlace &place)
{
    const ureg byteCount = ureg(m_ChunkParticleCount) * part.m_ByteCount, usedBytes = ureg(count) * part.m_ByteCount;
    u8 *chunk = m_Chunk.Data();
    _Copy(part, count, place, chunk, false);
    std::memset(chunk + usedBytes, 0, byteCount - usedBytes);

    ureg writtenBytes = byteCount;
    u32 mask = 0;
    if (m_DeflateLevel != 0)
    {
        uLongf deflatedBytes = m_MaxDeflatedBytes;
        if (compress2(m_DeflatedChunk.Data(), &deflatedBytes, chunk, byteCount, int(m_DeflateLevel)) != Z_OK)
            return m_Reason.Set("memory for deflate is refused");
        mask = deflatedBytes < byteCount ? 0 : kDeflateSkipped;
        if (mask == 0)
        {
            chunk = m_DeflatedChunk.Data();
            writtenBytes = deflatedBytes;
        }
    }
    const u32 checksum = Fletcher32(chunk, writtenBytes);
    std::memcpy(chunk + writtenBytes, &checksum, kChecksumBytes);
    const hsize_t offset[2] = {firstParticle, 0};
    return H5Dwrite_chunk(dataset, H5P_DEFAULT, mask, offset, writtenBytes + kChecksumBytes, chunk) >= 0;
}

// Flushes the folder of a file to the disk, so that a rename in it is permanent. Truncates path to the folder's path.
bool SyncFolderOf(char *path, CReason &reason)
{
    char *slash = std::strrchr(path, '/');
    if (slash == null)
        std::strcpy(path, ".");
    else
        slash[slash == path ? 1 : 0] = 0;
    const int descriptor = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool isSynced = descriptor >= 0 && (::fsync(descriptor) == 0 || errno == EINVAL); // not supported there
    if (!isSynced)
        reason.Set("%s: %s", path, std::strerror(errno));
    if (descriptor >= 0)
        ::close(descriptor);
    return isSynced;
}

// Save. False without a reason when the callback cancelled.
bool SaveTo(const CParticleStream_MainMemory &stream, const char *path, const SSaveOptions &options, CReason &reason)
{
    SFrozenStream frozen;
    CBytes partPath;
    const ureg length = std::strlen(path);
    if (length == 0)
        return reason.Set("%s", std::strerror(ENOENT));
    struct stat status = {};
    if (::stat(path, &status) == 0 && !S_ISREG(status.st_mode))
        return reason.Set("%s", S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "not a regular file");
    if (!partPath.Alloc(length + 6, reason) || !frozen.Take(stream, reason))
        return false;
    char *part = reinterpret_cast<char *>(partPath.Data());
    std::snprintf(part, length + 6, "%s.part", path);

    const CHdf5Session session;
    CDiskFile disk;
    if (!disk.OpenToWrite(part, reason))
        return false;
    CSnapshotWriter writer(frozen, disk, options, reason);
    if (!writer.Write() || (std::rename(part, path) != 0 && !reason.Set("%s", std::strerror(errno))))
    {
        ::unlink(part);
        return false;
    }
    return SyncFolderOf(part, reason);
}

} // namespace

bool Save(const CParticleStream_MainMemory &stream, const char *path, const SSaveOptions &options)
{
    CReason reason;
    const bool isSaved = SaveTo(stream, path, options, reason);
    TZ_ASSERT_TEXT_MESSAGE("the snapshot is saved", reason.Empty(), "%s: %s", path, reason.Text());
    return isSaved;
}

} // namespace Tessaly::Snapshot
