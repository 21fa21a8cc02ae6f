#include "sn_hdf5.h"

#include <cstdio>

#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

namespace Tessaly
{
namespace Snapshot
{

namespace
{

Threads::CCriticalSection &Mutex()
{
    static Threads::CCriticalSection mutex;
    return mutex;
}

bool AppendPart(const SPart &part, TArray<SPart> &outParts, CReason &reason)
{
    return outParts.PushBack(part).Valid() ||
           reason.Set("memory for %s fields is refused", SNumberText(outParts.Count() + 1).m_Text);
}

} // namespace

CHdf5Session::CHdf5Session()
{
    Mutex().Lock();
    H5Eget_auto2(H5E_DEFAULT, &m_Print, &m_PrintData);
    H5Eset_auto2(H5E_DEFAULT, null, null);
}

CHdf5Session::~CHdf5Session()
{
    H5Eset_auto2(H5E_DEFAULT, m_Print, m_PrintData);
    Mutex().Unlock();
}

hid_t ComponentType(EBaseTypeID type)
{
    switch (CBaseTypeTraits::Traits(type).ScalarType)
    {
    case BaseType_I8:
        return H5T_STD_I8LE;
    case BaseType_U16:
        return H5T_STD_U16LE;
    case BaseType_I16:
        return H5T_STD_I16LE;
    case BaseType_U32:
        return H5T_STD_U32LE;
    case BaseType_I32:
        return H5T_STD_I32LE;
    case BaseType_U64:
        return H5T_STD_U64LE;
    case BaseType_I64:
        return H5T_STD_I64LE;
    case BaseType_Float:
        return H5T_IEEE_F32LE;
    case BaseType_Double:
        return H5T_IEEE_F64LE;
    default:
        return H5T_STD_U8LE;
    }
}

bool IsBaseType(EBaseTypeID type) { return type >= BaseType_Evolved && type < __MaxBaseTypes; }

bool AppendParts(const SParticleStreamDef &def, TArray<SPart> &outParts, CReason &reason)
{
    for (u32 i = 0; i < def.m_StreamDef.Count(); ++i)
    {
        const SParticleStreamFieldDef &field = def.m_StreamDef.RawDataPointer()[i];
        const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(field.m_Type);
        const bool hasValue = traits.Size != 0 && traits.Size <= field.m_StorageSize;
        const u32 valueBytes = hasValue ? traits.Size : 0, restBytes = field.m_StorageSize - valueBytes;
        const SPart value = {
            i, false, 0, valueBytes, traits.VectorDimension, field.m_StorageSize, ComponentType(field.m_Type), false};
        const SPart rest = {i, hasValue, valueBytes, restBytes, restBytes, field.m_StorageSize, H5T_STD_U8LE, false};
        if ((hasValue && !AppendPart(value, outParts, reason)) ||
            (restBytes != 0 && !AppendPart(rest, outParts, reason)))
            return false;
    }
    return true;
}

bool CheckParticleSize(const SParticleStreamDef &def, CReason &reason)
{
    u64 byteCount = 0;
    for (const SParticleStreamFieldDef &field : def.m_StreamDef.View())
        byteCount += Mem::Align<16>(u64(field.m_StorageSize));
    return byteCount <= CParticlePageAllocator::kMaxAllocSize ||
           reason.Set("a page can not hold a particle of %s bytes", SNumberText(byteCount).m_Text);
}

SFieldName::SFieldName(u32 field) { std::snprintf(m_Text, sizeof(m_Text), "%u", field); }

} // namespace Snapshot
} // namespace Tessaly
