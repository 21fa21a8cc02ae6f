// Snapshots: the particles of a stream in an HDF5 file, which any reader of HDF5 opens.
//
//   /                attributes format, version, particles, page_size, fields
//   /fields/N        field N of the definition: a dataset of particles x components, or a group for a constant field;
//                    attributes id, type, storage_size, name (where it is registered), value (of a constant)
//   /padding/N       the bytes of each particle after its value, where the storage size is larger than the type's
//   /NAME            the dataset of a field again, by its registered name
//
// Numbers are little endian, bools are bytes; values of a type without components are bytes. Every chunk has a
// Fletcher-32 checksum. HDF5 is not thread safe: each call below holds one mutex of this library. A host that uses HDF5
// on other threads must not do so during these calls.
#pragma once

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

namespace Tessaly::Snapshot
{

// Called now and then on the calling thread, which holds no page lock, with the numbers of particles that are done and
// of all particles. False cancels the operation, which then fails without a report.
using FnProgress = bool (*)(u32 doneCount, u32 count, void *userData);

// How a stream is saved.
struct SSaveOptions
{
    u32 m_DeflateLevel = 0; // 0: not compressed; 1 (fast) to 9 (small)
    FnProgress m_Progress = null;
    void *m_ProgressData = null;
};

// How a file is loaded.
struct SLoadOptions
{
    FnProgress m_Progress = null;
    void *m_ProgressData = null;
};

// The definition, constant data and slot table of a file. A stream that is bound to them borrows them: destroy the
// stream or bind it to something else before this object is destroyed or loaded again. Only a stream that is bound to
// them itself may be loaded with the same object: see Load.
struct TZ_API SLoadedDefinition : public CNonCopyable
{
public:
    ~SLoadedDefinition() { _Release(); }

    // The definition; null before the first Load. One block per constant field, and the index of a field's block.
    const SParticleStreamDef *Def() const;
    TMemoryView<const S64Bytes> ConstantData() const;
    TStridedMemoryView<const CGuid> ConstantDataFieldSlot() const;

    struct SContents;
    void _Take(SContents *contents);
    void _Release();

private:
    SContents *m_Contents = null;
};

// Writes the particles of a stream to the file at path. The file is written as path + ".part", flushed to the disk and
// renamed: a file that was there is replaced only by a complete one. The pages have readers meanwhile: other threads
// may read them and add pages, but cannot write to them or remove from them.
// Fails: after a report, when the stream is unbound, memory is refused or the file cannot be written.
// Lock:  takes it while pages are counted and referenced, not while the file is written.
// Cost:  O(particles); at most 4 MiB of memory and 32 bytes per page.
TZ_API bool Save(const CParticleStream_MainMemory &stream, const char *path,
                 const SSaveOptions &options = SSaveOptions());

// Replaces the particles of a stream by those of a file.
//   An unbound stream is bound to the definition of the file, in outDefinition, and gets its page size.
//   A bound one stays bound, with its page size: fields are matched by name and converted as by BindStreamDef.
// outDefinition receives the definition of the file, unless the stream is bound to what it holds already.
// Fails: after a report with the reason, when the file is damaged or memory is refused: stream and outDefinition are
//        unchanged. Memory is requested for data that was read, not for what the file claims to have.
// Lock:  as Swap, at the end; no other thread may use the stream meanwhile.
// Cost:  O(particles); at most 4 MiB of memory beside the old and the new pages.
TZ_API bool Load(const char *path, SLoadedDefinition &outDefinition, CParticleStream_MainMemory &stream,
                 const SLoadOptions &options = SLoadOptions());

} // namespace Tessaly::Snapshot
