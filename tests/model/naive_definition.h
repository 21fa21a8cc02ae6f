// A definition with the constants and the table of constant slots that go with it, all made from a number: two of one
// number are equal and yet two objects.
#pragma once

#include <memory>
#include <vector>

#include <tz_particles/include/ps_stream.h>

#include "operation.h"

namespace Tessaly::Model
{

struct SNaiveDefinition
{
    SNaiveDefinition() = default; // no fields, no constants
    explicit SNaiveDefinition(u32 number);

    TMemoryView<const S64Bytes> ConstantData() const { return {m_Constants.data(), u32(m_Constants.size())}; }
    TStridedMemoryView<const CGuid> Slots() const;
    u32 Slot(u32 field) const; // the table's entry
    const u8 *Constant(u32 slot) const { return reinterpret_cast<const u8 *>(&m_Constants[slot]); }

    u32 m_Number = 0;
    std::vector<SParticleStreamFieldDef> m_Fields;
    SParticleStreamDef m_Def; // m_Fields again, for the library
    std::vector<S64Bytes> m_Constants;
    std::vector<u8> m_SlotTable;
    u32 m_SlotStride = 0; // bytes; at times odd
    u32 m_SlotCount = 0;
    bool m_HasSlots = false; // false: the table is a null pointer
};

using PNaiveDefinition = std::shared_ptr<const SNaiveDefinition>;

// Converts the components that lie wholly inside both rows; the other bytes of dst stay. Row sizes in bytes.
void ConvertRow(const CBaseTypeTraits &srcType, const u8 *src, u32 srcBytes, const CBaseTypeTraits &dstType, u8 *dst,
                u32 dstBytes);

// A word that floats or integers treat in a way of its own: limits, fractions, what does not fit.
u32 SpecialWord(CRandom &random);

} // namespace Tessaly::Model
