// Stream definitions, their fields, and a field's storage.

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

class Definition : public CStreamTest
{
};

TEST_F(Definition, ComparesByPositionAndEveryMember)
{
    CDefinition same, reversed, otherSize, otherType;
    same.Stored(1, BaseType_Float3, 12).Stored(2, BaseType_Float, 4);
    reversed.Stored(2, BaseType_Float, 4).Stored(1, BaseType_Float3, 12);
    otherSize.Stored(1, BaseType_Float3, 16).Stored(2, BaseType_Float, 4);
    otherType.Stored(1, BaseType_Int3, 12).Stored(2, BaseType_Float, 4);
    SParticleStreamDef copy;
    EXPECT_TRUE(copy == SParticleStreamDef());
    EXPECT_TRUE(copy.Copy(same.Def()));
    EXPECT_TRUE(copy == same.Def());
    for (const CDefinition *other : {&reversed, &otherSize, &otherType})
        EXPECT_TRUE(copy != other->Def());
    EXPECT_EQ(copy.m_StreamDef[0].m_StorageSize, 12u);
    EXPECT_TRUE(copy.Copy(copy));
    EXPECT_EQ(copy.m_StreamDef.Count(), 2u);
    m_Memory.RefuseFrom(1);
    EXPECT_FALSE(copy.Copy(otherSize.Def()));
    m_Reports.Expect({"false"});
    EXPECT_TRUE(copy == same.Def());
    EXPECT_TRUE(copy.Copy(SParticleStreamDef()));
    EXPECT_TRUE(copy.Empty());
}

TEST_F(Definition, FindsTheFirstFieldOfAName)
{
    CDefinition definition;
    definition.Stored(0, BaseType_Float).Stored(7, BaseType_Float).Stored(7, BaseType_Int2);
    EXPECT_EQ(definition.Def().StreamId(CStringId(7)), 1u);
    EXPECT_EQ(definition.Def().StreamId(CStringId(0)), CGuid::INVALID);
    EXPECT_EQ(definition.Def().StreamId(CStringId(8)), CGuid::INVALID);
}

TEST_F(Definition, FieldStorageIsTrashedSwappedAndCleared)
{
    u8 column[15] = {};
    SParticleStreamField field(CStringId(1), BaseType_UByte3, 3), other(SParticleStreamFieldDef{});
    EXPECT_EQ(field.m_RawDataPtr, nullptr);
    EXPECT_EQ(field.m_ParticleCount, 0u);
    field.TrashFrom(0); // no data
    field.m_RawDataPtr = column;
    field.m_ParticleCount = 4;
    field.TrashFrom(3);
    EXPECT_EQ(column[8], 0);
    EXPECT_EQ(column[9], kFreshParticleByte);
    EXPECT_EQ(column[11], kFreshParticleByte);
    EXPECT_EQ(column[12], 0);
    field.TrashFrom(4);
    field.TrashFrom(5);
    field.Swap(other);
    EXPECT_EQ(other.m_RawDataPtr, column);
    EXPECT_EQ(other.m_Definition.m_StorageSize, 3u);
    EXPECT_EQ(field.m_Definition, SParticleStreamFieldDef());
    other.Clear();
    EXPECT_EQ(other.m_RawDataPtr, nullptr);
    EXPECT_EQ(other.m_Definition.m_StorageSize, 3u);
}

} // namespace
} // namespace Tests
} // namespace Tessaly
