#include "naive_definition.h"

#include <cstring>

namespace Tessaly::Model
{

u32 SpecialWord(CRandom &random)
{
    static const u32 kWords[] = {0x00000000, 0x80000000, 0x3F800000, 0xBFF33333, 0x402CCCCD, 0x4EFFFFFF,
                                 0x4F000000, 0xCF000000, 0xCF000001, 0x4F32D05E, 0xCF32D05E, 0x7F800000,
                                 0xFF800000, 0x7FC00000, 0x00000001, 0x007FFFFF, 0x7FFFFFFF, 0xFFFFFFFF,
                                 0x01000001, 0x01000003, 0x0000FFFF, 0x000000FF, 0x3F000000, 0xBF000000};
    return random.OneIn(2) ? random.Pick(kWords) : u32(random.Bits());
}

static u32 FieldCount(CRandom &random)
{
    static const u32 kMany[] = {255, 256, 257, 300};
    return random.OneIn(16) ? random.Pick(kMany) : random.OneIn(12) ? random.Below(2) : 1 + random.Below(7);
}

static SParticleStreamFieldDef MakeField(CRandom &random, u32 nameCount, bool isConstant)
{
    static const u32 kSizes[] = {0, 0, 1, 3, 4, 8, 12, 13, 16, 48};
    const EBaseTypeID type = EBaseTypeID(int(random.Below(38)) - 1);
    u32 size = 0;
    if (!isConstant)
        size = random.OneIn(2) ? CBaseTypeTraits::Traits(type).Size : random.Pick(kSizes);
    return {CStringId(random.Below(nameCount)), type, size};
}

static u32 MakeSlot(CRandom &random, u32 constantCount)
{
    const u32 wrong[] = {constantCount, constantCount + 1, 0x10000u, 0xFFFFFFFEu};
    if (random.OneIn(8))
        return CGuid::INVALID.Get();
    return constantCount == 0 || random.OneIn(10) ? random.Pick(wrong) : random.Below(constantCount);
}

SNaiveDefinition::SNaiveDefinition(u32 number)
    : m_Number(number)
{
    static const u32 kHugeSizes[] = {65535, 65536, 65537, 1048560, 1048576, 1048592, 4194308};
    static const u32 kStrides[] = {4, 4, 4, 0, 8, 12, 20, 5, 7};
    CRandom random(number);
    const u32 fieldCount = FieldCount(random);
    const bool isConstant = random.OneIn(12);
    for (u32 i = 0; i < fieldCount; ++i)
        m_Fields.push_back(MakeField(random, fieldCount < 20 || random.OneIn(2) ? 9 : 400, isConstant));
    if (fieldCount != 0 && fieldCount < 20 && random.OneIn(10))
        m_Fields[random.Below(fieldCount)].m_StorageSize = random.Pick(kHugeSizes);
    for (const SParticleStreamFieldDef &field : m_Fields)
        m_Def.m_StreamDef.PushBack(field);

    m_Constants.resize(random.Below(5));
    for (S64Bytes &constant : m_Constants)
    {
        for (u32 &word : constant.m_Data)
            word = SpecialWord(random);
    }
    m_SlotStride = random.Pick(kStrides);
    m_SlotTable.resize(size_t(fieldCount + 4) * (m_SlotStride + 4));
    for (u32 i = 0; i < fieldCount + 4; ++i)
    {
        const u32 slot = MakeSlot(random, u32(m_Constants.size()));
        std::memcpy(&m_SlotTable[size_t(i) * m_SlotStride], &slot, sizeof(slot));
    }
    const u32 wrongCounts[] = {0, fieldCount / 2, fieldCount + 3};
    m_SlotCount = random.OneIn(16) ? random.Pick(wrongCounts) : fieldCount;
    m_HasSlots = m_SlotCount != 0 || random.OneIn(2);
}

TStridedMemoryView<const CGuid> SNaiveDefinition::Slots() const
{
    return {m_HasSlots ? reinterpret_cast<const CGuid *>(m_SlotTable.data()) : null, m_SlotCount, m_SlotStride};
}

u32 SNaiveDefinition::Slot(u32 field) const
{
    u32 slot;
    std::memcpy(&slot, &m_SlotTable[size_t(field) * m_SlotStride], sizeof(slot));
    return slot;
}

} // namespace Tessaly::Model
