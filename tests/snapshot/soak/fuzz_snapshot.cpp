// Fuzzes Load. The fuzzer's bytes change a valid file here and there, or describe a valid HDF5 file: its numbers,
// types, sizes, filters. In every case a stream is loaded whole or stays as it was.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <hdf5.h>
#include <tz_particles/include/ps_runtime.h>
#include <tz_snapshot/include/sn_snapshot.h>

using namespace Tessaly;

namespace
{

int s_File = -1; // in memory
std::string s_Path, s_Valid[2];
u32 s_ReportCount = 0;

void Require(bool isSo, const char *what)
{
    if (isSo)
        return;
    std::fprintf(stderr, "not true: %s\n", what);
    std::abort();
}

class CBytes
{
public:
    CBytes(const u8 *data, size_t size)
        : m_Data(data)
        , m_End(data + size)
    {
    }
    bool Empty() const { return m_Data == m_End; }
    u32 Byte() { return Empty() ? 0 : *m_Data++; }
    u32 Word() { return Byte() | Byte() << 8; }
    // Mostly the usual one, else a small, a large or an impossible one.
    u64 Number(u64 usual)
    {
        const u32 choice = Byte();
        static constexpr u64 kOdd[] = {0, 1, 7, 100, 1u << 20, 0x7FFFFFFF, 0xFFFFFFFF, u64(1) << 32, ~u64(0)};
        return choice < 0xE0 ? usual : kOdd[choice % (sizeof(kOdd) / sizeof(*kOdd))];
    }

private:
    const u8 *m_Data, *m_End;
};

void PutFile(const std::string &bytes)
{
    Require(ftruncate(s_File, 0) == 0 && pwrite(s_File, bytes.data(), bytes.size(), 0) == ssize_t(bytes.size()),
            "the file is written");
}

std::string ChangedFile(CBytes &bytes)
{
    std::string file = s_Valid[bytes.Byte() % 2];
    while (!bytes.Empty())
    {
        const u32 at = bytes.Word(), value = bytes.Byte();
        if (at < file.size())
            file[at] = char(value);
        else if (value % 8 == 0)
            file.resize(file.size() * (at & 0xFF) / 256);
    }
    return file;
}

void PutAttribute(hid_t object, const char *name, hid_t fileType, hid_t type, const void *value, hsize_t count = 1)
{
    const hid_t space = H5Screate_simple(1, &count, nullptr);
    const hid_t attribute = H5Acreate2(object, name, fileType, space, H5P_DEFAULT, H5P_DEFAULT);
    H5Awrite(attribute, type, value);
    H5Aclose(attribute);
    H5Sclose(space);
}

void PutField(hid_t group, u32 index, u64 particleCount, CBytes &bytes)
{
    static const hid_t kKinds[] = {H5T_STD_U8LE,   H5T_STD_I32LE,   H5T_IEEE_F32LE, H5T_IEEE_F64LE,
                                   H5T_IEEE_F32BE, H5T_STD_REF_OBJ, H5T_STD_U16LE,  H5T_C_S1};
    static const EBaseTypeID kTypes[] = {BaseType_U8, BaseType_I32, BaseType_Float3, BaseType_Double};
    const u32 which = bytes.Byte() % 4;
    const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(kTypes[which]);
    const u64 storageSize = bytes.Number(traits.Size);
    const hsize_t size[2] = {std::min<u64>(bytes.Number(particleCount), u64(1) << 40),
                             std::min<u64>(bytes.Number(traits.VectorDimension), 1000)};
    const hsize_t chunk[2] = {std::clamp<u64>(bytes.Number(16), 1, std::max<u64>(size[0], 1)),
                              std::max<hsize_t>(size[1], 1)};
    const u32 kind = bytes.Byte(), filters = bytes.Byte(), rank = bytes.Byte() < 0xF0 ? 2 : 1;
    const hid_t space = H5Screate_simple(int(rank), size, nullptr), creation = H5Pcreate(H5P_DATASET_CREATE);
    if (filters < 0xF8)
        H5Pset_chunk(creation, int(rank), chunk);
    if (filters % 4 == 1)
        H5Pset_deflate(creation, 1);
    if (filters % 8 == 2)
        H5Pset_shuffle(creation);
    if (filters < 0xF0)
        H5Pset_fletcher32(creation);
    const std::string name = std::to_string(index);
    hid_t object = H5I_INVALID_HID;
    if (storageSize == 0)
        object = H5Gcreate2(group, name.c_str(), H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    else
        object = H5Dcreate2(group, name.c_str(), kKinds[kind < 0xE0 ? which : kind % 8], space, H5P_DEFAULT, creation,
                            H5P_DEFAULT);
    const u32 id = index + 1;
    PutAttribute(object, "id", H5T_STD_U32LE, H5T_NATIVE_UINT, &id);
    PutAttribute(object, "storage_size", H5T_STD_U32LE, H5T_NATIVE_UINT64, &storageSize);
    PutAttribute(object, "value", kKinds[which], kKinds[which], std::string(64, 'v').data(), traits.VectorDimension);
    const hid_t text = H5Tcopy(H5T_C_S1);
    H5Tset_size(text, std::strlen(traits.Name));
    PutAttribute(object, "type", text, text, traits.Name);
    H5Tclose(text);
    if (storageSize != 0 && rank == 2 && size[0] <= 1000 && bytes.Byte() < 0xF0)
        H5Dwrite(object, kKinds[which], H5S_ALL, H5S_ALL, H5P_DEFAULT,
                 std::string(size_t(size[0] * size[1] * 8), 'x').data());
    H5Oclose(object);
    H5Sclose(space);
    H5Pclose(creation);
}

std::string DescribedFile(CBytes &bytes)
{
    const hid_t access = H5Pcreate(H5P_FILE_ACCESS);
    H5Pset_fapl_core(access, 4096, false);
    H5Pset_libver_bounds(access, H5F_LIBVER_V110, H5F_LIBVER_V110);
    const hid_t file = H5Fcreate("described", H5F_ACC_TRUNC, H5P_DEFAULT, access);
    const u64 usualCount = bytes.Byte(), particleCount = bytes.Number(usualCount), version = bytes.Number(1);
    const u64 fieldCount = bytes.Byte() % 4, toldCount = bytes.Number(fieldCount), pageSize = bytes.Number(32);
    const hid_t text = H5Tcopy(H5T_C_S1);
    H5Tset_size(text, 17);
    PutAttribute(file, "format", text, text, "Tessaly particles");
    H5Tclose(text);
    PutAttribute(file, "version", H5T_STD_U32LE, H5T_NATIVE_UINT64, &version);
    PutAttribute(file, "particles", H5T_STD_U64LE, H5T_NATIVE_UINT64, &particleCount);
    PutAttribute(file, "page_size", H5T_STD_U32LE, H5T_NATIVE_UINT64, &pageSize);
    PutAttribute(file, "fields", H5T_STD_U32LE, H5T_NATIVE_UINT64, &toldCount);
    const hid_t group = H5Gcreate2(file, "fields", H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    for (u32 i = 0; i < fieldCount; ++i)
        PutField(group, i, usualCount, bytes);
    H5Gclose(group);
    H5Fflush(file, H5F_SCOPE_GLOBAL);
    std::string image(size_t(std::max<ssize_t>(H5Fget_file_image(file, nullptr, 0), 0)), 0);
    H5Fget_file_image(file, image.data(), image.size());
    H5Fclose(file);
    H5Pclose(access);
    return image;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    s_File = memfd_create("snapshot", 0);
    s_Path = "/proc/self/fd/" + std::to_string(s_File);
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    Assert::SetHandler(
        [](const Assert::SReport &, void *) { return int(++s_ReportCount * 0 + Assert::Result_Continue); }, nullptr);
    Require(Particles::Startup(), "the runtime is up");
    const std::string path = "/tmp/fuzz_snapshot_" + std::to_string(getpid());
    for (u32 i = 0; i < 2; ++i)
    {
        static SParticleStreamDef def;
        if (def.Empty())
        {
            def.Add(CStringId::Register("position"), BaseType_Float3);
            def.Add(CStringId(7), BaseType_U8);
        }
        CParticleStream_MainMemory stream(16);
        Require(stream.BindStreamDef(&def), "the definition is bound");
        stream.AllocateParticlesIFP(13, 13);
        Snapshot::SSaveOptions options;
        options.m_DeflateLevel = i;
        Require(Snapshot::Save(stream, path.c_str(), options), "a valid file is saved");
        std::FILE *file = std::fopen(path.c_str(), "rb");
        s_Valid[i].resize(65536);
        s_Valid[i].resize(std::fread(s_Valid[i].data(), 1, s_Valid[i].size(), file));
        std::fclose(file);
    }
    unlink(path.c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, size_t size)
{
    CBytes bytes(data, size);
    PutFile(bytes.Byte() % 4 == 0 ? ChangedFile(bytes) : DescribedFile(bytes));
    Snapshot::SLoadedDefinition definition;
    CParticleStream_MainMemory stream(8);
    s_ReportCount = 0;
    const bool isLoaded = Snapshot::Load(s_Path.c_str(), definition, stream);
    Require(s_ReportCount == (isLoaded ? 0 : 1), "a failure is one report");
    Require(isLoaded == (definition.Def() != null) && definition.Def() == stream.GetStreamDef(), "all or nothing");
    Require(isLoaded || (stream.PageSize() == 8 && stream.PageCount() == 0), "what fails changes nothing");
    Require(!isLoaded || stream.ComputeStats().m_ParticleCount == stream.ParticleCount(), "particles are counted");
    return 0;
}
