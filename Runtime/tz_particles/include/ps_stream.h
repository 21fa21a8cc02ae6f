// Stream definitions and the interface of every particle stream.
//
// A definition lists the fields of a stream. A field's index in it is its index everywhere: in pages, in the constant
// data's slot table, in StreamId(). Fields of two definitions are matched by their name ids alone.
#pragma once

#include <tz_defs.h>
#include <tz_guid.h>
#include <tz_kernel/include/kr_base_types.h>
#include <tz_kernel/include/kr_containers_array.h>
#include <tz_kernel/include/kr_string_id.h>

#include "ps_stats.h"

namespace Tessaly
{

// One field of a stream.
struct SParticleStreamFieldDef
{
    u32 m_StorageSize;    // bytes of one particle's value in a page; 0: a constant field, one value for all particles
    EBaseTypeID m_Type;   // what the values are: rebinding converts by it
    CStringId m_NameGUID; // by which rebinding finds the field in another definition; an id of the host's choice

    // A record of no type; a field of that name, type and storage size (in bytes).
    SParticleStreamFieldDef()
        : m_StorageSize(0)
        , m_Type(BaseType_Void)
    {
    }
    SParticleStreamFieldDef(CStringId nameGUID, EBaseTypeID type, u32 storageSize)
        : m_StorageSize(storageSize)
        , m_Type(type)
        , m_NameGUID(nameGUID)
    {
    }

    // Equal when all three members are.
    bool operator==(const SParticleStreamFieldDef &other) const
    {
        return m_StorageSize == other.m_StorageSize && m_Type == other.m_Type && m_NameGUID == other.m_NameGUID;
    }
    bool operator!=(const SParticleStreamFieldDef &other) const { return !(*this == other); }
};

// The fields of a stream, in order. The owner fills m_StreamDef before a stream is bound to it, and keeps the object
// alive and unchanged meanwhile: a stream knows a definition by its address.
struct TZ_API SParticleStreamDef : public CNonCopyable
{
    TArray<SParticleStreamFieldDef> m_StreamDef; // filled by the owner

    SParticleStreamDef() = default;

    bool Empty() const { return m_StreamDef.Empty(); } // no field
    void Clear() { m_StreamDef.Clear(); }              // while no stream is bound to it
    // Takes the entries of other, all or none: false when memory is refused, with nothing changed. Asks for no memory
    // when they fit; a definition copied onto itself stays as it is.
    bool Copy(const SParticleStreamDef &other);

    // Equal when both list the same fields in the same order. O(fields).
    bool operator==(const SParticleStreamDef &other) const;
    bool operator!=(const SParticleStreamDef &other) const { return !(*this == other); }

    // Append a stored field of the type's size, or a constant field. Returns its index. Fails with CGuid::INVALID, and
    // changes nothing: for an empty name, a name that a field has already and a type without size, which are reported,
    // and when memory is refused.
    CGuid Add(CStringId name, EBaseTypeID type) { return _Add(name, type, false); }
    CGuid AddConstant(CStringId name, EBaseTypeID type) { return _Add(name, type, true); }

    // Index of the first field of that name; CGuid::INVALID for the empty name and for one that no field has.
    // O(fields).
    CGuid StreamId(CStringId nameGUID) const;

private:
    CGuid _Add(CStringId name, EBaseTypeID type, bool isConstant);
};

// One block of constant data: the value that a constant field points at.
struct S64Bytes
{
    u32 m_Data[16]; // the value's bytes, from the first on
};

// What the rest of a runtime sees of any particle stream.
class TZ_API CParticleStreamAbstract : public CNonCopyable
{
public:
    CParticleStreamAbstract() = default;
    virtual ~CParticleStreamAbstract() {}
    virtual const SParticleStreamDef *GetStreamDef() const = 0; // null while unbound
    virtual u32 ParticleCount() const = 0;                      // live particles
    virtual void Lock() const = 0;                              // guards the stream's pages; re-entrant
    virtual void Unlock() const = 0;                            // one for each Lock, by the same thread
    virtual SMediumMemoryReport ComputeMemoryUsage() const = 0; // bytes
};

} // namespace Tessaly
