// The file below HDF5: a virtual file driver that combines small writes, reads ahead, and records the first error of
// the system. After a failed write it ignores further ones, so that HDF5 closes the file without errors of its own; the
// writer checks Error() afterwards.
#pragma once

#include "sn_reason.h"

#include <hdf5.h>

namespace Tessaly::Snapshot
{

struct SHdf5File; // HDF5's record of an open CDiskFile

class CDiskFile : public CNonCopyable
{
public:
    ~CDiskFile();

    // Opens a regular file for reading.
    bool OpenToRead(const char *path, CReason &reason);
    // Creates an empty file, or truncates one that a crashed program left. False when another program is writing it.
    bool OpenToWrite(const char *path, CReason &reason);

    // Changes a property list for H5Fopen or H5Fcreate so that they use this file.
    bool Configure(hid_t access);

    int Error() const { return m_Error; } // errno of the first failed access; 0: none
    u64 Size() const { return m_Size; }
    bool Sync();                             // flushes all data to the disk
    void Abandon() { m_IsAbandoned = true; } // drops all further writes

    // For HDF5. False on failure.
    bool Read(u64 offset, void *bytes, ureg byteCount);
    void Write(u64 offset, const void *bytes, ureg byteCount);
    void SetSize(u64 size);
    // False when a damaged object header begins at offset in a file that is read. HDF5 detects damage as well, but
    // leaks memory then.
    bool IsHeaderIntact(u64 offset);

    SHdf5File *m_Hdf5File = null; // while HDF5 has the file open

private:
    static constexpr ureg kBufferBytes = 256 * 1024;

    // Calls pread or pwrite until all bytes are transferred.
    template <typename _Call, typename _Byte>
    bool _Transfer(_Call call, u64 offset, _Byte *bytes, ureg byteCount);
    void _WriteToDisk(u64 offset, const u8 *bytes, ureg byteCount);
    void _WriteBuffer();
    bool _Fail(); // records errno

    int m_Descriptor = -1;
    int m_Error = 0;
    u64 m_Size = 0;
    bool m_IsWritten = false;
    bool m_IsAbandoned = false;
    CBytes m_Buffer; // bytes [m_BufferStart, m_BufferStart + m_BufferCount) of the file
    u64 m_BufferStart = 0;
    ureg m_BufferCount = 0;
};

} // namespace Tessaly::Snapshot
