// Conversion of a field's column: 32-bit components in vectors, all others one by one.
#include "storage_ram_convert.h"

#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace Tessaly
{

namespace
{

// The rows of two columns that are still to be converted.
struct SColumnPair
{
    const u8 *m_Src;
    u8 *m_Dst;
    size_t m_SrcStride; // bytes from row to row; 0 for a constant
    size_t m_DstStride;
    u32 m_RowCount;
    u32 m_ComponentCount; // converted in each row

    void SkipRows(u32 rowCount)
    {
        m_Src += rowCount * m_SrcStride;
        m_Dst += rowCount * m_DstStride;
        m_RowCount -= rowCount;
    }
};

template <typename _Type>
_Type Load(const u8 *bytes)
{
    _Type value;
    std::memcpy(&value, bytes, sizeof(_Type)); // storage sizes are arbitrary, so values may be unaligned
    return value;
}

template <>
bool Load<bool>(const u8 *bytes)
{
    return *bytes != 0;
}

// Toward zero; NaN and values out of range give -2147483648. A cast of those would be undefined.
s32 TruncateTo32(float value) { return s32(value >= -2147483648.0f && value < 2147483648.0f ? value : -2147483648.0f); }
s32 TruncateTo32(double value) { return s32(value > -2147483649.0 && value < 2147483648.0 ? value : -2147483648.0); }

template <typename _Out, typename _In>
_Out ConvertComponent(_In value)
{
    if constexpr (std::is_floating_point_v<_In> && std::is_integral_v<_Out>)
        return static_cast<_Out>(TruncateTo32(value));
    else if constexpr (std::is_same_v<_In, u32> && std::is_same_v<_Out, float>)
        return static_cast<float>(s32(value));
    else
        return static_cast<_Out>(value);
}

template <typename _Out, typename _In>
void ConvertRows(const SColumnPair &pair)
{
    const u8 *__restrict src = pair.m_Src;
    u8 *__restrict dst = pair.m_Dst;
    const size_t componentCount = pair.m_ComponentCount;
    for (u32 row = 0; row < pair.m_RowCount; ++row, src += pair.m_SrcStride, dst += pair.m_DstStride)
    {
        for (size_t i = 0; i < componentCount; ++i)
        {
            const _Out value = ConvertComponent<_Out>(Load<_In>(src + i * sizeof(_In)));
            std::memcpy(dst + i * sizeof(_Out), &value, sizeof(_Out));
        }
    }
}

// Calls fn with a value of the C++ type that a scalar type stands for.
template <typename _Fn>
void VisitScalarType(EBaseTypeID scalarType, _Fn fn)
{
    switch (scalarType)
    {
    case BaseType_Bool: // NOLINT(bugprone-branch-clone): the branches differ in their types
        return fn(bool());
    case BaseType_U8:
        return fn(u8());
    case BaseType_I8:
        return fn(s8());
    case BaseType_U16:
        return fn(u16());
    case BaseType_I16:
        return fn(s16());
    case BaseType_U32:
        return fn(u32());
    case BaseType_I32:
        return fn(s32());
    case BaseType_U64:
        return fn(u64());
    case BaseType_I64:
        return fn(s64());
    case BaseType_Float:
        return fn(float());
    default:
        return fn(double());
    }
}

// Four components of 32 bits.
using SWords4 = u32 __attribute__((vector_size(16)));
using SInts4 = s32 __attribute__((vector_size(16)));
using SFloats4 = float __attribute__((vector_size(16)));

SWords4 CopyWords(SWords4 words) { return words; }

SWords4 FloatsToInts(SWords4 words)
{
#if defined(__SSE2__)
    return reinterpret_cast<SWords4>(_mm_cvttps_epi32(reinterpret_cast<__m128>(words)));
#else
    const SFloats4 values = reinterpret_cast<SFloats4>(words);
    const SFloats4 lowest = SFloats4() - 2147483648.0f;
    const SInts4 fits = (values >= lowest) & (values < -lowest);
    return reinterpret_cast<SWords4>(__builtin_convertvector(fits ? values : lowest, SInts4));
#endif
}

SWords4 IntsToFloats(SWords4 words)
{
    return reinterpret_cast<SWords4>(__builtin_convertvector(reinterpret_cast<SInts4>(words), SFloats4));
}

// Converts up to vectorCount vectors, in whole groups, and returns how many. A group is loaded before any of it is
// stored: between columns that lie nearly a multiple of 4 KiB apart, 4K aliasing would delay each load until the store
// before it is done. Columns in the cache take half of the time.
template <SWords4 (*_Convert)(SWords4)>
TZ_FORCEINLINE u32 ConvertVectors(const u8 *src, size_t srcStride, u8 *dst, size_t dstStride, u32 vectorCount,
                                  SWords4 isComponent, SWords4 rest)
{
    constexpr u32 kGroupSize = 8;
    u32 doneCount = 0;
    for (; doneCount + kGroupSize <= vectorCount; doneCount += kGroupSize)
    {
        SWords4 group[kGroupSize];
        for (SWords4 &vector : group)
        {
            vector = _Convert(Load<SWords4>(src) & isComponent) | rest;
            src += srcStride;
        }
        for (const SWords4 &vector : group)
        {
            std::memcpy(dst, &vector, sizeof(vector));
            dst += dstStride;
        }
    }
    return doneCount;
}

// Converts rows of 32-bit components, each row a vector of 16 bytes, and leaves the last rows in pair. Rows may be
// shorter than a vector: what a vector writes after its row is overwritten by the next one. Four to twenty times as
// fast as one component after the other while the columns are in the cache.
template <SWords4 (*_Convert)(SWords4)>
void ConvertWordRows(SColumnPair &pair, u8 restByte)
{
    const size_t rowBytes = pair.m_ComponentCount * sizeof(u32);
    if (pair.m_SrcStride == rowBytes && pair.m_DstStride == rowBytes)
    {
        const u32 wordCount = pair.m_RowCount * pair.m_ComponentCount;
        const u32 vectorCount =
            ConvertVectors<_Convert>(pair.m_Src, 16, pair.m_Dst, 16, wordCount / 4, ~SWords4(), SWords4());
        return pair.SkipRows(vectorCount * 4 / pair.m_ComponentCount);
    }
    // A vector at one of the last rows would end outside the column.
    const size_t minStride = TZMin(pair.m_SrcStride != 0 ? pair.m_SrcStride : 16, pair.m_DstStride);
    const u32 vectorCount = pair.m_RowCount - TZMin(u32(15 / minStride), pair.m_RowCount);
    const SWords4 isComponent = reinterpret_cast<SWords4>(SWords4{0, 1, 2, 3} < pair.m_ComponentCount);
    const SWords4 rest = (SWords4() + restByte * 0x01010101u) & ~isComponent;
    pair.SkipRows(ConvertVectors<_Convert>(pair.m_Src, pair.m_SrcStride, pair.m_Dst, pair.m_DstStride, vectorCount,
                                           isComponent, rest));
}

} // namespace

void ConvertField(const SParticleStreamField &srcStream, const SParticleStreamField &dstStream, u32 particleCount)
{
    const CBaseTypeTraits &tSrc = CBaseTypeTraits::Traits(srcStream.m_Definition.m_Type);
    const CBaseTypeTraits &tDst = CBaseTypeTraits::Traits(dstStream.m_Definition.m_Type);
    const u32 srcWidth = tSrc.Size / TZMax(tSrc.VectorDimension, 1u); // bytes of a component; 0 of a type without any
    const u32 dstWidth = tDst.Size / TZMax(tDst.VectorDimension, 1u);
    const u32 srcRowBytes = srcStream.IsConstant() ? u32(sizeof(S64Bytes)) : srcStream.m_Definition.m_StorageSize;
    SColumnPair pair = {srcStream.m_RawDataPtr,
                        dstStream.m_RawDataPtr,
                        srcStream.m_Definition.m_StorageSize,
                        dstStream.m_Definition.m_StorageSize,
                        particleCount,
                        tSrc.Size < tDst.Size ? tSrc.VectorDimension : tDst.VectorDimension};
    pair.m_ComponentCount = TZMin(pair.m_ComponentCount, srcWidth != 0 ? srcRowBytes / srcWidth : 0);
    pair.m_ComponentCount = TZMin(pair.m_ComponentCount, dstWidth != 0 ? u32(pair.m_DstStride) / dstWidth : 0);
    const u8 restByte = tSrc.Size < tDst.Size ? 0 : kFreshParticleByte;

    if (srcWidth == 4 && dstWidth == 4 && pair.m_DstStride <= 16 && pair.m_ComponentCount != 0)
    {
        if (tSrc.IsFp == tDst.IsFp)
            ConvertWordRows<&CopyWords>(pair, restByte);
        else if (tSrc.IsFp)
            ConvertWordRows<&FloatsToInts>(pair, restByte);
        else
            ConvertWordRows<&IntsToFloats>(pair, restByte);
    }
    if (pair.m_DstStride != pair.m_ComponentCount * dstWidth)
        std::memset(pair.m_Dst, restByte, pair.m_DstStride * pair.m_RowCount);
    else if (pair.m_SrcStride == pair.m_ComponentCount * srcWidth)
    {
        pair.m_ComponentCount *= pair.m_RowCount; // one long row, which the compiler vectorises
        pair.m_RowCount = 1;
    }
    if (pair.m_ComponentCount == 0)
        return;
    const auto visitDstType = [&](auto in)
    { VisitScalarType(tDst.ScalarType, [&](auto out) { ConvertRows<decltype(out), decltype(in)>(pair); }); };
    VisitScalarType(tSrc.ScalarType, visitDstType);
}

} // namespace Tessaly
