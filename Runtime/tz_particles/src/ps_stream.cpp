// Stream definitions.
#include <tz_particles/include/ps_stream.h>

namespace Tessaly
{

bool SParticleStreamDef::Copy(const SParticleStreamDef &other)
{
    if (this == &other)
        return true;
    if (!m_StreamDef.Reserve(other.m_StreamDef.Count()))
        return false;
    m_StreamDef.Clear();
    for (const SParticleStreamFieldDef &field : other.m_StreamDef.View())
        m_StreamDef.PushBackUnsafe(field);
    return true;
}

bool SParticleStreamDef::operator==(const SParticleStreamDef &other) const
{
    const TMemoryView<const SParticleStreamFieldDef> fields = m_StreamDef.View();
    const TMemoryView<const SParticleStreamFieldDef> otherFields = other.m_StreamDef.View();
    if (fields.Count() != otherFields.Count())
        return false;
    for (u32 i = 0; i < fields.Count(); ++i)
    {
        if (fields[i] != otherFields[i])
            return false;
    }
    return true;
}

CGuid SParticleStreamDef::_Add(CStringId name, EBaseTypeID type, bool isConstant)
{
    const CGuid namesake = StreamId(name);
    const char *text = name.Text() != null ? name.Text() : "not registered";
    const bool hasSize = type > BaseType_Void && type < __MaxBaseTypes;
    TZ_ASSERT_MESSAGE(!name.Empty(), "field %u of the definition needs a name: CStringId(0) is none",
                      m_StreamDef.Count());
    TZ_ASSERT_MESSAGE(!namesake.Valid(), "field %u of the definition has the name %u (\"%s\") already", namesake.Get(),
                      name.m_Id, text);
    TZ_ASSERT_MESSAGE(hasSize, "field %u (\"%s\") can not be of type %d, which has no size", name.m_Id, text,
                      int(type));
    if (name.Empty() || namesake.Valid() || !hasSize)
        return CGuid::INVALID;
    const u32 storageSize = isConstant ? 0 : CBaseTypeTraits::Traits(type).Size;
    return m_StreamDef.PushBack(SParticleStreamFieldDef(name, type, storageSize));
}

CGuid SParticleStreamDef::StreamId(CStringId nameGUID) const
{
    if (nameGUID.Empty())
        return CGuid::INVALID;
    for (u32 i = 0; i < m_StreamDef.Count(); ++i)
    {
        if (m_StreamDef[i].m_NameGUID == nameGUID)
            return CGuid(i);
    }
    return CGuid::INVALID;
}

} // namespace Tessaly
