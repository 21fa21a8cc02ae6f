// Damaged and wrong files: one report tells why, and nothing changes.
#include <cstring>
#include <fstream>
#include <functional>
#include <hdf5.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

using namespace Tessaly;
using namespace Tessaly::Tests;

namespace
{

std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void WriteFile(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

} // namespace

class SnapshotBadFileTest : public SnapshotTest
{
protected:
    SnapshotBadFileTest()
        : m_Saved(16)
        , m_Bound(8)
    {
        m_Definition.BindTo(m_Saved);
        Fill(m_Saved, 100);
        EXPECT_TRUE(Snapshot::Save(m_Saved, Path()));
        m_Bytes = ReadFile(m_Path);
        m_Own.Stored(Life, BaseType_Float).Stored(Extra, BaseType_I8).BindTo(m_Bound);
        Fill(m_Bound, 20);
        m_BoundValues = Values(m_Bound, 0) + Values(m_Bound, 1);
    }

    void PutByte(size_t at, char byte) const
    {
        std::fstream file(m_Path, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(std::streamoff(at)).put(byte);
    }
    // Both kinds of streams refuse the file with one report, which has the text in it.
    void ExpectRefused(const std::string &text)
    {
        CParticleStream_MainMemory unbound(4);
        EXPECT_FALSE(Snapshot::Load(Path(), m_Loaded, unbound));
        ExpectReport(text);
        EXPECT_TRUE(unbound.GetStreamDef() == null && unbound.Empty() && unbound.PageSize() == 4);
        EXPECT_FALSE(Snapshot::Load(Path(), m_Loaded, m_Bound));
        ExpectReport(text);
        ExpectBoundUnchanged();
        EXPECT_EQ(m_Loaded.Def(), null);
    }
    void ExpectReport(const std::string &text)
    {
        const std::vector<SSeenReport> reports = m_Reports.Take();
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_NE(reports[0].m_Message.find(text), std::string::npos) << reports[0].m_Message;
    }
    void ExpectBoundUnchanged()
    {
        EXPECT_EQ(m_Bound.GetStreamDef(), &m_Own.Def());
        EXPECT_EQ(m_Bound.PageSize(), 8u);
        EXPECT_TRUE(Values(m_Bound, 0) + Values(m_Bound, 1) == m_BoundValues);
    }
    // Whether the file is refused; one that is not must give what was saved.
    bool IsRefused()
    {
        CParticleStream_MainMemory loaded(1);
        Snapshot::SLoadedDefinition definition;
        if (Snapshot::Load(Path(), definition, loaded))
        {
            ExpectSame(loaded, m_Saved);
            return false;
        }
        EXPECT_EQ(m_Reports.Take().size(), 1u);
        return true;
    }

    CDefinition m_Own;
    CParticleStream_MainMemory m_Saved, m_Bound;
    Snapshot::SLoadedDefinition m_Loaded;
    std::string m_Bytes, m_BoundValues;
};

TEST_F(SnapshotBadFileTest, TruncatedFilesAreRefused)
{
    for (size_t size = 0; size < m_Bytes.size(); size += 512)
    {
        WriteFile(m_Path, m_Bytes.substr(0, size));
        EXPECT_TRUE(IsRefused()) << size;
    }
}

// Headers, indices and values have checksums, and there are no gaps between them.
TEST_F(SnapshotBadFileTest, InvertedBytesAreRefused)
{
    for (size_t i = 0; i < m_Bytes.size() && i < 4096; ++i)
    {
        PutByte(i, char(~m_Bytes[i]));
        ASSERT_TRUE(IsRefused()) << i;
        PutByte(i, m_Bytes[i]);
    }
}

// A valid HDF5 file with wrong contents, edited by HDF5 itself: the reason names what is wrong.
TEST_F(SnapshotBadFileTest, WrongContentsAreRefusedWithTheReason)
{
    // Replaces the dataset of a field by one of rows x components of that type; it keeps the attributes.
    const auto replace = [](hid_t file, const char *path, hid_t type, hsize_t rows, hsize_t components, bool isChecked)
    {
        const hid_t old = H5Oopen(file, path, H5P_DEFAULT);
        const hsize_t size[2] = {rows, components}, chunk[2] = {16, components};
        const hid_t space = H5Screate_simple(2, size, nullptr), creation = H5Pcreate(H5P_DATASET_CREATE);
        H5Pset_chunk(creation, 2, chunk);
        if (isChecked)
            H5Pset_fletcher32(creation);
        H5Ldelete(file, path, H5P_DEFAULT);
        const hid_t dataset = H5Dcreate2(file, path, type, space, H5P_DEFAULT, creation, H5P_DEFAULT);
        for (const char *name : {"id", "type", "storage_size"})
        {
            const hid_t from = H5Aopen(old, name, H5P_DEFAULT), kind = H5Aget_type(from), one = H5Aget_space(from);
            const hid_t to = H5Acreate2(dataset, name, kind, one, H5P_DEFAULT, H5P_DEFAULT);
            char value[64];
            H5Aread(from, kind, value);
            H5Awrite(to, kind, value);
        }
    };
    const auto setNumber = [](hid_t file, const char *path, const char *name, u64 value)
    {
        const hid_t object = H5Oopen(file, path, H5P_DEFAULT);
        const hid_t type = H5Aget_type(H5Aopen(object, name, H5P_DEFAULT)), one = H5Screate(H5S_SCALAR);
        H5Adelete(object, name);
        H5Awrite(H5Acreate2(object, name, type, one, H5P_DEFAULT, H5P_DEFAULT), H5T_NATIVE_UINT64, &value);
    };
    const std::pair<std::function<void(hid_t)>, const char *> cases[] = {
        {[&](hid_t f) { replace(f, "fields/3", H5T_STD_U8LE, 1000, 3, true); }, "field 3: 1,000 values for 100 part"},
        {[&](hid_t f) { replace(f, "fields/3", H5T_STD_U8LE, hsize_t(1) << 33, 3, true); },
         "field 3: 8,589,934,592 va"},
        {[&](hid_t f) { replace(f, "fields/3", H5T_STD_U8LE, 100, 4, true); }, "field 3: 4 components, 3 needed"},
        {[&](hid_t f) { replace(f, "fields/1", H5T_STD_I32LE, 100, 1, true); }, "field 1: its values are of another"},
        {[&](hid_t f) { replace(f, "fields/1", H5T_IEEE_F32BE, 100, 1, true); }, "field 1: its values are of another"},
        {[&](hid_t f) { replace(f, "fields/1", H5T_IEEE_F32LE, 100, 1, false); }, "field 1: its filters are not"},
        {[&](hid_t f) { replace(f, "fields/1", H5T_IEEE_F32LE, 100, 1, true); },
         "field 1: 0 bytes in the file for 100"},
        {[&](hid_t f) { H5Ldelete(f, "fields/0", H5P_DEFAULT); }, "field 0 is missing"},
        {[&](hid_t f) { H5Ldelete(f, "fields", H5P_DEFAULT); }, "missing or damaged"},
        {[&](hid_t f)
         {
             H5Ldelete(f, "fields/0", H5P_DEFAULT);
             H5Lcreate_external("other.h5", "/fields/0", f, "fields/0", H5P_DEFAULT, H5P_DEFAULT);
         },
         "field 0 is missing"},
        {[&](hid_t f) { H5Adelete_by_name(f, "fields/2", "value", H5P_DEFAULT); }, "field 2: its value is missing"},
        {[&](hid_t f) { H5Adelete_by_name(f, "fields/0", "type", H5P_DEFAULT); }, "field 0: id, type or storage size"},
        {[&](hid_t f) { setNumber(f, "/", "particles", u64(1) << 32); }, "4,294,967,296 particles, a stream holds"},
        {[&](hid_t f) { setNumber(f, "/", "particles", 1200); }, "field 0: 100 values for 1,200 particles"},
        {[&](hid_t f) { setNumber(f, "/", "fields", ~0u); }, "field 4 is missing"},
        {[&](hid_t f) { setNumber(f, "/", "page_size", 0); }, "0 particles a page"},
        {[&](hid_t f) { setNumber(f, "/", "version", 2); }, "version 2 of the format, 1 is known"},
        {[&](hid_t f) { setNumber(f, "fields/0", "storage_size", ~0u); },
         "a page can not hold a particle of 4,294,967"},
        {[&](hid_t f) { setNumber(f, "fields/0", "storage_size", 16); }, "field 0: the dataset in padding is missing"},
        {[&](hid_t f) { H5Adelete(f, "format"); }, "not a file of particles"},
    };
    for (const auto &[edit, reason] : cases)
    {
        SCOPED_TRACE(reason);
        WriteFile(m_Path, m_Bytes);
        const hid_t access = H5Pcreate(H5P_FILE_ACCESS);
        H5Pset_fclose_degree(access, H5F_CLOSE_STRONG);
        const hid_t file = H5Fopen(Path(), H5F_ACC_RDWR, access);
        edit(file);
        H5Fclose(file);
        ExpectRefused(reason);
    }
}

TEST_F(SnapshotBadFileTest, OtherKindsOfFilesAreRefused)
{
    WriteFile(m_Path, "particles, honestly");
    ExpectRefused("not an HDF5 file");
    m_Path = m_Folder;
    ExpectRefused("Is a directory");
    m_Path = m_Folder + "/missing";
    ExpectRefused("No such file");
    m_Path = m_Folder + "/pipe";
    ASSERT_EQ(::mkfifo(Path(), 0600), 0);
    ExpectRefused("not a regular file");
    if (::geteuid() != 0)
    {
        m_Path = m_Folder + "/secret";
        WriteFile(m_Path, m_Bytes);
        ::chmod(Path(), 0);
        ExpectRefused("Permission denied");
    }
}

// Whichever request for memory is refused: the file is loaded whole, or nothing changes.
TEST_F(SnapshotBadFileTest, RefusedMemoryChangesNothing)
{
    for (u32 n = 1, refusalCount = 1; refusalCount != 0; ++n)
    {
        refusalCount = 0;
        const auto refused = [&](const std::function<bool()> &operation)
        {
            m_Memory.RefuseAt(n);
            const bool isDone = operation();
            refusalCount += m_Memory.RefusalCount();
            m_Memory.RefuseNone();
            EXPECT_EQ(isDone, m_Reports.Take().empty());
            return isDone;
        };
        {
            CParticleStream_MainMemory unbound(4);
            Snapshot::SLoadedDefinition definition;
            const bool isLoaded = refused([&] { return Snapshot::Load(Path(), definition, unbound); });
            EXPECT_EQ(isLoaded, definition.Def() != null);
            EXPECT_EQ(unbound.ParticleCount(), isLoaded ? 100u : 0u);
        }
        const bool isSaved = refused([&] { return Snapshot::Save(m_Saved, (m_Path + "2").c_str()); });
        EXPECT_EQ(isSaved, std::filesystem::remove(m_Path + "2"));
        if (!refused([&] { return Snapshot::Load(Path(), m_Loaded, m_Bound); }))
            ExpectBoundUnchanged();
        else
        {
            m_Bound.Clear();
            Fill(m_Bound, 20);
        }
    }
}
