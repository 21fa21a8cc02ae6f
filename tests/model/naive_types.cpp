#include "naive_types.h"

#include <cmath>
#include <cstring>

namespace Tessaly
{
namespace Model
{

namespace
{

template <typename _Type>
_Type Read(const u8 *bytes)
{
    _Type value;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}

double ReadFloat(const u8 *bytes, u32 width) { return width == 4 ? double(Read<float>(bytes)) : Read<double>(bytes); }

void WriteFloat(u8 *bytes, u32 width, double value)
{
    const float narrow = static_cast<float>(value);
    std::memcpy(bytes, width == 4 ? static_cast<const void *>(&narrow) : &value, width);
}

// Two's complement, extended to 64 bits by the component's own sign.
u64 ReadInteger(const SNaiveType &type, const u8 *bytes)
{
    u64 value = 0;
    for (u32 i = 0; i < type.m_Width; ++i)
        value |= u64(bytes[i]) << (8 * i);
    if (type.m_Component == EComponent::Bool)
        return value != 0 ? 1 : 0;
    const bool isNegative = type.m_Component == EComponent::Signed && (bytes[type.m_Width - 1] & 0x80) != 0;
    return isNegative && type.m_Width < 8 ? value | (~u64(0) << (8 * type.m_Width)) : value;
}

void WriteInteger(const SNaiveType &type, u8 *bytes, u64 value)
{
    if (type.m_Component == EComponent::Bool)
        value = value != 0 ? 1 : 0;
    for (u32 i = 0; i < type.m_Width; ++i)
        bytes[i] = static_cast<u8>(value >> (8 * i));
}

// Toward zero; what a signed 32-bit integer can not hold gives its least value.
s32 Truncate(double value)
{
    const double whole = std::trunc(value);
    return whole >= -2147483648.0 && whole <= 2147483647.0 ? static_cast<s32>(whole) : s32(-2147483647 - 1);
}

void IntegerToFloat(const SNaiveType &srcType, const u8 *src, u32 dstWidth, u8 *dst)
{
    const u64 value = ReadInteger(srcType, src);
    // Between 32-bit lanes every integer counts as signed.
    const bool isLane = srcType.m_Width == 4 && dstWidth == 4;
    const s64 signedValue = isLane ? s64(Read<s32>(src)) : s64(value);
    const bool isSigned = isLane || srcType.m_Component == EComponent::Signed;
    const float narrow = isSigned ? static_cast<float>(signedValue) : static_cast<float>(value);
    const double wide = isSigned ? static_cast<double>(signedValue) : static_cast<double>(value);
    std::memcpy(dst, dstWidth == 4 ? static_cast<const void *>(&narrow) : &wide, dstWidth);
}

void ConvertComponent(const SNaiveType &srcType, const u8 *src, const SNaiveType &dstType, u8 *dst)
{
    if (srcType.IsFp() && dstType.IsFp())
    {
        if (srcType.m_Width == dstType.m_Width)
            std::memcpy(dst, src, srcType.m_Width);
        else
            WriteFloat(dst, dstType.m_Width, ReadFloat(src, srcType.m_Width));
    }
    else if (srcType.IsFp())
        WriteInteger(dstType, dst, u64(s64(Truncate(ReadFloat(src, srcType.m_Width)))));
    else if (dstType.IsFp())
        IntegerToFloat(srcType, src, dstType.m_Width, dst);
    else
        WriteInteger(dstType, dst, ReadInteger(srcType, src));
}

} // namespace

SNaiveType NaiveType(int baseTypeId)
{
    static const struct
    {
        int m_First, m_Last;
        EComponent m_Component;
        u32 m_Width;
    } kFamilies[] = {
        {1, 4, EComponent::Bool, 1},       {5, 8, EComponent::Unsigned, 1},   {9, 12, EComponent::Signed, 1},
        {13, 16, EComponent::Unsigned, 2}, {17, 20, EComponent::Signed, 2},   {21, 24, EComponent::Unsigned, 4},
        {25, 28, EComponent::Signed, 4},   {29, 29, EComponent::Unsigned, 8}, {30, 30, EComponent::Signed, 8},
        {31, 34, EComponent::Float, 4},    {35, 35, EComponent::Float, 8}};
    for (const auto &family : kFamilies)
    {
        if (baseTypeId >= family.m_First && baseTypeId <= family.m_Last)
            return {family.m_Component, family.m_Width, u32(baseTypeId - family.m_First + 1)};
    }
    return baseTypeId == 36 ? SNaiveType{EComponent::Float, 4, 4} : SNaiveType{EComponent::None, 0, 0};
}

void ConvertRow(const SNaiveType &srcType, const u8 *src, u32 srcBytes, const SNaiveType &dstType, u8 *dst,
                u32 dstBytes)
{
    if (srcType.m_Dimension == 0 || dstType.m_Dimension == 0)
        return;
    const u32 dimension = srcType.Bytes() < dstType.Bytes() ? srcType.m_Dimension : dstType.m_Dimension;
    for (u32 i = 0; i < dimension; ++i)
    {
        if ((i + 1) * srcType.m_Width <= srcBytes && (i + 1) * dstType.m_Width <= dstBytes)
            ConvertComponent(srcType, src + i * srcType.m_Width, dstType, dst + i * dstType.m_Width);
    }
}

} // namespace Model
} // namespace Tessaly
