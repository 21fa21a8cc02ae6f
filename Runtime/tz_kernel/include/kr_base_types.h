// The base value types of particle fields and their traits.
#pragma once

#include <tz_defs.h>

#include "kr_vectors.h"

namespace Tessaly
{

// Types of values, by kind and number of components.
enum EBaseTypeID : int
{
    BaseType_Evolved = -1,
    BaseType_Void = 0,
    BaseType_Bool,
    BaseType_Bool2,
    BaseType_Bool3,
    BaseType_Bool4,
    BaseType_U8,
    BaseType_UByte2,
    BaseType_UByte3,
    BaseType_UByte4,
    BaseType_I8,
    BaseType_Byte2,
    BaseType_Byte3,
    BaseType_Byte4,
    BaseType_U16,
    BaseType_UWord2,
    BaseType_UWord3,
    BaseType_UWord4,
    BaseType_I16,
    BaseType_Word2,
    BaseType_Word3,
    BaseType_Word4,
    BaseType_U32,
    BaseType_UInt2,
    BaseType_UInt3,
    BaseType_UInt4,
    BaseType_I32,
    BaseType_Int2,
    BaseType_Int3,
    BaseType_Int4,
    BaseType_U64,
    BaseType_I64,
    BaseType_Float,
    BaseType_Float2,
    BaseType_Float3,
    BaseType_Float4,
    BaseType_Double,
    BaseType_Quaternion,
    __MaxBaseTypes, // the count of concrete types, not a type
};

struct SBaseTypeTraitsStorage;

// The description of one base type.
class TZ_API CBaseTypeTraits : public CNonCopyable
{
public:
    EBaseTypeID Self;
    bool IsFp;
    bool IsSigned;
    EBaseTypeID FpPromotion; // the floating-point type that this one promotes to
    EBaseTypeID ScalarType;  // the type of one component
    u32 VectorDimension;     // number of components
    u32 Size;                // bytes of one value
    const char *Name;        // without the prefix BaseType_

    // The traits of a type.
    // Fails: a type out of range is reported and gives those of BaseType_Void (no component, size 0).
    static const CBaseTypeTraits &Traits(EBaseTypeID type);

    // The type of the same component kind with dimension components, and its traits. BaseType_Void when there is none.
    static EBaseTypeID Revectorize(EBaseTypeID type, u32 dimension);
    static const CBaseTypeTraits &RevectorizeTraits(EBaseTypeID type, u32 dimension);

    // Both have the row of type t at t + 1. Bit n - 1 of a mask: there is a type with n of the components.
    static const SBaseTypeTraitsStorage m_BaseTypeTraits[__MaxBaseTypes + 1];
    static const u8 m_BaseMaskForVectorization[__MaxBaseTypes + 1];

protected:
    // Takes the members in their order.
    constexpr CBaseTypeTraits(EBaseTypeID self, bool isFp, bool isSigned, EBaseTypeID fpPromotion,
                              EBaseTypeID scalarType, u32 vectorDimension, u32 size, const char *name)
        : Self(self)
        , IsFp(isFp)
        , IsSigned(isSigned)
        , FpPromotion(fpPromotion)
        , ScalarType(scalarType)
        , VectorDimension(vectorDimension)
        , Size(size)
        , Name(name)
    {
    }
};

// A row of the table of traits.
struct SBaseTypeTraitsStorage : CBaseTypeTraits
{
    using CBaseTypeTraits::CBaseTypeTraits;
};
static_assert(sizeof(SBaseTypeTraitsStorage) == sizeof(CBaseTypeTraits), "a row is the traits of its type");

} // namespace Tessaly
