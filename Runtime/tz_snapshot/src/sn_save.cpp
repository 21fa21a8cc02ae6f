// Save.
#include "sn_checksum.h"
#include "sn_hdf5.h"

#include <tz_snapshot/include/sn_snapshot.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace Tessaly
{
namespace Snapshot
{

namespace
{

// A stream as it was at one moment: its settings, and its pages, which nobody writes to meanwhile.
class CFrozenStream : public CNonCopyable
{
public:
    ~CFrozenStream();

    bool Take(const CParticleStream_MainMemory &stream, CReason &reason);

    const SParticleStreamDef &Def() const { return m_Def; }
    const S64Bytes &Constant(u32 field) const { return m_Constants.RawDataPointer()[field]; } // of a constant field
    u32 PageSize() const { return m_PageSize; }
    u32 ParticleCount() const { return m_ParticleCount; }

    // A place among the particles.
    struct SPlace
    {
        u32 m_Page = 0, m_Row = 0;
    };
    // Copies so many particles' bytes of a part, from place on, which is left behind them.
    void Gather(const SPart &part, u32 count, SPlace &place, u8 *out) const;

private:
    struct SPage
    {
        PParticlePage m_Page;
        CScopedRawPageReader m_Reader;
        u32 m_ParticleCount;

        explicit SPage(const PParticlePage &page)
            : m_Page(page)
            , m_Reader(page->RawPage())
            , m_ParticleCount(page->ParticleCount())
        {
        }
    };

    bool _TakeConstants(const CParticleStream_MainMemory &stream, CReason &reason);
    SPage *_Pages() const { return reinterpret_cast<SPage *>(m_PageBytes.Data()); }

    SParticleStreamDef m_Def;
    TArray<S64Bytes> m_Constants; // one a field; zero where there is none
    CBytes m_PageBytes;
    u32 m_PageCount = 0;
    u32 m_PageSize = 0;
    u32 m_ParticleCount = 0;
};

CFrozenStream::~CFrozenStream()
{
    for (u32 i = 0; i < m_PageCount; ++i)
        _Pages()[i].~SPage();
}

bool CFrozenStream::Take(const CParticleStream_MainMemory &stream, CReason &reason)
{
    const CScopedPagesLock lock(stream);
    const SParticleStreamDef *def = stream.GetStreamDef();
    if (def == null)
        return reason.Set("the stream has no definition");
    if (!m_Def.Copy(*def))
        return reason.Set("memory for the definition is refused");
    const u32 pageCount = stream.PageCount();
    if (!_TakeConstants(stream, reason) || !m_PageBytes.Alloc(u64(pageCount) * sizeof(SPage) + 1, reason))
        return false;
    m_PageSize = stream.PageSize();
    for (u32 i = 0; i < pageCount; ++i)
    {
        const PParticlePage &page = stream._UnsafePage(CGuid(i));
        if (page->Empty())
            continue;
        m_ParticleCount += Mem::Construct<SPage>(_Pages() + m_PageCount, page)->m_ParticleCount;
        ++m_PageCount;
    }
    return true;
}

bool CFrozenStream::_TakeConstants(const CParticleStream_MainMemory &stream, CReason &reason)
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

void CFrozenStream::Gather(const SPart &part, u32 count, SPlace &place, u8 *out) const
{
    while (count != 0)
    {
        const SPage &page = _Pages()[place.m_Page];
        const u32 rowCount = TZMin(count, page.m_ParticleCount - place.m_Row);
        const ureg stride = part.m_StorageSize, byteCount = part.m_ByteCount;
        const u8 *column = page.m_Page->Streams().Data()[part.m_Field].m_RawDataPtr;
        const u8 *value = column + place.m_Row * stride + part.m_Offset;
        if (stride == byteCount)
            std::memcpy(out, value, rowCount * byteCount);
        else
        {
            for (u32 row = 0; row < rowCount; ++row)
                std::memcpy(out + row * byteCount, value + row * stride, byteCount);
        }
        out += rowCount * byteCount;
        count -= rowCount;
        place.m_Row += rowCount;
        if (place.m_Row == page.m_ParticleCount)
            place = {place.m_Page + 1, 0};
    }
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

// A file of the state that was taken.
class CSnapshotWriter : public CNonCopyable
{
public:
    CSnapshotWriter(const CFrozenStream &stream, CDiskFile &disk, const SSaveOptions &options, CReason &reason)
        : m_Stream(stream)
        , m_Disk(disk)
        , m_Options(options)
        , m_Reason(reason)
    {
    }

    bool Write();

private:
    bool _CreateFile();
    bool _CreateFields();
    bool _WriteFieldAttributes(hid_t object, u32 field);
    bool _WriteName(hid_t object, CStringId name);
    hid_t _CreateDataset(const SPart &part);
    bool _WriteParts(u32 firstPart, u32 partCount);
    bool _WriteChunk(hid_t dataset, const SPart &part, u32 firstParticle, CFrozenStream::SPlace &place);

    const CFrozenStream &m_Stream;
    CDiskFile &m_Disk;
    const SSaveOptions &m_Options;
    CReason &m_Reason;
    CFile m_File;
    CGroup m_Fields, m_Padding;
    TArray<SPart> m_Parts;
    u32 m_ChunkParticleCount = 0;
    CBytes m_Chunk, m_Deflated;
    ureg m_DeflatedBytes = 0; // at most
    bool m_WasEnded = false;
};

bool CSnapshotWriter::Write()
{
    const SParticleStreamDef &def = m_Stream.Def();
    for (u32 i = 0; i < def.m_StreamDef.Count(); ++i)
    {
        const EBaseTypeID type = def.m_StreamDef.RawDataPointer()[i].m_Type;
        if (!IsBaseType(type))
            return m_Reason.Set("field %u: %d is no type", i, int(type));
    }
    if (m_Options.m_DeflateLevel > 9)
        return m_Reason.Set("%u is no level of deflate: 0 to 9 are", m_Options.m_DeflateLevel);
    if (!CheckParticleSize(def, m_Reason) || !AppendParts(def, m_Parts, m_Reason))
        return false;
    if (m_Parts.Empty() && m_Stream.ParticleCount() != 0)
        return m_Reason.Set("%s particles without a stored field", SNumberText(m_Stream.ParticleCount()).m_Text);

    u32 largestPart = 1;
    for (const SPart &part : m_Parts.View())
        largestPart = TZMax(largestPart, part.m_ByteCount);
    m_ChunkParticleCount = TZMin(TZMin(m_Stream.PageSize(), kMaxChunkBytes / largestPart), m_Stream.ParticleCount());
    const u32 chunkBytes = m_ChunkParticleCount * largestPart;
    m_DeflatedBytes = m_Options.m_DeflateLevel != 0 ? compressBound(chunkBytes) : 0;
    if (!m_Chunk.Alloc(chunkBytes + kChecksumBytes, m_Reason) ||
        (m_DeflatedBytes != 0 && !m_Deflated.Alloc(m_DeflatedBytes + kChecksumBytes, m_Reason)))
        return false;

    bool isWritten = _CreateFile() && _CreateFields();
    for (u32 i = 0; i < m_Parts.Count() && isWritten; i += kMaxOpenParts)
        isWritten = _WriteParts(i, TZMin(kMaxOpenParts, m_Parts.Count() - i));
    if (!isWritten)
        m_Disk.Abandon();
    m_Fields.Close();
    m_Padding.Close();
    const bool isClosed = m_File.Close();
    if (m_Disk.Error() != 0 || (isWritten && !m_Disk.Sync()))
        return m_Reason.Set("%s", std::strerror(m_Disk.Error()));
    return (isWritten && isClosed) || (!m_WasEnded && m_Reason.Set("HDF5 can not write the file"));
}

bool CSnapshotWriter::_CreateFile()
{
    const CProperties access(m_Disk.MakeAccess()), group(H5Pcreate(H5P_GROUP_CREATE));
    if (!access.IsValid() || !m_File.Take(H5Fcreate("snapshot", H5F_ACC_TRUNC, H5P_DEFAULT, access.Id())))
        return false;
    const u64 particleCount = m_Stream.ParticleCount();
    bool hasPadding = false;
    for (const SPart &part : m_Parts.View())
        hasPadding |= part.m_IsPadding;
    return H5Pset_link_creation_order(group.Id(), H5P_CRT_ORDER_TRACKED | H5P_CRT_ORDER_INDEXED) >= 0 &&
           WriteText(m_File.Id(), "format", kFormat) && WriteNumber(m_File.Id(), "version", kVersion) &&
           WriteAttribute(m_File.Id(), "particles", H5T_STD_U64LE, 1, &particleCount) &&
           WriteNumber(m_File.Id(), "page_size", m_Stream.PageSize()) &&
           WriteNumber(m_File.Id(), "fields", m_Stream.Def().m_StreamDef.Count()) &&
           m_Fields.Take(H5Gcreate2(m_File.Id(), "fields", H5P_DEFAULT, group.Id(), H5P_DEFAULT)) &&
           (!hasPadding || m_Padding.Take(H5Gcreate2(m_File.Id(), "padding", H5P_DEFAULT, group.Id(), H5P_DEFAULT)));
}

bool CSnapshotWriter::_CreateFields()
{
    u32 partIndex = 0;
    for (u32 i = 0; i < m_Stream.Def().m_StreamDef.Count(); ++i)
    {
        CObject object;
        if (m_Stream.Def().m_StreamDef.RawDataPointer()[i].m_StorageSize == 0)
            object.Take(H5Gcreate2(m_Fields.Id(), SFieldName(i).m_Text, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
        for (; partIndex < m_Parts.Count() && m_Parts.RawDataPointer()[partIndex].m_Field == i; ++partIndex)
        {
            const SPart &part = m_Parts.RawDataPointer()[partIndex];
            CDataset dataset(_CreateDataset(part));
            if (!dataset.IsValid())
                return false;
            if (!part.m_IsPadding)
                object.Take(H5Oopen(m_Fields.Id(), SFieldName(i).m_Text, H5P_DEFAULT));
        }
        if (!object.IsValid() || !_WriteFieldAttributes(object.Id(), i))
            return false;
    }
    return true;
}

bool CSnapshotWriter::_WriteFieldAttributes(hid_t object, u32 field)
{
    const SParticleStreamFieldDef &def = m_Stream.Def().m_StreamDef.RawDataPointer()[field];
    const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(def.m_Type);
    if (!WriteNumber(object, "id", def.m_NameGUID.m_Id) || !WriteText(object, "type", traits.Name) ||
        !WriteNumber(object, "storage_size", def.m_StorageSize) || !_WriteName(object, def.m_NameGUID))
        return false;
    if (def.m_StorageSize != 0)
        return true;
    // The whole block as bytes, where there is more in it than the value.
    const S64Bytes &block = m_Stream.Constant(field);
    const u8 *bytes = reinterpret_cast<const u8 *>(&block);
    u32 usedBytes = sizeof(block);
    while (usedBytes != 0 && bytes[usedBytes - 1] == 0)
        --usedBytes;
    const bool isValue = traits.Size != 0 && usedBytes <= traits.Size;
    return WriteAttribute(object, "value", isValue ? ComponentType(def.m_Type) : H5T_STD_U8LE,
                          isValue ? traits.VectorDimension : sizeof(block), &block);
}

// The name as an attribute, and as a link from the root where it can be one that is not there yet.
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

hid_t CSnapshotWriter::_CreateDataset(const SPart &part)
{
    const hsize_t size[2] = {m_Stream.ParticleCount(), part.m_ComponentCount};
    const hsize_t chunk[2] = {m_ChunkParticleCount, part.m_ComponentCount};
    const CSpace space(H5Screate_simple(2, size, null));
    const CProperties creation(H5Pcreate(H5P_DATASET_CREATE));
    if (H5Pset_fill_time(creation.Id(), H5D_FILL_TIME_NEVER) < 0 ||
        H5Pset_attr_phase_change(creation.Id(), 16, 0) < 0 || H5Pset_obj_track_times(creation.Id(), false) < 0)
        return H5I_INVALID_HID;
    if (m_ChunkParticleCount != 0 &&
        (H5Pset_chunk(creation.Id(), 2, chunk) < 0 ||
         (m_DeflatedBytes != 0 && H5Pset_deflate(creation.Id(), m_Options.m_DeflateLevel) < 0) ||
         H5Pset_fletcher32(creation.Id()) < 0))
        return H5I_INVALID_HID;
    return H5Dcreate2(part.m_IsPadding ? m_Padding.Id() : m_Fields.Id(), SFieldName(part.m_Field).m_Text, part.m_Type,
                      space.Id(), H5P_DEFAULT, creation.Id(), H5P_DEFAULT);
}

// Writes the parts' chunks side by side, page after page.
bool CSnapshotWriter::_WriteParts(u32 firstPart, u32 partCount)
{
    CDataset datasets[kMaxOpenParts];
    for (u32 i = 0; i < partCount; ++i)
    {
        const SPart &part = m_Parts.RawDataPointer()[firstPart + i];
        const CProperties access(H5Pcreate(H5P_DATASET_ACCESS));
        const hid_t group = part.m_IsPadding ? m_Padding.Id() : m_Fields.Id();
        if (H5Pset_chunk_cache(access.Id(), 1, 0, 1) < 0 ||
            !datasets[i].Take(H5Dopen2(group, SFieldName(part.m_Field).m_Text, access.Id())))
            return false;
    }
    const SProgress progress = {m_Options.m_Progress, m_Options.m_ProgressData, m_Stream.ParticleCount()};
    CFrozenStream::SPlace place;
    for (u32 done = 0; done < m_Stream.ParticleCount();)
    {
        CFrozenStream::SPlace nextPlace;
        for (u32 i = 0; i < partCount; ++i)
        {
            nextPlace = place;
            if (!_WriteChunk(datasets[i].Id(), m_Parts.RawDataPointer()[firstPart + i], done, nextPlace))
                return false;
        }
        place = nextPlace;
        done += TZMin(m_ChunkParticleCount, m_Stream.ParticleCount() - done);
        const u64 allParts = m_Parts.Count();
        m_WasEnded = !progress.Tell((firstPart * u64(m_Stream.ParticleCount()) + partCount * u64(done)) / allParts);
        if (m_WasEnded || m_Disk.Error() != 0)
            return false;
    }
    return true;
}

// HDF5's filters, one after the other, without its copies in between: the chunk is written as it is in the file.
bool CSnapshotWriter::_WriteChunk(hid_t dataset, const SPart &part, u32 firstParticle, CFrozenStream::SPlace &place)
{
    const u32 count = TZMin(m_ChunkParticleCount, m_Stream.ParticleCount() - firstParticle);
    const ureg byteCount = ureg(m_ChunkParticleCount) * part.m_ByteCount, usedBytes = ureg(count) * part.m_ByteCount;
    u8 *chunk = m_Chunk.Data();
    m_Stream.Gather(part, count, place, chunk);
    std::memset(chunk + usedBytes, 0, byteCount - usedBytes);

    ureg writtenBytes = byteCount;
    u32 mask = 0;
    if (m_DeflatedBytes != 0)
    {
        uLongf deflatedBytes = m_DeflatedBytes;
        const int level = int(m_Options.m_DeflateLevel);
        if (compress2(m_Deflated.Data(), &deflatedBytes, chunk, byteCount, level) != Z_OK)
            return m_Reason.Set("memory for deflate is refused");
        mask = deflatedBytes < byteCount ? 0 : kDeflateSkipped;
        if (mask == 0)
        {
            chunk = m_Deflated.Data();
            writtenBytes = deflatedBytes;
        }
    }
    const u32 checksum = Fletcher32(chunk, writtenBytes);
    std::memcpy(chunk + writtenBytes, &checksum, kChecksumBytes);
    const hsize_t offset[2] = {firstParticle, 0};
    return H5Dwrite_chunk(dataset, H5P_DEFAULT, mask, offset, writtenBytes + kChecksumBytes, chunk) >= 0;
}

// Until the disk has the file under its new name. The path is cut down to its folder.
bool SyncFolderOf(char *path, CReason &reason)
{
    char *slash = std::strrchr(path, '/');
    if (slash == null)
        std::strcpy(path, ".");
    else
        slash[slash == path ? 1 : 0] = 0;
    const int descriptor = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool isSynced = descriptor >= 0 && (::fsync(descriptor) == 0 || errno == EINVAL); // no such thing there
    if (!isSynced)
        reason.Set("%s: %s", path, std::strerror(errno));
    if (descriptor >= 0)
        ::close(descriptor);
    return isSynced;
}

// Returns whether all went well; false without a reason when the callback ended it.
bool SaveTo(const CParticleStream_MainMemory &stream, const char *path, const SSaveOptions &options, CReason &reason)
{
    CFrozenStream frozen;
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
    std::memcpy(part, path, length);
    std::memcpy(part + length, ".part", 6);

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
    if (SaveTo(stream, path, options, reason))
        return true;
    TZ_ASSERT_TEXT_MESSAGE("the snapshot is saved", reason.Empty(), "%s: %s", path, reason.Text());
    return false;
}

} // namespace Snapshot
} // namespace Tessaly
