#pragma once
// The components of a stream's stored fields, with names, read as numbers.

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <string>
#include <vector>

namespace ParticlesTool
{
using namespace Tessaly;

// One component of a field.
struct SColumn
{
    u32 m_Field;
    u32 m_Offset;       // bytes from the start of the value
    EBaseTypeID m_Type; // of the component
    std::string m_Name; // the field's name, with .x to .w appended if it has several components
};

// The registered name of a field, or "field N".
std::string FieldName(const SParticleStreamDef &def, u32 field);

// The components of all stored fields whose type has components.
std::vector<SColumn> FindColumns(const SParticleStreamDef &def);

// Converts a value of that type to a number; a 64-bit integer is rounded.
double ToNumber(const u8 *value, EBaseTypeID type);

// Calls fn(row) for each particle; row(column) returns the address of the particle's value in that column.
template <typename _Fn>
void ForEachParticle(const CParticleStream_MainMemory &stream, _Fn &&fn)
{
    const CScopedPagesLock lock(stream);
    for (u32 p = 0; p < stream.PageCount(); ++p)
    {
        const CParticlePage &page = *stream.Page(CGuid(p));
        const SParticleStreamField *fields = page.Streams().Data();
        for (u32 i = 0; i < page.ParticleCount(); ++i)
        {
            fn(
                [&](const SColumn &column)
                {
                    const SParticleStreamField &field = fields[column.m_Field];
                    return field.m_RawDataPtr + size_t(i) * field.m_Definition.m_StorageSize + column.m_Offset;
                });
        }
    }
}

// Minimum and maximum of a column, ignoring NaN; m_Min > m_Max if there is no value.
struct SRange
{
    double m_Min, m_Max;
};
std::vector<SRange> FindRanges(const CParticleStream_MainMemory &stream, const std::vector<SColumn> &columns);
} // namespace ParticlesTool
