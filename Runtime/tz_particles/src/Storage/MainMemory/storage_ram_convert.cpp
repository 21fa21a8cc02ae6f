// Conversion of a field's column: rows of 32-bit lanes in vector loops, every other pair of types by way of a buffer.
#include "storage_ram_convert.h"

#include <cstring>

#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace Tessaly
{

namespace
{

// Toward zero; NaN and what does not fit give -2147483648. The value is chosen before the cast, which is then defined
// for all of them, and vectorises.
s32 TruncateTo32(float value) { return s32(value >= -2147483648.0f && value < 2147483648.0f ? value : -2147483648.0f); }

s32 TruncateTo32(double value) { return s32(value > -2147483649.0 && value < 2147483648.0 ? value : -2147483648.0); }

template <typename _Type>
_Type Load(const u8 *bytes)
{
    _Type value; // rows may be odd: no alignment is assumed
    std::memcpy(&value, bytes, sizeof(_Type));
    return value;
}

template <typename _Type>
void Store(u8 *bytes, _Type value)
{
    std::memcpy(bytes, &value, sizeof(_Type));
}

struct SColumnPair
{
    const u8 *m_Src;
    u8 *m_Dst;
    size_t m_SrcStride; // bytes between rows
    size_t m_DstStride;
    u32 m_RowCount;
    u32 m_Lanes;    // components converted per row
    u32 m_SrcWidth; // bytes of one component
    u32 m_DstWidth;
    u8 m_RestByte; // what the rest of a destination row gets

    bool SrcIsDense() const { return m_SrcStride == size_t(m_Lanes) * m_SrcWidth; }
    bool DstIsDense() const { return m_DstStride == size_t(m_Lanes) * m_DstWidth; }
    void FillRest() const
    {
        if (!DstIsDense())
            std::memset(m_Dst, m_RestByte, m_DstStride * m_RowCount);
    }
};

// Four components of 32 bits, as one vector of the processor's.
using SWords4 = u32 __attribute__((vector_size(16)));
using SInts4 = s32 __attribute__((vector_size(16)));
using SFloats4 = float __attribute__((vector_size(16)));

struct SCopyLane
{
    using TIn = u32;
    static u32 Do(u32 value) { return value; }
    static SWords4 Do4(SWords4 words) { return words; }
};

struct SFloatToInt
{
    using TIn = float;
    static s32 Do(float value) { return TruncateTo32(value); }
    static SWords4 Do4(SWords4 words)
    {
#if defined(__SSE2__)
        // The instruction's own answer to NaN and to what does not fit is the one that is wanted.
        return reinterpret_cast<SWords4>(_mm_cvttps_epi32(reinterpret_cast<__m128>(words)));
#else
        const SFloats4 values = reinterpret_cast<SFloats4>(words);
        const SInts4 ints = {Do(values[0]), Do(values[1]), Do(values[2]), Do(values[3])};
        return reinterpret_cast<SWords4>(ints);
#endif
    }
};

struct SIntToFloat
{
    using TIn = s32;
    static float Do(s32 value) { return float(value); }
    static SWords4 Do4(SWords4 words)
    {
        return reinterpret_cast<SWords4>(__builtin_convertvector(reinterpret_cast<SInts4>(words), SFloats4));
    }
};

struct SByteToFloat
{
    using TIn = u8;
    static float Do(u8 value) { return float(value); }
};

// All are read before the first is written: between two columns that lie a small distance from each other modulo 4 KiB,
// 4K aliasing would stall each load behind the store before it.
constexpr u32 kVectorsAtATime = 8;

// Strides are numbers, or types that convert to one which the compiler knows.
template <typename _Op, typename _SrcStride, typename _DstStride>
inline void ConvertVectors(const u8 *src, _SrcStride srcStride, u8 *dst, _DstStride dstStride, SWords4 mask,
                           SWords4 rest)
{
    SWords4 vectors[kVectorsAtATime];
    for (u32 i = 0; i < kVectorsAtATime; ++i)
        vectors[i] = _Op::Do4(Load<SWords4>(src + i * size_t(srcStride)) & mask) | rest; // of 0 it makes 0
    for (u32 i = 0; i < kVectorsAtATime; ++i)
        Store(dst + i * size_t(dstStride), vectors[i]);
}

template <size_t _Bytes>
using TStride = std::integral_constant<size_t, _Bytes>;

// A run of components without holes on either side.
template <typename _Op>
void ConvertRun(const u8 *__restrict src, u8 *__restrict dst, size_t count)
{
    using TIn = typename _Op::TIn;
    using TOut = decltype(_Op::Do(TIn()));
    size_t i = 0;
    if constexpr (sizeof(TIn) == sizeof(u32))
    {
        constexpr size_t kWords = 4 * kVectorsAtATime;
        for (; i + kWords <= count; i += kWords)
            ConvertVectors<_Op>(src + i * sizeof(u32), TStride<16>(), dst + i * sizeof(u32), TStride<16>(), ~SWords4(),
                                SWords4());
    }
    for (; i < count; ++i)
        Store(dst + i * sizeof(TOut), _Op::Do(Load<TIn>(src + i * sizeof(TIn))));
}

// One row of up to four components; what is left of it is written, too.
template <typename _Op>
void ConvertRow(const SColumnPair &pair, u32 row)
{
    using TIn = typename _Op::TIn;
    const u8 *src = pair.m_Src + row * pair.m_SrcStride;
    u8 *dst = pair.m_Dst + row * pair.m_DstStride;
    std::memset(dst, pair.m_RestByte, pair.m_DstStride);
    for (u32 lane = 0; lane < pair.m_Lanes; ++lane)
        Store(dst + lane * sizeof(_Op::Do(TIn())), _Op::Do(Load<TIn>(src + lane * sizeof(TIn))));
}

// Rows of up to four words on the destination's side: four words are read and four are written for each, whatever they
// are, and the next rows overwrite what they get too much. So the last rows, which have less than four words behind
// them on either side, go one by one.
template <typename _Op>
void ConvertShortRows(const SColumnPair &pair)
{
    constexpr size_t kBytesAtATime = sizeof(SWords4);
    u32 wideCount = pair.m_RowCount;
    for (const size_t stride : {pair.m_SrcStride, pair.m_DstStride})
    {
        while (wideCount != 0 && stride != 0 && (wideCount - 1) * stride + kBytesAtATime > pair.m_RowCount * stride)
            --wideCount;
    }
    const u32 lanes = pair.m_Lanes;
    const SWords4 isLane = {0 < lanes ? ~0u : 0, 1 < lanes ? ~0u : 0, 2 < lanes ? ~0u : 0, 3 < lanes ? ~0u : 0};
    const u32 restWord = pair.m_RestByte * 0x01010101u;
    const SWords4 rest = SWords4{restWord, restWord, restWord, restWord} & ~isLane;
    const size_t srcStride = pair.m_SrcStride;
    const size_t dstStride = pair.m_DstStride;
    u32 row = 0;
    const bool isThreeToFour = srcStride == 12 && dstStride == 16;
    for (; row + kVectorsAtATime <= wideCount; row += kVectorsAtATime)
    {
        const u8 *src = pair.m_Src + row * srcStride;
        u8 *dst = pair.m_Dst + row * dstStride;
        if (isThreeToFour)
            ConvertVectors<_Op>(src, TStride<12>(), dst, TStride<16>(), isLane, rest);
        else
            ConvertVectors<_Op>(src, srcStride, dst, dstStride, isLane, rest);
    }
    for (; row < pair.m_RowCount; ++row)
        ConvertRow<_Op>(pair, row);
}

// Rows of any number of components and any stride. What is left of a row is written first.
template <typename _Op>
void ConvertAnyRows(const SColumnPair &pair)
{
    using TIn = typename _Op::TIn;
    pair.FillRest();
    for (u32 row = 0; row < pair.m_RowCount; ++row)
    {
        const u8 *src = pair.m_Src + row * pair.m_SrcStride;
        u8 *dst = pair.m_Dst + row * pair.m_DstStride;
        for (u32 lane = 0; lane < pair.m_Lanes; ++lane)
            Store(dst + lane * sizeof(_Op::Do(TIn())), _Op::Do(Load<TIn>(src + lane * sizeof(TIn))));
    }
}

template <typename _Op>
void ConvertColumn(const SColumnPair &pair)
{
    if (pair.SrcIsDense() && pair.DstIsDense())
        return ConvertRun<_Op>(pair.m_Src, pair.m_Dst, size_t(pair.m_RowCount) * pair.m_Lanes);
    if constexpr (sizeof(typename _Op::TIn) == sizeof(u32))
    {
        if (pair.m_DstStride <= sizeof(SWords4))
            return ConvertShortRows<_Op>(pair);
    }
    ConvertAnyRows<_Op>(pair);
}

// The general road: components are read into a buffer in the widest type of their kind, and written from there.

constexpr u32 kBufferCount = 256; // components

union UBuffer
{
    s64 m_Ints[kBufferCount]; // of unsigned 64-bit components: the bits
    double m_Floats[kBufferCount];
};

using FnLoad = void (*)(const SColumnPair &pair, u32 firstRow, u32 rowCount, UBuffer &out);
using FnStore = void (*)(const SColumnPair &pair, u32 firstRow, u32 rowCount, const UBuffer &in);

template <typename _Type>
void LoadInts(const SColumnPair &pair, u32 firstRow, u32 rowCount, UBuffer &out)
{
    s64 *next = out.m_Ints;
    for (u32 row = firstRow; row < firstRow + rowCount; ++row)
    {
        const u8 *src = pair.m_Src + row * pair.m_SrcStride;
        for (u32 lane = 0; lane < pair.m_Lanes; ++lane)
            *next++ = s64(Load<_Type>(src + lane * sizeof(_Type)));
    }
}

void LoadBools(const SColumnPair &pair, u32 firstRow, u32 rowCount, UBuffer &out)
{
    LoadInts<u8>(pair, firstRow, rowCount, out);
    for (u32 i = 0; i < rowCount * pair.m_Lanes; ++i)
        out.m_Ints[i] = out.m_Ints[i] != 0 ? 1 : 0;
}

template <typename _Type>
void LoadFloats(const SColumnPair &pair, u32 firstRow, u32 rowCount, UBuffer &out)
{
    double *next = out.m_Floats;
    for (u32 row = firstRow; row < firstRow + rowCount; ++row)
    {
        const u8 *src = pair.m_Src + row * pair.m_SrcStride;
        for (u32 lane = 0; lane < pair.m_Lanes; ++lane)
            *next++ = double(Load<_Type>(src + lane * sizeof(_Type)));
    }
}

template <typename _Value, typename _Convert>
void StoreValues(const SColumnPair &pair, u32 firstRow, u32 rowCount, const _Value *next, _Convert convert)
{
    for (u32 row = firstRow; row < firstRow + rowCount; ++row)
    {
        u8 *dst = pair.m_Dst + row * pair.m_DstStride;
        for (u32 lane = 0; lane < pair.m_Lanes; ++lane)
            Store(dst + lane * sizeof(convert(*next)), convert(*next)), ++next;
    }
}

template <typename _Type>
void StoreInts(const SColumnPair &pair, u32 firstRow, u32 rowCount, const UBuffer &in)
{
    StoreValues(pair, firstRow, rowCount, in.m_Ints, [](s64 value) { return static_cast<_Type>(value); });
}

void StoreBools(const SColumnPair &pair, u32 firstRow, u32 rowCount, const UBuffer &in)
{
    StoreValues(pair, firstRow, rowCount, in.m_Ints, [](s64 value) { return u8(value != 0 ? 1 : 0); });
}

template <typename _Type>
void StoreFloats(const SColumnPair &pair, u32 firstRow, u32 rowCount, const UBuffer &in)
{
    StoreValues(pair, firstRow, rowCount, in.m_Floats, [](double value) { return static_cast<_Type>(value); });
}

template <typename _Type>
void StoreIntsAsFloats(const SColumnPair &pair, u32 firstRow, u32 rowCount, const UBuffer &in)
{
    StoreValues(pair, firstRow, rowCount, in.m_Ints, [](s64 value) { return static_cast<_Type>(value); });
}

template <typename _Type>
void StoreUnsignedsAsFloats(const SColumnPair &pair, u32 firstRow, u32 rowCount, const UBuffer &in)
{
    StoreValues(pair, firstRow, rowCount, in.m_Ints, [](s64 value) { return static_cast<_Type>(u64(value)); });
}

FnLoad SelectLoad(EBaseTypeID scalarType)
{
    switch (scalarType)
    {
    case BaseType_Bool:
        return &LoadBools;
    case BaseType_U8:
        return &LoadInts<u8>;
    case BaseType_I8:
        return &LoadInts<s8>;
    case BaseType_U16:
        return &LoadInts<u16>;
    case BaseType_I16:
        return &LoadInts<s16>;
    case BaseType_U32:
        return &LoadInts<u32>;
    case BaseType_I32:
        return &LoadInts<s32>;
    case BaseType_U64:
        return &LoadInts<u64>;
    case BaseType_I64:
        return &LoadInts<s64>;
    case BaseType_Float:
        return &LoadFloats<float>;
    default:
        return &LoadFloats<double>;
    }
}

FnStore SelectStore(EBaseTypeID scalarType, EBaseTypeID srcScalarType, bool srcIsFp)
{
    switch (scalarType)
    {
    case BaseType_Bool:
        return &StoreBools;
    case BaseType_U8:
    case BaseType_I8:
        return &StoreInts<u8>;
    case BaseType_U16:
    case BaseType_I16:
        return &StoreInts<u16>;
    case BaseType_U32:
    case BaseType_I32:
        return &StoreInts<u32>;
    case BaseType_U64:
    case BaseType_I64:
        return &StoreInts<u64>;
    case BaseType_Float:
        if (srcIsFp)
            return &StoreFloats<float>;
        return srcScalarType == BaseType_U64 ? &StoreUnsignedsAsFloats<float> : &StoreIntsAsFloats<float>;
    default:
        if (srcIsFp)
            return &StoreFloats<double>;
        return srcScalarType == BaseType_U64 ? &StoreUnsignedsAsFloats<double> : &StoreIntsAsFloats<double>;
    }
}

void ConvertThroughBuffer(const SColumnPair &pair, const CBaseTypeTraits &tSrc, const CBaseTypeTraits &tDst)
{
    const FnLoad load = SelectLoad(tSrc.ScalarType);
    const FnStore store = SelectStore(tDst.ScalarType, tSrc.ScalarType, tSrc.IsFp);
    const u32 rowsAtATime = kBufferCount / pair.m_Lanes;
    UBuffer buffer;
    pair.FillRest();
    for (u32 row = 0; row < pair.m_RowCount; row += rowsAtATime)
    {
        const u32 rowCount = TZMin(rowsAtATime, pair.m_RowCount - row);
        load(pair, row, rowCount, buffer);
        if (tSrc.IsFp && !tDst.IsFp)
        {
            for (u32 i = 0; i < rowCount * pair.m_Lanes; ++i)
                buffer.m_Ints[i] = TruncateTo32(buffer.m_Floats[i]);
        }
        store(pair, row, rowCount, buffer);
    }
}

// Bytes of one component; 0 of a type without any.
u32 ComponentSize(const CBaseTypeTraits &traits)
{
    switch (traits.VectorDimension)
    {
    case 0:
        return 0;
    case 1:
        return traits.Size;
    case 2:
        return traits.Size / 2;
    case 3:
        return traits.Size / 3;
    default:
        return traits.Size / 4;
    }
}

// Components converted per row: those of the smaller type, as far as they lie within both rows. 0 for a type without.
u32 ComputeLanes(const SParticleStreamField &srcStream, const CBaseTypeTraits &tSrc, u32 srcWidth,
                 const SParticleStreamField &dstStream, const CBaseTypeTraits &tDst, u32 dstWidth)
{
    if (srcWidth == 0 || dstWidth == 0)
        return 0;
    const u32 rowIterCount = tSrc.Size < tDst.Size ? tSrc.VectorDimension : tDst.VectorDimension;
    const u32 srcRowBytes = srcStream.IsConstant() ? u32(sizeof(S64Bytes)) : srcStream.m_Definition.m_StorageSize;
    const u32 dstRowBytes = dstStream.m_Definition.m_StorageSize;
    return TZMin(rowIterCount, TZMin(srcRowBytes / srcWidth, dstRowBytes / dstWidth));
}

} // namespace

void ConvertField(const SParticleStreamField &srcStream, const SParticleStreamField &dstStream, u32 particleCount)
{
    const CBaseTypeTraits &tSrc = CBaseTypeTraits::Traits(srcStream.m_Definition.m_Type);
    const CBaseTypeTraits &tDst = CBaseTypeTraits::Traits(dstStream.m_Definition.m_Type);
    const u32 srcWidth = ComponentSize(tSrc);
    const u32 dstWidth = ComponentSize(tDst);
    const SColumnPair pair = {srcStream.m_RawDataPtr,
                              dstStream.m_RawDataPtr,
                              srcStream.m_Definition.m_StorageSize,
                              dstStream.m_Definition.m_StorageSize,
                              particleCount,
                              ComputeLanes(srcStream, tSrc, srcWidth, dstStream, tDst, dstWidth),
                              srcWidth,
                              dstWidth,
                              tSrc.Size < tDst.Size ? u8(0) : kFreshParticleByte};
    const bool isOfWords = pair.m_SrcWidth == 4 && pair.m_DstWidth == 4;
    if (pair.m_Lanes == 0)
        pair.FillRest();
    else if (isOfWords && tSrc.IsFp == tDst.IsFp)
        ConvertColumn<SCopyLane>(pair);
    else if (isOfWords && tSrc.IsFp)
        ConvertColumn<SFloatToInt>(pair);
    else if (isOfWords)
        ConvertColumn<SIntToFloat>(pair);
    else if (tSrc.ScalarType == BaseType_U8 && tDst.ScalarType == BaseType_Float)
        ConvertColumn<SByteToFloat>(pair); // colours
    else
        ConvertThroughBuffer(pair, tSrc, tDst);
}

} // namespace Tessaly
