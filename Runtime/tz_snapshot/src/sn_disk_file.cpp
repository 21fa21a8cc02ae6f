#include "sn_disk_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tessaly::Snapshot
{

struct SHdf5File
{
    H5FD_t m_Public;   // HDF5's own part comes first
    CDiskFile *m_File; // null after its destruction, which HDF5's record outlives when closing fails
    haddr_t m_EndOfAllocated;
};

namespace
{

SHdf5File &Self(H5FD_t *file) { return *reinterpret_cast<SHdf5File *>(file); }
const SHdf5File &Self(const H5FD_t *file) { return *reinterpret_cast<const SHdf5File *>(file); }

H5FD_t *DriverOpen(const char *, unsigned, hid_t access, haddr_t)
{
    CDiskFile *const *disk = static_cast<CDiskFile *const *>(H5Pget_driver_info(access));
    SHdf5File *self = disk != null ? static_cast<SHdf5File *>(std::calloc(1, sizeof(SHdf5File))) : null;
    if (self == null)
        return null;
    self->m_File = *disk;
    self->m_File->m_Hdf5File = self;
    return &self->m_Public;
}

herr_t DriverClose(H5FD_t *file)
{
    if (Self(file).m_File != null)
        Self(file).m_File->m_Hdf5File = null;
    std::free(file);
    return 0;
}

haddr_t DriverGetEoa(const H5FD_t *file, H5FD_mem_t) { return Self(file).m_EndOfAllocated; }

herr_t DriverSetEoa(H5FD_t *file, H5FD_mem_t, haddr_t address)
{
    Self(file).m_EndOfAllocated = address;
    return 0;
}

haddr_t DriverGetEof(const H5FD_t *file, H5FD_mem_t)
{
    return Self(file).m_File != null ? Self(file).m_File->Size() : Self(file).m_EndOfAllocated;
}

herr_t DriverRead(H5FD_t *file, H5FD_mem_t type, hid_t, haddr_t address, size_t size, void *bytes)
{
    CDiskFile *disk = Self(file).m_File;
    if (disk == null)
        return -1;
    return disk->Read(address, bytes, size) && (type != H5FD_MEM_OHDR || disk->IsHeaderIntact(address)) ? 0 : -1;
}

herr_t DriverWrite(H5FD_t *file, H5FD_mem_t, hid_t, haddr_t address, size_t size, const void *bytes)
{
    if (Self(file).m_File != null)
        Self(file).m_File->Write(address, bytes, size);
    return 0;
}

herr_t DriverTruncate(H5FD_t *file, hid_t, hbool_t)
{
    if (Self(file).m_File != null)
        Self(file).m_File->SetSize(Self(file).m_EndOfAllocated);
    return 0;
}

// Registers the driver at its first use, and again after HDF5 was shut down.
hid_t Driver()
{
    static H5FD_class_t driverClass = {};
    static hid_t driver = H5I_INVALID_HID;
    if (H5Iis_valid(driver) > 0)
        return driver;
    driverClass.name = "tessaly_snapshot";
    driverClass.maxaddr = haddr_t(1) << 62;
    driverClass.fc_degree = H5F_CLOSE_STRONG;
    driverClass.fapl_size = sizeof(void *); // a CDiskFile *
    driverClass.open = &DriverOpen;
    driverClass.close = &DriverClose;
    driverClass.get_eoa = &DriverGetEoa;
    driverClass.set_eoa = &DriverSetEoa;
    driverClass.get_eof = &DriverGetEof;
    driverClass.read = &DriverRead;
    driverClass.write = &DriverWrite;
    driverClass.truncate = &DriverTruncate;
    driver = H5FDregister(&driverClass);
    return driver;
}

} // namespace

CDiskFile::~CDiskFile()
{
    if (m_Hdf5File != null)
        m_Hdf5File->m_File = null;
    if (m_Descriptor >= 0)
        ::close(m_Descriptor);
}

bool CDiskFile::OpenToRead(const char *path, CReason &reason)
{
    m_Descriptor = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK); // opening a pipe must not block
    struct stat status = {};
    if (m_Descriptor < 0 || ::fstat(m_Descriptor, &status) != 0)
        return reason.Set("%s", std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        return reason.Set("%s", S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "not a regular file");
    m_Size = u64(status.st_size);
    return m_Buffer.Alloc(kBufferBytes, reason);
}

bool CDiskFile::OpenToWrite(const char *path, CReason &reason)
{
    m_Descriptor = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666);
    if (m_Descriptor < 0)
        return reason.Set("%s: %s", path, std::strerror(errno));
    // The lock ends with its program. A file that another program renamed meanwhile has another path now.
    struct stat opened = {}, named = {};
    if (::flock(m_Descriptor, LOCK_EX | LOCK_NB) != 0 || ::fstat(m_Descriptor, &opened) != 0 ||
        ::lstat(path, &named) != 0 || opened.st_ino != named.st_ino || opened.st_dev != named.st_dev)
        return reason.Set("%s: another program writes it", path);
    if (!S_ISREG(opened.st_mode))
        return reason.Set("%s: not a regular file", path);
    if (::ftruncate(m_Descriptor, 0) != 0)
        return reason.Set("%s: %s", path, std::strerror(errno));
    m_IsWritten = true;
    return m_Buffer.Alloc(kBufferBytes, reason);
}

bool CDiskFile::Configure(hid_t access)
{
    CDiskFile *self = this;
    H5AC_cache_config_t cache = {};
    cache.version = H5AC__CURR_CACHE_CONFIG_VERSION;
    if (H5Pset_driver(access, Driver(), &self) < 0 || H5Pget_mdc_config(access, &cache) < 0)
        return false;
    // The metadata cache stays small, whatever the file.
    cache.set_initial_size = true;
    cache.initial_size = cache.min_size = cache.max_size = 128 * 1024;
    return H5Pset_mdc_config(access, &cache) >= 0 &&
           H5Pset_libver_bounds(access, H5F_LIBVER_V110, H5F_LIBVER_V110) >= 0 &&
           H5Pset_fclose_degree(access, H5F_CLOSE_STRONG) >= 0;
}

template <typename _Call, typename _Byte>
bool CDiskFile::_Transfer(_Call call, u64 offset, _Byte *bytes, ureg byteCount)
{
    while (byteCount != 0)
    {
        const ssize_t count = call(m_Descriptor, bytes, byteCount, off_t(offset));
        if (count < 0 && errno == EINTR)
            continue;
        if (count == 0)
            errno = EIO; // another program truncated the file
        if (count <= 0)
            return _Fail();
        bytes += count;
        offset += u64(count);
        byteCount -= ureg(count);
    }
    return true;
}

bool CDiskFile::Sync()
{
    _WriteBuffer();
    return m_Error == 0 && (::fsync(m_Descriptor) == 0 || _Fail());
}

bool CDiskFile::Read(u64 offset, void *bytes, ureg byteCount)
{
    if (offset > m_Size || byteCount > m_Size - offset)
        return false;
    if (m_IsWritten)
        _WriteBuffer();
    const bool isBuffered = offset >= m_BufferStart && offset + byteCount <= m_BufferStart + m_BufferCount;
    if (m_IsWritten || (!isBuffered && byteCount > kBufferBytes / 2))
        return _Transfer(&::pread, offset, static_cast<u8 *>(bytes), byteCount);
    if (!isBuffered)
    {
        const ureg bufferCount = ureg(TZMin(u64(kBufferBytes), m_Size - offset));
        m_BufferCount = 0;
        if (!_Transfer(&::pread, offset, m_Buffer.Data(), bufferCount))
            return false;
        m_BufferStart = offset;
        m_BufferCount = bufferCount;
    }
    std::memcpy(bytes, m_Buffer.Data() + (offset - m_BufferStart), byteCount);
    return true;
}

void CDiskFile::Write(u64 offset, const void *bytes, ureg byteCount)
{
    m_Size = TZMax(m_Size, offset + byteCount);
    if (offset != m_BufferStart + m_BufferCount || byteCount > kBufferBytes - m_BufferCount)
    {
        _WriteBuffer();
        m_BufferStart = offset;
        if (byteCount > kBufferBytes / 2)
            return _WriteToDisk(offset, static_cast<const u8 *>(bytes), byteCount);
    }
    std::memcpy(m_Buffer.Data() + m_BufferCount, bytes, byteCount);
    m_BufferCount += byteCount;
}

void CDiskFile::SetSize(u64 size)
{
    _WriteBuffer();
    if (m_IsWritten && !m_IsAbandoned && m_Error == 0 && ::ftruncate(m_Descriptor, off_t(size)) != 0)
        _Fail();
    m_Size = size;
}

void CDiskFile::_WriteToDisk(u64 offset, const u8 *bytes, ureg byteCount)
{
    if (m_Error == 0 && !m_IsAbandoned)
        _Transfer(&::pwrite, offset, bytes, byteCount);
}

void CDiskFile::_WriteBuffer()
{
    if (m_IsWritten)
        _WriteToDisk(m_BufferStart, m_Buffer.Data(), m_BufferCount);
    m_BufferStart += m_BufferCount;
    m_BufferCount = 0;
}

bool CDiskFile::_Fail()
{
    if (m_Error == 0)
        m_Error = errno;
    return false;
}

} // namespace Tessaly::Snapshot
