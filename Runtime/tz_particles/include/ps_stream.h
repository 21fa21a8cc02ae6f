// Stream definitions, and the interface of every particle stream.
//
// A definition lists the fields of a stream. A field has the same index in the definition, in every page, in the slot
// table of the constant data and in StreamId(). Fields of two definitions correspond when their name ids are equal.
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
    u32 m_StorageSize; // bytes of one particle's value in a page; 0: a constant field, one value for all particles
    EBaseTypeID m_Type;
    CStringId m_NameGUID;

    // Make a record of no type, and a field with a storage size in bytes.
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

// The fields of a stream, in order. The owner fills m_StreamDef before a stream is bound to the definition, and keeps
// the object alive and unchanged while it is bound: a stream compares definitions by their addresses.
struct TZ_API SParticleStreamDef : public CNonCopyable
{
    TArray<SParticleStreamFieldDef> m_StreamDef;

    SParticleStreamDef() = default;

    bool Empty() const { return m_StreamDef.Empty(); } // there is no field
    void Clear() { m_StreamDef.Clear(); }              // requires that no stream is bound
    // Replaces the fields by those of other. Requests no memory when they fit.
    // Fails: false, and nothing changes, when memory is refused.
    bool Copy(const SParticleStreamDef &other);

    // Equal when both have the same fields in the same order.
    bool operator==(const SParticleStreamDef &other) const;
    bool operator!=(const SParticleStreamDef &other) const { return !(*this == other); }

    // Append a stored field of the type's size, or a constant field, and return its index.
    // Fails: CGuid::INVALID, and nothing changes, when memory is refused; also, after a report, for the empty name, a
    //        name that a field has already, and a type without size.
    CGuid Add(CStringId name, EBaseTypeID type) { return _Add(name, type, false); }
    CGuid AddConstant(CStringId name, EBaseTypeID type) { return _Add(name, type, true); }

    // Returns the index of the first field of that name.
    // Fails: CGuid::INVALID for the empty name and for one that no field has.
    // Cost:  O(fields).
    CGuid StreamId(CStringId nameGUID) const;

private:
    CGuid _Add(CStringId name, EBaseTypeID type, bool isConstant);
};

// A block of constant data: the value of a constant field, from the first byte on.
struct S64Bytes
{
    u32 m_Data[16];
};

// The interface of all kinds of particle streams.
class TZ_API CParticleStreamAbstract : public CNonCopyable
{
public:
    CParticleStreamAbstract() = default;
    virtual ~CParticleStreamAbstract() {}
    virtual const SParticleStreamDef *GetStreamDef() const = 0; // null while unbound
    virtual u32 ParticleCount() const = 0;                      // live particles
    virtual void Lock() const = 0;                              // takes the lock on the stream's pages; re-entrant
    virtual void Unlock() const = 0;                            // once for each Lock, on the same thread
    virtual SMediumMemoryReport ComputeMemoryUsage() const = 0; // bytes
};

} // namespace Tessaly
