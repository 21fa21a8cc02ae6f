#include "layout.h"

#include <cstring>

namespace Wind
{
namespace
{
enum EName : u32
{
    Name_Position = 1,
    Name_PreviousPosition,
    Name_Speed,
    Name_Age,
    Name_Lifetime,
    Name_Brightness,
    Name_Travelled,
    Name_Tint,
    Name_Fade
};

const CFloat2 kFade = {0.15f, 0.35f};

CGuid FindField(const CParticleStream_MainMemory &stream, EName name) { return stream.StreamId(CStringId(name)); }
} // namespace

void CLayout::AddField(CStringId name, EBaseTypeID type)
{
    m_Definition.m_StreamDef.PushBack(SParticleStreamFieldDef(name, type, CBaseTypeTraits::Traits(type).Size));
    m_ConstantSlots.push_back(CGuid::INVALID);
}

void CLayout::AddConstant(CStringId name, EBaseTypeID type, const void *value)
{
    S64Bytes block = {};
    std::memcpy(block.m_Data, value, CBaseTypeTraits::Traits(type).Size);
    m_Definition.m_StreamDef.PushBack(SParticleStreamFieldDef(name, type, 0));
    m_ConstantSlots.push_back(CGuid(u32(m_Constants.size())));
    m_Constants.push_back(block);
}

void CLayout::BindTo(CParticleStream_MainMemory &stream) const
{
    const TMemoryView<const S64Bytes> constants(m_Constants.data(), u32(m_Constants.size()));
    const TStridedMemoryView<const CGuid> slots(m_ConstantSlots.data(), u32(m_ConstantSlots.size()), sizeof(CGuid));
    stream.BindStreamDef(&m_Definition, constants, slots, SParticleImplementationCache());
}

void MakeFirstLayout(CLayout &outLayout)
{
    outLayout.AddField(CStringId(Name_Position), BaseType_Float2);
    outLayout.AddField(CStringId(Name_PreviousPosition), BaseType_Float2);
    outLayout.AddField(CStringId(Name_Age), BaseType_Float);
    outLayout.AddField(CStringId(Name_Lifetime), BaseType_Float);
    outLayout.AddField(CStringId(Name_Speed), BaseType_Float);
    outLayout.AddField(CStringId(Name_Brightness), BaseType_Float);
    outLayout.AddField(CStringId(Name_Tint), BaseType_Float3);
    outLayout.AddConstant(CStringId(Name_Fade), BaseType_Float2, &kFade);
}

void MakeEditedLayout(CLayout &outLayout, const CFloat3 &tint)
{
    outLayout.AddField(CStringId(Name_Age), BaseType_I32);
    outLayout.AddField(CStringId(Name_Lifetime), BaseType_Float);
    outLayout.AddConstant(CStringId(Name_Fade), BaseType_Float2, &kFade);
    outLayout.AddField(CStringId(Name_Position), BaseType_Float3);
    outLayout.AddField(CStringId(Name_PreviousPosition), BaseType_Float2);
    outLayout.AddConstant(CStringId(Name_Tint), BaseType_Float3, &tint);
    outLayout.AddField(CStringId(Name_Travelled), BaseType_Float);
    outLayout.AddField(CStringId(Name_Brightness), BaseType_Float);
}

SFields FindFields(const CParticleStream_MainMemory &stream)
{
    SFields fields;
    fields.m_Position = FindField(stream, Name_Position);
    fields.m_PreviousPosition = FindField(stream, Name_PreviousPosition);
    fields.m_Speed = FindField(stream, Name_Speed);
    fields.m_Age = FindField(stream, Name_Age);
    fields.m_Lifetime = FindField(stream, Name_Lifetime);
    fields.m_Brightness = FindField(stream, Name_Brightness);
    fields.m_Travelled = FindField(stream, Name_Travelled);
    fields.m_Tint = FindField(stream, Name_Tint);
    fields.m_Fade = FindField(stream, Name_Fade);
    fields.m_AgeIsInteger = !CBaseTypeTraits::Traits(stream.StreamDef(fields.m_Age).m_Type).IsFp;
    fields.m_TintIsStored = stream.StreamDef(fields.m_Tint).m_StorageSize != 0;
    return fields;
}
} // namespace Wind
