// The base value types as the model knows them, and its conversion of values: one component of one row at a time.
#pragma once

#include <tz_defs.h>

namespace Tessaly
{
namespace Model
{

enum class EComponent : u8
{
    None,
    Bool,
    Unsigned,
    Signed,
    Float,
};

struct SNaiveType
{
    EComponent m_Component;
    u32 m_Width; // bytes of one component
    u32 m_Dimension;

    u32 Bytes() const { return m_Width * m_Dimension; }
    bool IsFp() const { return m_Component == EComponent::Float; }
};

SNaiveType NaiveType(int baseTypeId);

// Converts the components that lie wholly inside both rows; the other bytes of dst stay. Row sizes in bytes.
void ConvertRow(const SNaiveType &srcType, const u8 *src, u32 srcBytes, const SNaiveType &dstType, u8 *dst,
                u32 dstBytes);

} // namespace Model
} // namespace Tessaly
