// Snapshots: the particles of a stream in an HDF5 file, which any reader of HDF5 opens.
//
//   /                attributes format, version, particles, page_size, fields
//   /fields/N        field N of the definition: a dataset of particles x components, or a group for a constant field;
//                    attributes id, type, storage_size, name (where it is registered), value (of a constant)
//   /padding/N       the bytes of each particle behind its value, where the storage size is larger than the type's
//   /NAME            the dataset of a field again, by its registered name
//
// Numbers are little endian, bools are bytes; values of a type without components are bytes. Every chunk has a
// Fletcher-32 checksum. HDF5 itself is not thread safe: one mutex of this library is held during each call below. A
// host that uses HDF5 on other threads keeps it apart from these calls.
#pragma once

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

namespace Tessaly
{
namespace Snapshot
{

// Told at times how many particles are done, of how many in all. False ends the operation: it fails, without a report.
// It runs on the calling thread, under no page lock.
using FnProgress = bool (*)(u32 doneCount, u32 count, void *userData);

// How a stream is saved.
struct SSaveOptions
{
    u32 m_DeflateLevel = 0; // 0: not compressed; 1 (fast) to 9 (small)
    FnProgress m_Progress = null;
    void *m_ProgressData = null; // handed to m_Progress
};

// How a file is loaded.
struct SLoadOptions
{
    FnProgress m_Progress = null;
    void *m_ProgressData = null; // handed to m_Progress
};

// The definition, constant data and slot table of a file. A stream that was bound to them borrows them: the object
// outlives the stream, or the stream is bound to something else first. Loading into the object again replaces them, but
// for a stream that is bound to them: see Load.
struct TZ_API SLoadedDefinition : public CNonCopyable
{
public:
    SLoadedDefinition() = default;
    ~SLoadedDefinition() { _Release(); }

    const SParticleStreamDef *Def() const;            // null before anything was loaded
    TMemoryView<const S64Bytes> ConstantData() const; // one block a constant field, in their order
    TStridedMemoryView<const CGuid> ConstantDataFieldSlot() const;

    struct SContents; // the library's own
    void _Take(SContents *contents);
    void _Release();

private:
    SContents *m_Contents = null;
};

// Writes the stream's particles to a file at path. The file appears whole, or what was there stays: it is written as
// path + ".part", flushed to the disk and renamed. Pages are held by readers meanwhile: other threads may add pages,
// and read, but what they remove from or write to these pages is refused. Fails, after one report that tells the
// reason, when the stream is unbound, when memory is refused or when the file cannot be written.
// Lock: takes the page lock while pages are counted and referenced, not while the file is written.
// Cost: O(particles); 4 MiB of memory at most beside 32 bytes a page.
TZ_API bool Save(const CParticleStream_MainMemory &stream, const char *path,
                 const SSaveOptions &options = SSaveOptions());

// Replaces the stream's particles by those of a file.
//   An unbound stream is bound to the definition of the file, which outDefinition receives, and takes its page size.
//   A bound one stays bound, with its page size: fields are taken by name and converted as BindStreamDef does it.
// outDefinition receives the file's definition, unless the stream is bound to what is in it already.
// Fails, after a report that tells the reason, when the file is not as it should be or memory is refused: stream and
// outDefinition are as they were. Memory is asked for as data is read, never because the file claims to have it.
// Lock: as Swap, for the exchange at the end; nobody may hold it. The owner alone loads.
// Cost: O(particles); 4 MiB of memory at most beside the pages, old and new ones.
TZ_API bool Load(const char *path, SLoadedDefinition &outDefinition, CParticleStream_MainMemory &stream,
                 const SLoadOptions &options = SLoadOptions());

} // namespace Snapshot
} // namespace Tessaly
