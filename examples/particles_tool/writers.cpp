#include "writers.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

namespace ParticlesTool
{
namespace
{
// A file that remembers whether all writes succeeded.
class CWriter : CNonCopyable
{
public:
    explicit CWriter(const std::string &path)
        : m_File(std::fopen(path.c_str(), "wb"))
    {
    }
    ~CWriter() { Close(); }

    void Put(const void *bytes, size_t count)
    {
        m_IsWritten = m_IsWritten && m_File != nullptr && std::fwrite(bytes, 1, count, m_File) == count;
    }
    void Put(const std::string &text) { Put(text.data(), text.size()); }
    bool Close()
    {
        if (m_File != nullptr)
            m_IsWritten = std::fclose(m_File) == 0 && m_IsWritten;
        else
            m_IsWritten = m_IsWritten && m_IsClosed;
        m_File = nullptr;
        m_IsClosed = true;
        return m_IsWritten;
    }

private:
    std::FILE *m_File;
    bool m_IsWritten = true, m_IsClosed = false;
};

// PLY's name of a type. 64-bit integers become doubles, because PLY has none.
const char *PlyType(EBaseTypeID type)
{
    switch (type)
    {
    case BaseType_I8:
        return "char";
    case BaseType_U16:
        return "ushort";
    case BaseType_I16:
        return "short";
    case BaseType_U32:
        return "uint";
    case BaseType_I32:
        return "int";
    case BaseType_U64:
    case BaseType_I64:
    case BaseType_Double:
        return "double";
    case BaseType_Float:
        return "float";
    default:
        return "uchar";
    }
}

// The names that viewers know for colours, otherwise the column's name with '_' for what PLY does not allow in a name.
std::string PlyName(const SColumn &column)
{
    for (const char *colour : {"color", "colour"})
    {
        static const char *const channels[] = {"red", "green", "blue", "alpha"};
        for (int i = 0; i < 4; ++i)
        {
            if (column.m_Type == BaseType_U8 && column.m_Name == std::string(colour) + "." + "xyzw"[i])
                return channels[i];
        }
    }
    std::string name = column.m_Name;
    std::replace_if(
        name.begin(), name.end(), [](char letter) { return std::isalnum(static_cast<unsigned char>(letter)) == 0; },
        '_');
    return name;
}

std::string ToText(const u8 *value, EBaseTypeID type)
{
    char text[32];
    const double number = ToNumber(value, type);
    if (type == BaseType_U64 || type == BaseType_I64)
        return type == BaseType_U64 ? std::to_string(*reinterpret_cast<const u64 *>(value))
                                    : std::to_string(*reinterpret_cast<const s64 *>(value));
    std::snprintf(text, sizeof(text), "%.*g", type == BaseType_Float ? 9 : 17, number);
    return text;
}
} // namespace

bool WriteCsv(const std::string &path, const CParticleStream_MainMemory &stream, const std::vector<SColumn> &columns)
{
    CWriter file(path);
    for (const SColumn &column : columns)
    {
        std::string name = column.m_Name;
        for (size_t at = 0; (at = name.find('"', at)) != std::string::npos; at += 2)
            name.insert(at, 1, '"');
        file.Put((&column == columns.data() ? "\"" : ",\"") + name + "\"");
    }
    file.Put("\n");
    ForEachParticle(stream,
                    [&](const auto &row)
                    {
                        std::string line;
                        for (const SColumn &column : columns)
                            line += (line.empty() ? "" : ",") + ToText(row(column), column.m_Type);
                        file.Put(line + "\n");
                    });
    return file.Close();
}

bool WritePly(const std::string &path, const CParticleStream_MainMemory &stream, const std::vector<SColumn> &columns,
              u32 positionCount)
{
    CWriter file(path);
    file.Put("ply\nformat binary_little_endian 1.0\nelement vertex " + std::to_string(stream.ParticleCount()) +
             "\nproperty float x\nproperty float y\nproperty float z\n");
    for (size_t i = positionCount; i < columns.size(); ++i)
        file.Put(std::string("property ") + PlyType(columns[i].m_Type) + " " + PlyName(columns[i]) + "\n");
    file.Put("end_header\n");
    ForEachParticle(stream,
                    [&](const auto &row)
                    {
                        float position[3] = {};
                        for (u32 i = 0; i < positionCount; ++i)
                            position[i] = float(ToNumber(row(columns[i]), columns[i].m_Type));
                        file.Put(position, sizeof(position));
                        for (size_t i = positionCount; i < columns.size(); ++i)
                        {
                            const EBaseTypeID type = columns[i].m_Type;
                            const double number = ToNumber(row(columns[i]), type);
                            if (type == BaseType_U64 || type == BaseType_I64)
                                file.Put(&number, sizeof(number));
                            else
                                file.Put(row(columns[i]), CBaseTypeTraits::Traits(type).Size);
                        }
                    });
    return file.Close();
}

bool WritePng(const std::string &path, const CParticleStream_MainMemory &stream, const SColumn (&axes)[2], u32 width,
              u32 height)
{
    const std::vector<SRange> ranges = FindRanges(stream, {axes[0], axes[1]});
    const u32 sizes[2] = {width, height};
    std::vector<u32> counts(size_t(width) * height);
    u32 most = 1;
    ForEachParticle(stream,
                    [&](const auto &row)
                    {
                        u32 pixel[2];
                        for (u32 i = 0; i < 2; ++i)
                        {
                            const double extent = ranges[i].m_Max - ranges[i].m_Min;
                            const double value = ToNumber(row(axes[i]), axes[i].m_Type) - ranges[i].m_Min;
                            const double share = extent > 0.0 ? value / extent : 0.5;
                            if (!(share >= 0.0 && share <= 1.0))
                                return; // NaN, or an infinite range
                            pixel[i] = u32(share * (sizes[i] - 1) + 0.5);
                        }
                        u32 &count = counts[size_t(height - 1 - pixel[1]) * width + pixel[0]];
                        most = std::max(most, ++count);
                    });
    std::vector<u8> shades(counts.size());
    std::transform(counts.begin(), counts.end(), shades.begin(),
                   [&](u32 count)
                   { return count == 0 ? u8(0) : u8(55.5 + 200.0 * std::log1p(count) / std::log1p(most)); });
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_GRAY;
    std::FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        return false;
    const bool isWritten = png_image_write_to_stdio(&image, file, 0, shades.data(), 0, nullptr) != 0;
    return std::fclose(file) == 0 && isWritten;
}
} // namespace ParticlesTool
