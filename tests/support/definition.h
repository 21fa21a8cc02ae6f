// A stream definition with its constant data and its slot table, owned together and built a field at a time:
//
//   CDefinition definition;
//   definition.Stored(kPosition, BaseType_Float3, 12).Constant(kColour, BaseType_Float4, CFloat4(1, 0, 0, 1));
//   definition.BindTo(stream);
#pragma once

#include <cstring>
#include <vector>

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

namespace Tessaly::Tests
{

enum EFieldName : u32
{
    Position = 1,
    Life,
    Colour,
    Tag,
    Extra,
};

// It must outlive every stream that is bound to it, and be complete before it is bound.
class CDefinition : public CNonCopyable
{
public:
    CDefinition() = default;

    CDefinition &Stored(u32 name, EBaseTypeID type, u32 storageSize) // in bytes
    {
        m_Def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId(name), type, storageSize));
        m_Slots.push_back(CGuid::INVALID);
        return *this;
    }
    // A stored field of the type's own size.
    CDefinition &Stored(u32 name, EBaseTypeID type) { return Stored(name, type, CBaseTypeTraits::Traits(type).Size); }

    // A constant field with a value of its own.
    template <typename _Type>
    CDefinition &Constant(u32 name, EBaseTypeID type, const _Type &value)
    {
        static_assert(sizeof(_Type) <= sizeof(S64Bytes), "a constant has 64 bytes");
        S64Bytes block = {};
        std::memcpy(&block, &value, sizeof(_Type));
        m_Blocks.push_back(block);
        return ConstantAt(name, type, CGuid(u32(m_Blocks.size()) - 1));
    }
    // A constant field with any slot: one that is shared, invalid or out of range.
    CDefinition &ConstantAt(u32 name, EBaseTypeID type, CGuid slot)
    {
        m_Def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId(name), type, 0));
        m_Slots.push_back(slot);
        return *this;
    }

    const SParticleStreamDef &Def() const { return m_Def; }
    TMemoryView<const S64Bytes> ConstantData() const { return {m_Blocks.data(), u32(m_Blocks.size())}; }
    TStridedMemoryView<const CGuid> Slots() const { return {m_Slots.data(), u32(m_Slots.size())}; }

    void BindTo(CParticleStream_MainMemory &stream) const
    {
        stream.BindStreamDef(&m_Def, ConstantData(), Slots(), SParticleImplementationCache());
    }

private:
    SParticleStreamDef m_Def;
    std::vector<S64Bytes> m_Blocks;
    std::vector<CGuid> m_Slots;
};

} // namespace Tessaly::Tests
