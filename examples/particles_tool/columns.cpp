#include "columns.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace ParticlesTool
{
namespace
{
template <typename _Type>
double Read(const u8 *value)
{
    _Type number;
    std::memcpy(&number, value, sizeof(number));
    return double(number);
}
} // namespace

std::string FieldName(const SParticleStreamDef &def, u32 field)
{
    const char *text = def.m_StreamDef[field].m_NameGUID.Text();
    return text != nullptr ? text : "field " + std::to_string(field);
}

std::vector<SColumn> FindColumns(const SParticleStreamDef &def)
{
    std::vector<SColumn> columns;
    for (u32 i = 0; i < def.m_StreamDef.Count(); ++i)
    {
        const SParticleStreamFieldDef &field = def.m_StreamDef[i];
        const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(field.m_Type);
        if (traits.Size == 0 || field.m_StorageSize < traits.Size)
            continue;
        for (u32 component = 0; component < traits.VectorDimension; ++component)
        {
            std::string name = FieldName(def, i);
            if (traits.VectorDimension > 1)
                name += std::string(".") + "xyzw"[component];
            columns.push_back({i, traits.Size / traits.VectorDimension * component, traits.ScalarType, name});
        }
    }
    return columns;
}

double ToNumber(const u8 *value, EBaseTypeID type)
{
    switch (type)
    {
    case BaseType_I8:
        return Read<s8>(value);
    case BaseType_U16:
        return Read<u16>(value);
    case BaseType_I16:
        return Read<s16>(value);
    case BaseType_U32:
        return Read<u32>(value);
    case BaseType_I32:
        return Read<s32>(value);
    case BaseType_U64:
        return Read<u64>(value);
    case BaseType_I64:
        return Read<s64>(value);
    case BaseType_Float:
        return Read<float>(value);
    case BaseType_Double:
        return Read<double>(value);
    default:
        return *value;
    }
}

std::vector<SRange> FindRanges(const CParticleStream_MainMemory &stream, const std::vector<SColumn> &columns)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    std::vector<SRange> ranges(columns.size(), {infinity, -infinity});
    ForEachParticle(stream,
                    [&](const auto &row)
                    {
                        for (size_t i = 0; i < columns.size(); ++i)
                        {
                            const double value = ToNumber(row(columns[i]), columns[i].m_Type);
                            ranges[i].m_Min = value < ranges[i].m_Min ? value : ranges[i].m_Min;
                            ranges[i].m_Max = value > ranges[i].m_Max ? value : ranges[i].m_Max;
                        }
                    });
    return ranges;
}
} // namespace ParticlesTool
