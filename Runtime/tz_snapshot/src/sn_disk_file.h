// The file below HDF5: a driver of its own, which puts small writes together, reads ahead, and keeps what the system
// refused. After a failed write it goes on as if nothing happened, so that HDF5 closes the file in good order; whoever
// saves asks Error() behind that.
#pragma once

#include "sn_reason.h"

#include <hdf5.h>

namespace Tessaly
{
namespace Snapshot
{

struct SHdf5File; // what HDF5 knows of a CDiskFile

class CDiskFile : public CNonCopyable
{
public:
    CDiskFile() = default;
    ~CDiskFile();

    // Opens a regular file to be read.
    bool OpenToRead(const char *path, CReason &reason);
    // Makes an empty file, or empties the one that an ended program left. False when another program writes it.
    bool OpenToWrite(const char *path, CReason &reason);

    // A property list for H5Fopen and H5Fcreate that gives them this file; negative on failure.
    hid_t MakeAccess();

    int Error() const { return m_Error; }    // errno of the first access that failed, 0: none
    u64 Size() const { return m_Size; }      // bytes
    bool Sync();                             // until the disk has it all
    void Abandon() { m_IsAbandoned = true; } // nothing more is written

    // For HDF5. False on failure.
    bool Read(u64 offset, void *bytes, ureg byteCount);
    void Write(u64 offset, const void *bytes, ureg byteCount);
    void SetSize(u64 size);
    // False when an object's header begins there, in a file that is read, and it or what continues it is damaged. HDF5
    // would notice, too, but not give back what it holds by then.
    bool IsHeaderIntact(u64 offset);

    SHdf5File *m_Hdf5File = null; // while HDF5 has the file open

private:
    static constexpr ureg kBufferBytes = 256 * 1024;

    struct SHeaderChunk // of an object's header: where it is, without its checksum, and where its messages begin in it
    {
        u64 m_Offset, m_ByteCount, m_MessagesAt;
    };
    static constexpr u32 kMaxHeaderChunks = 32;

    bool _CheckHeaderChunk(const SHeaderChunk &chunk, ureg messageHeadBytes, SHeaderChunk *chunks, u32 &chunkCount);
    bool _ReadFromDisk(u64 offset, u8 *bytes, ureg byteCount);
    void _WriteToDisk(u64 offset, const u8 *bytes, ureg byteCount);
    void _WriteBuffer();
    bool _Fail(); // keeps errno

    int m_Descriptor = -1;
    int m_Error = 0;
    u64 m_Size = 0;
    bool m_IsWritten = false;
    bool m_IsAbandoned = false;
    CBytes m_Buffer; // bytes [m_BufferStart, m_BufferStart + m_BufferCount) of the file
    u64 m_BufferStart = 0;
    ureg m_BufferCount = 0;
};

} // namespace Snapshot
} // namespace Tessaly
