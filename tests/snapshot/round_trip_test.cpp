// Save and Load: definitions, constants, values and page size are the same afterwards.
#include "support.h"

using namespace Tessaly;
using namespace Tessaly::Tests;

TEST_F(SnapshotTest, EveryTypeComesBack)
{
    CDefinition definition;
    for (int type = BaseType_Evolved; type < __MaxBaseTypes; ++type)
    {
        const u32 size = CBaseTypeTraits::Traits(EBaseTypeID(type)).Size, name = 100 + u32(type) * 3;
        definition.Constant(name, EBaseTypeID(type), S64Bytes{{~0u, ~u32(type), 7, 0x3F800000u}})
            .Stored(name + 1, EBaseTypeID(type), size != 0 ? size : 5) // no components: bytes
            .Stored(name + 2, EBaseTypeID(type), size + 3);            // bytes behind the value
    }
    definition.Stored(1, BaseType_Double, 3); // too few bytes for a value
    definition.Constant(2, BaseType_Float4, CFloat4(1, 2, 3, 4)).ConstantAt(3, BaseType_I32, CGuid(0));
    for (const u32 deflateLevel : {0u, 3u})
    {
        CParticleStream_MainMemory stream(37), loaded(5);
        definition.BindTo(stream);
        Fill(stream, 1000);
        Snapshot::SSaveOptions options;
        options.m_DeflateLevel = deflateLevel;
        ASSERT_TRUE(Snapshot::Save(stream, Path(), options));
        Snapshot::SLoadedDefinition fileDefinition;
        ASSERT_TRUE(Snapshot::Load(Path(), fileDefinition, loaded));
        EXPECT_EQ(loaded.GetStreamDef(), fileDefinition.Def());
        EXPECT_EQ(loaded.PageSize(), stream.PageSize());
        ExpectSame(loaded, stream);
        EXPECT_EQ(loaded.AllocateParticlesIFP(1, 1).ParticleCount(), 1u); // it has its constants
    }
}

TEST_F(SnapshotTest, PagesOfAllSizesComeBackDense)
{
    CTestStream stream(64, m_Definition);
    for (const u32 count : {3u, 0u, 500u, 64u, 1u})
        stream.AppendPage(count + 3, count);
    FillValues(stream);
    ASSERT_TRUE(Snapshot::Save(stream, Path()));
    CParticleStream_MainMemory loaded(1);
    Snapshot::SLoadedDefinition fileDefinition;
    ASSERT_TRUE(Snapshot::Load(Path(), fileDefinition, loaded));
    EXPECT_EQ(loaded.PageCount(), 568u / 64 + 1);
    ExpectSame(loaded, stream);

    stream.Clear(); // no particle at all
    ASSERT_TRUE(Snapshot::Save(stream, Path()));
    ASSERT_TRUE(Snapshot::Load(Path(), fileDefinition, loaded)); // a second time into the same definition
    ExpectSame(loaded, stream);
}

TEST_F(SnapshotTest, NamesComeBack)
{
    CDefinition definition;
    for (const char *name : {"position", "a/b", ".", "fields", "höhe"})
        definition.Stored(CStringId::Register(name).m_Id, BaseType_Float);
    definition.Stored(CStringId("position").m_Id, BaseType_Float2).Stored(CStringId("nobody knows").m_Id, BaseType_I8);
    {
        CParticleStream_MainMemory stream(10), loaded(1);
        definition.BindTo(stream);
        Fill(stream, 11);
        ASSERT_TRUE(Snapshot::Save(stream, Path()));
        CStringId::UnregisterAll();
        Snapshot::SLoadedDefinition fileDefinition;
        ASSERT_TRUE(Snapshot::Load(Path(), fileDefinition, loaded));
        ExpectSame(loaded, stream);
    }
    for (const char *name : {"position", "a/b", ".", "fields", "höhe"})
        EXPECT_STREQ(CStringId::FromText(name, 100).Text(), name);
    EXPECT_EQ(CStringId("nobody knows").Text(), null);
    CStringId::UnregisterAll();
}
