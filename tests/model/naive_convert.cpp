// The model's conversion of values: one component of one row at a time, by way of a number that holds every component's
// value exactly.
#include <cmath>
#include <cstring>

#include "naive_definition.h"

namespace Tessaly::Model
{

static_assert(std::numeric_limits<long double>::digits >= 64, "all 64-bit integers are exact");

template <typename _Type>
static _Type Read(const u8 *bytes, u32 width)
{
    _Type value = 0;
    std::memcpy(&value, bytes, width);
    return value;
}

static long double ReadComponent(const CBaseTypeTraits &type, const u8 *bytes)
{
    if (type.IsFp)
        return type.Size == 4 ? static_cast<long double>(Read<float>(bytes, 4)) : Read<double>(bytes, 8);
    const u64 value = Read<u64>(bytes, type.Size);
    const u32 unusedBits = 64 - 8 * type.Size;
    if (type.IsSigned)
        return static_cast<long double>(s64(value << unusedBits) >> unusedBits);
    return static_cast<long double>(type.Self == BaseType_Bool && value != 0 ? 1 : value);
}

static void WriteComponent(const CBaseTypeTraits &type, u8 *bytes, long double value)
{
    const float narrow = static_cast<float>(value);
    const double wide = static_cast<double>(value);
    if (type.IsFp)
    {
        std::memcpy(bytes, type.Size == 4 ? static_cast<const void *>(&narrow) : &wide, type.Size);
        return;
    }
    const u64 whole = value < 0 ? u64(static_cast<s64>(value)) : static_cast<u64>(value);
    const u64 stored = type.Self == BaseType_Bool && whole != 0 ? 1 : whole;
    std::memcpy(bytes, &stored, type.Size);
}

// The types are those of one component.
static void ConvertComponent(const CBaseTypeTraits &srcType, const u8 *src, const CBaseTypeTraits &dstType, u8 *dst)
{
    if (srcType.IsFp && srcType.Self == dstType.Self)
    {
        std::memcpy(dst, src, srcType.Size);
        return;
    }
    const bool countsAsSigned = srcType.Self == BaseType_U32 && dstType.Self == BaseType_Float;
    long double value = ReadComponent(countsAsSigned ? CBaseTypeTraits::Traits(BaseType_I32) : srcType, src);
    // Toward zero; what a signed 32-bit integer can not hold gives its least value.
    if (srcType.IsFp && !dstType.IsFp)
        value = value > -2147483649.0L && value < 2147483648.0L ? std::trunc(value) : -2147483648.0L;
    WriteComponent(dstType, dst, value);
}

void ConvertRow(const CBaseTypeTraits &srcType, const u8 *src, u32 srcBytes, const CBaseTypeTraits &dstType, u8 *dst,
                u32 dstBytes)
{
    const CBaseTypeTraits &from = CBaseTypeTraits::Traits(srcType.ScalarType);
    const CBaseTypeTraits &to = CBaseTypeTraits::Traits(dstType.ScalarType);
    const u32 dimension = srcType.Size < dstType.Size ? srcType.VectorDimension : dstType.VectorDimension;
    for (u32 i = 0; i < dimension && from.Size != 0 && to.Size != 0; ++i)
    {
        if ((i + 1) * from.Size <= srcBytes && (i + 1) * to.Size <= dstBytes)
            ConvertComponent(from, src + i * from.Size, to, dst + i * to.Size);
    }
}

} // namespace Tessaly::Model
