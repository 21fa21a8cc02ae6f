// Stream definitions: comparison, search by name, duplication.
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
