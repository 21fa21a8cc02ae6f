// What Save and Load share: handles of HDF5, the datasets of a file, and the transfer of chunks to and from pages.
#pragma once

#include "sn_disk_file.h"

#include <tz_snapshot/include/sn_snapshot.h>

namespace Tessaly::Snapshot
{

constexpr const char *kFormat = "Tessaly particles";
constexpr u32 kVersion = 1;
constexpr u32 kMaxChunkBytes = 1024 * 1024; // the largest block of a page
constexpr u32 kChecksumBytes = 4;
constexpr u32 kDeflateSkipped = 1; // filter mask of a chunk: the first of the two filters was not applied
constexpr u32 kMaxTextBytes = 256; // including the NUL
constexpr u32 kMaxOpenParts = 32;  // open datasets cost memory

// A handle of HDF5, closed by the destructor; negative when there is none.
template <herr_t (*_Close)(hid_t)>
class THandle : public CNonCopyable
{
public:
    explicit THandle(hid_t id = H5I_INVALID_HID)
        : m_Id(id)
    {
    }
    ~THandle() { Close(); }

    hid_t Id() const { return m_Id; }
    bool IsValid() const { return m_Id >= 0; }
    // Closes the handle and takes another one. False when that one is invalid.
    bool Take(hid_t id)
    {
        Close();
        m_Id = id;
        return IsValid();
    }
    bool Close()
    {
        const bool isClosed = m_Id < 0 || _Close(m_Id) >= 0;
        m_Id = H5I_INVALID_HID;
        return isClosed;
    }

private:
    hid_t m_Id;
};

using CAttribute = THandle<&H5Aclose>;
using CDataset = THandle<&H5Dclose>;
using CFile = THandle<&H5Fclose>;
using CGroup = THandle<&H5Gclose>;
using CObject = THandle<&H5Oclose>;
using CProperties = THandle<&H5Pclose>;
using CSpace = THandle<&H5Sclose>;
using CType = THandle<&H5Tclose>;

// Holds the library's mutex, and keeps HDF5 from printing its errors, for a scope.
class CHdf5Session : public CNonCopyable
{
public:
    CHdf5Session();
    ~CHdf5Session();

private:
    H5E_auto2_t m_Print = null;
    void *m_PrintData = null;
};

// HDF5's type for one component of a type. Bytes for types without components.
hid_t ComponentType(EBaseTypeID type);

// The path of a field in the file.
struct SFieldPath
{
    char m_Text[24];

    explicit SFieldPath(u32 field, bool isPadding = false);
};

// A dataset of the file: the values of a stored field, or the padding after each value.
struct SPart
{
    u32 m_Field;          // index in the definition
    bool m_IsPadding;     // in /padding, else in /fields
    u32 m_Offset;         // bytes from the start of a particle's value in its page
    u32 m_ByteCount;      // bytes of one particle, all components
    u32 m_ComponentCount; // of one particle
    u32 m_StorageSize;    // of the field
    hid_t m_Type;         // of a component
    bool m_IsDeflated;    // in a file that is read

    const char *GroupName() const { return m_IsPadding ? "padding" : "fields"; }
    SFieldPath Path() const { return SFieldPath(m_Field, m_IsPadding); }
};

// An HDF5 file that is written from pages or read into pages, chunk by chunk. The chunks of up to kMaxOpenParts parts
// are interleaved: those of the first particles come first, then those of the next ones.
class CSnapshotFile : public CNonCopyable
{
protected:
    // A particle in the pages.
    struct SPlace
    {
        u32 m_Page = 0, m_Row = 0;
    };
    // The values of a field in one page.
    struct SColumn
    {
        u8 *m_Data;
        u32 m_RowCount;
    };

    CSnapshotFile(CDiskFile &disk, const SLoadOptions &options, CReason &reason);
    ~CSnapshotFile() = default;

    // Lists the parts of all stored fields. False when a page cannot hold a particle, when memory is refused, or when
    // there are particles but no parts.
    bool _MakeParts(const SParticleStreamDef &def);
    bool _Open(const SPart &part, CDataset &outDataset) const;
    // Calls _TransferChunk for all chunks. False when one of them or the disk fails, or when the callback cancels.
    bool _TransferChunks();
    bool _TransferParts(u32 firstPart, u32 partCount);
    // Copies count particles of a part, from place on, between the pages and a chunk. Moves place past them.
    void _Copy(const SPart &part, u32 count, SPlace &place, u8 *chunk, bool isToPages) const;

    virtual SColumn _Column(u32 page, u32 field) const = 0;
    // Writes or reads the chunk of count particles from firstParticle on, which is at place. Moves place past them.
    virtual bool _TransferChunk(hid_t dataset, const SPart &part, u32 firstParticle, u32 count, SPlace &place) = 0;

    CDiskFile &m_Disk;
    const SLoadOptions m_Options;
    CReason &m_Reason;
    const CProperties m_DatasetAccess;
    CFile m_File;
    TArray<SPart> m_Parts;
    u32 m_LargestPartBytes = 0; // of one particle
    u32 m_ParticleCount = 0;
    u32 m_ChunkParticleCount = 0; // the same in all datasets
    CBytes m_Chunk, m_DeflatedChunk;
    bool m_IsCancelled = false;
};

} // namespace Tessaly::Snapshot
