// What Save and Load share: HDF5's handles, the session that its calls stand in, and how fields lie in a file.
#pragma once

#include "sn_disk_file.h"

#include <tz_kernel/include/kr_threads_basics.h>
#include <tz_particles/include/ps_stream.h>

namespace Tessaly
{
namespace Snapshot
{

constexpr const char *kFormat = "Tessaly particles";
constexpr u32 kVersion = 1;
constexpr u32 kMaxChunkBytes = 1024 * 1024; // the largest block of a page
constexpr u32 kChecksumBytes = 4;
constexpr u32 kDeflateSkipped = 1; // in a chunk's mask: the first of two filters was left out
constexpr u32 kMaxTextBytes = 256; // with the NUL
constexpr u32 kMaxOpenParts = 32;  // at a time: open datasets cost memory

// A handle of HDF5, closed with the object; negative when there is none.
template <herr_t (*_Close)(hid_t)>
class THandle : public CNonCopyable
{
public:
    THandle() = default;
    explicit THandle(hid_t id)
        : m_Id(id)
    {
    }
    ~THandle() { Close(); }

    hid_t Id() const { return m_Id; }
    bool IsValid() const { return m_Id >= 0; }
    // Closes it, and takes another one. IsValid() tells whether that is one.
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
    hid_t m_Id = H5I_INVALID_HID;
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

// Of HDF5, for one component of a type: bytes for types without components.
hid_t ComponentType(EBaseTypeID type);

// How often a progress callback is told.
struct SProgress
{
    bool (*m_Callback)(u32 doneCount, u32 count, void *userData);
    void *m_Data;
    u32 m_Count;

    // False when the callback ends the operation.
    bool Tell(u64 doneCount) const { return m_Callback == null || m_Callback(u32(doneCount), m_Count, m_Data); }
};

// A dataset of the file: the values of a stored field, or what lies behind each value.
struct SPart
{
    u32 m_Field;          // index in the definition
    bool m_IsPadding;     // in /padding, else in /fields
    u32 m_Offset;         // bytes from the start of a particle's value in its page
    u32 m_ByteCount;      // bytes of one particle, all components
    u32 m_ComponentCount; // of one particle
    u32 m_StorageSize;    // of the field
    hid_t m_Type;         // of a component, HDF5's own
    bool m_IsDeflated;    // in the file that is read

    const char *GroupName() const { return m_IsPadding ? "padding" : "fields"; }
};

// The type is one that the traits' table has.
bool IsBaseType(EBaseTypeID type);
// Appends the parts of all stored fields. False when memory is refused.
bool AppendParts(const SParticleStreamDef &def, TArray<SPart> &outParts, CReason &reason);
// Bytes of a particle, all fields. False when a page could not hold a particle of them.
bool CheckParticleSize(const SParticleStreamDef &def, CReason &reason);

// The link of a field.
struct SFieldName
{
    char m_Text[12];

    explicit SFieldName(u32 field);
};

} // namespace Snapshot
} // namespace Tessaly
