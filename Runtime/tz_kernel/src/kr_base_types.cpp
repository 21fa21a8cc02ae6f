// The table of base types.
#include "../include/kr_base_types.h"

namespace Tessaly
{

// One row, and the four rows of the types with 1 to 4 components.
#define TZ_ROW(type, isFp, isSigned, promotion, scalar, dimension, size)                                               \
    {                                                                                                                  \
        BaseType_##type, isFp, isSigned, BaseType_##promotion, BaseType_##scalar, dimension, size, #type               \
    }
#define TZ_FAMILY(scalar, type2, type3, type4, isFp, isSigned, size)                                                   \
    TZ_ROW(scalar, isFp, isSigned, Float, scalar, 1, size),                                                            \
        TZ_ROW(type2, isFp, isSigned, Float2, scalar, 2, 2 * size),                                                    \
        TZ_ROW(type3, isFp, isSigned, Float3, scalar, 3, 3 * size),                                                    \
        TZ_ROW(type4, isFp, isSigned, Float4, scalar, 4, 4 * size)

constexpr SBaseTypeTraitsStorage CBaseTypeTraits::m_BaseTypeTraits[] = {
    TZ_ROW(Evolved, false, false, Evolved, Evolved, 0, 0), TZ_ROW(Void, false, false, Void, Void, 0, 0),
    TZ_FAMILY(Bool, Bool2, Bool3, Bool4, false, false, 1), TZ_FAMILY(U8, UByte2, UByte3, UByte4, false, false, 1),
    TZ_FAMILY(I8, Byte2, Byte3, Byte4, false, true, 1),    TZ_FAMILY(U16, UWord2, UWord3, UWord4, false, false, 2),
    TZ_FAMILY(I16, Word2, Word3, Word4, false, true, 2),   TZ_FAMILY(U32, UInt2, UInt3, UInt4, false, false, 4),
    TZ_FAMILY(I32, Int2, Int3, Int4, false, true, 4),      TZ_ROW(U64, false, false, Double, U64, 1, 8),
    TZ_ROW(I64, false, true, Double, I64, 1, 8),           TZ_FAMILY(Float, Float2, Float3, Float4, true, true, 4),
    TZ_ROW(Double, true, true, Double, Double, 1, 8),      TZ_ROW(Quaternion, true, true, Float4, Float, 4, 16),
};

#undef TZ_FAMILY
#undef TZ_ROW

const u8 CBaseTypeTraits::m_BaseMaskForVectorization[] = {
    0x0, 0x0,                                                   // Evolved, Void
    0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, // Bool, U8, I8
    0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, 0xF, // U16, I16, U32
    0xF, 0xF, 0xF, 0xF, 0x1, 0x1,                               // I32, U64, I64
    0xF, 0xF, 0xF, 0xF, 0x1,                                    // Float, Double
    0xF,                                                        // Quaternion: Float to Float3, and itself
};

const CBaseTypeTraits &CBaseTypeTraits::Traits(EBaseTypeID type)
{
    const u32 row = static_cast<u32>(type) + 1u;
    TZ_ASSERT_TEXT("type >= BaseType_Evolved && type < __MaxBaseTypes", row < u32(__MaxBaseTypes) + 1u);
    return m_BaseTypeTraits[row <= u32(__MaxBaseTypes) ? row : u32(BaseType_Void) + 1u];
}

EBaseTypeID CBaseTypeTraits::Revectorize(EBaseTypeID type, u32 dimension)
{
    const CBaseTypeTraits &traits = Traits(type);
    if (traits.VectorDimension == dimension)
        return traits.Self;
    const u32 mask = m_BaseMaskForVectorization[traits.Self + 1];
    if (dimension == 0 || dimension > 4 || (mask & (1u << (dimension - 1))) == 0)
        return BaseType_Void;
    return EBaseTypeID(int(traits.ScalarType) + int(dimension) - 1);
}

const CBaseTypeTraits &CBaseTypeTraits::RevectorizeTraits(EBaseTypeID type, u32 dimension)
{
    return Traits(Revectorize(type, dimension));
}

} // namespace Tessaly
