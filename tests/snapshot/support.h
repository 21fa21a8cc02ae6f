// A folder for the files of a test, streams filled with values of their own in every place, and their comparison.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <tz_snapshot/include/sn_snapshot.h>

#include "support/stream_fixture.h"

namespace Tessaly::Tests
{

class SnapshotTest : public CStreamTest
{
protected:
    SnapshotTest()
    {
        char folder[] = "/tmp/tessaly_snapshot_XXXXXX";
        m_Folder = ::mkdtemp(folder);
        m_Path = m_Folder + "/file.h5";
    }
    ~SnapshotTest() override { std::filesystem::remove_all(m_Folder); }

    const char *Path() const { return m_Path.c_str(); }

    // Every byte of every stored value follows from its field and its place in the stream.
    static void FillValues(CParticleStream_MainMemory &stream)
    {
        u32 row = 0;
        for (u32 p = 0; p < stream.PageCount(); ++p)
        {
            CParticlePage &page = *stream.Page(CGuid(p));
            for (u32 i = 0; i < page.ParticleCount(); ++i, ++row)
            {
                for (SParticleStreamField &field : page.StreamsForWriting())
                {
                    const u32 size = field.m_Definition.m_StorageSize;
                    for (u32 byte = 0; byte < size; ++byte)
                        field.m_RawDataPtr[i * size + byte] =
                            u8((row * 0x9E3779B1u + field.m_Definition.m_NameGUID.m_Id * 77 + byte * 31) >> 13);
                }
            }
        }
    }
    static void Fill(CParticleStream_MainMemory &stream, u32 count)
    {
        TArray<CParticlePageView> views;
        ASSERT_EQ(stream.AllocateParticles(count, views), count);
        FillValues(stream);
    }

    // The values of a field, all particles, one behind the other; of a constant field, its 64 bytes.
    static std::string Values(const CParticleStream_MainMemory &stream, u32 field)
    {
        std::string bytes;
        const u32 size = stream.StreamDef(CGuid(field)).m_StorageSize;
        if (size == 0)
        {
            const CGuid slot = stream.ConstantDataFieldSlot()[field];
            return std::string(reinterpret_cast<const char *>(&stream.ConstantData()[slot]), sizeof(S64Bytes));
        }
        for (u32 p = 0; p < stream.PageCount(); ++p)
        {
            const CParticlePage &page = *stream.Page(CGuid(p));
            const SParticleStreamField &column = page.Streams()[field];
            bytes.append(reinterpret_cast<const char *>(column.m_RawDataPtr), ureg(page.ParticleCount()) * size);
        }
        return bytes;
    }
    static void ExpectSame(const CParticleStream_MainMemory &a, const CParticleStream_MainMemory &b)
    {
        ASSERT_TRUE(a.GetStreamDef() != null && *a.GetStreamDef() == *b.GetStreamDef());
        EXPECT_EQ(a.ParticleCount(), b.ParticleCount());
        for (u32 i = 0; i < a.StreamsCount(); ++i)
            EXPECT_TRUE(Values(a, i) == Values(b, i)) << "field " << i;
    }

    std::string m_Folder, m_Path;
};

} // namespace Tessaly::Tests
