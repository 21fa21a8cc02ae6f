// What an owner lends to a stream: a definition, constant data and a slot table, made from a number.
//
// The same number makes the same contents, so that two loans of one number are equal and yet two objects.
#pragma once

#include <memory>
#include <vector>

#include <tz_particles/include/ps_stream.h>

namespace Tessaly
{
namespace Model
{

struct SNaiveField
{
    u32 m_Size; // bytes; 0: constant
    int m_Type;
    u32 m_Name;

    bool operator==(const SNaiveField &other) const
    {
        return m_Size == other.m_Size && m_Type == other.m_Type && m_Name == other.m_Name;
    }
};

struct SLoan
{
    explicit SLoan(u32 number);

    TMemoryView<const S64Bytes> ConstantData() const { return {m_Constants.data(), u32(m_Constants.size())}; }
    TStridedMemoryView<const CGuid> Slots() const;
    // The entry of a field that the table holds.
    u32 Slot(u32 field) const;
    const u8 *Constant(u32 slot) const { return reinterpret_cast<const u8 *>(&m_Constants[slot]); }

    u32 m_Number;
    std::vector<SNaiveField> m_Fields;
    SParticleStreamDef m_Def; // m_Fields again, as the library wants them
    std::vector<S64Bytes> m_Constants;
    std::vector<u8> m_SlotTable;
    u32 m_SlotStride; // bytes; at times odd
    u32 m_SlotCount;
    bool m_HasSlots; // false: the table is a null pointer

private:
    SNaiveField _MakeField(class CRandom &random, u32 nameCount, bool isConstant);
};

using PLoan = std::shared_ptr<const SLoan>;

} // namespace Model
} // namespace Tessaly
