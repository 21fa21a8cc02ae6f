#include "layout.h"

#include <cstring>

namespace Wind
{
namespace
{
constexpr char kNamePosition[] = "position";
constexpr char kNamePreviousPosition[] = "previous position";
constexpr char kNameSpeed[] = "speed";
constexpr char kNameAge[] = "age";
constexpr char kNameLifetime[] = "lifetime";
constexpr char kNameBrightness[] = "brightness";
constexpr char kNameTravelled[] = "travelled";
constexpr char kNameTint[] = "tint";
constexpr char kNameFade[] = "fade";

const CFloat2 kFade = {0.15f, 0.35f};
} // namespace

void CLayout::AddField(const char *name, EBaseTypeID type)
{
    m_Definition.Add(CStringId::Register(name), type);
    m_ConstantSlots.push_back(CGuid::INVALID);
}

void CLayout::AddConstant(const char *name, EBaseTypeID type, const void *value)
{
    S64Bytes block = {};
    std::memcpy(block.m_Data, value, CBaseTypeTraits::Traits(type).Size);
    m_Definition.AddConstant(CStringId::Register(name), type);
    m_ConstantSlots.push_back(CGuid(u32(m_Constants.size())));
    m_Constants.push_back(block);
}

void CLayout::BindTo(CParticleStream_MainMemory &stream) const
{
    stream.BindStreamDef(&m_Definition, m_Constants, m_ConstantSlots, SParticleImplementationCache());
}

void MakeFirstLayout(CLayout &outLayout)
{
    outLayout.AddField(kNamePosition, BaseType_Float2);
    outLayout.AddField(kNamePreviousPosition, BaseType_Float2);
    outLayout.AddField(kNameAge, BaseType_Float);
    outLayout.AddField(kNameLifetime, BaseType_Float);
    outLayout.AddField(kNameSpeed, BaseType_Float);
    outLayout.AddField(kNameBrightness, BaseType_Float);
    outLayout.AddField(kNameTint, BaseType_Float3);
    outLayout.AddConstant(kNameFade, BaseType_Float2, &kFade);
}

void MakeEditedLayout(CLayout &outLayout, const CFloat3 &tint)
{
    outLayout.AddField(kNameAge, BaseType_I32);
    outLayout.AddField(kNameLifetime, BaseType_Float);
    outLayout.AddConstant(kNameFade, BaseType_Float2, &kFade);
    outLayout.AddField(kNamePosition, BaseType_Float3);
    outLayout.AddField(kNamePreviousPosition, BaseType_Float2);
    outLayout.AddConstant(kNameTint, BaseType_Float3, &tint);
    outLayout.AddField(kNameTravelled, BaseType_Float);
    outLayout.AddField(kNameBrightness, BaseType_Float);
}

SFields FindFields(const CParticleStream_MainMemory &stream)
{
    SFields fields;
    fields.m_Position = stream.StreamId(CStringId(kNamePosition));
    fields.m_PreviousPosition = stream.StreamId(CStringId(kNamePreviousPosition));
    fields.m_Speed = stream.StreamId(CStringId(kNameSpeed));
    fields.m_Age = stream.StreamId(CStringId(kNameAge));
    fields.m_Lifetime = stream.StreamId(CStringId(kNameLifetime));
    fields.m_Brightness = stream.StreamId(CStringId(kNameBrightness));
    fields.m_Travelled = stream.StreamId(CStringId(kNameTravelled));
    fields.m_Tint = stream.StreamId(CStringId(kNameTint));
    fields.m_Fade = stream.StreamId(CStringId(kNameFade));
    fields.m_AgeIsInteger = !CBaseTypeTraits::Traits(stream.StreamDef(fields.m_Age).m_Type).IsFp;
    fields.m_TintIsStored = stream.StreamDef(fields.m_Tint).m_StorageSize != 0;
    return fields;
}
} // namespace Wind
