// The workloads, listed once: the particle that everything is measured with, its relatives, and streams of a given
// shape. Benchmarks time them, tests and examples may look at them. Needs the runtime started.
#pragma once

#include <initializer_list>

#include <tz_kernel/include/kr_vectors.h>
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

namespace Workloads
{

using namespace Tessaly;

constexpr u32 kParticleCount = 1000000;
constexpr u32 kBurstSize = 64;  // particles born at a time
constexpr u32 kPageSize = 1024; // particles; a stream's default

// 48 bytes in five columns.
struct SParticle
{
    CFloat3 m_Position;
    CFloat3 m_Velocity;
    CFloat4 m_Color;
    float m_Life;
    float m_Size;
};
static_assert(sizeof(SParticle) == 48, "a row without holes");

// Field names, and their indices in Particle().
enum EField : u32
{
    Field_Position,
    Field_Velocity,
    Field_Color,
    Field_Life,
    Field_Size,
    Field_Force, // not in Particle()
};

// A field of that name, as wide as its type.
inline SParticleStreamFieldDef Field(EField name, EBaseTypeID type)
{
    return SParticleStreamFieldDef(CStringId(u32(name) + 1), type, CBaseTypeTraits::Traits(type).Size);
}

using FieldList = std::initializer_list<SParticleStreamFieldDef>;

// A definition that is listed where it is made.
struct SDefinition : SParticleStreamDef
{
    explicit SDefinition(FieldList fields)
    {
        for (const SParticleStreamFieldDef &field : fields)
            m_StreamDef.PushBack(field);
    }
};

inline const SDefinition &Particle()
{
    static const SDefinition definition({Field(Field_Position, BaseType_Float3), Field(Field_Velocity, BaseType_Float3),
                                         Field(Field_Color, BaseType_Float4), Field(Field_Life, BaseType_Float),
                                         Field(Field_Size, BaseType_Float)});
    return definition;
}

// The same fields in another order.
inline const SDefinition &ReorderedParticle()
{
    static const SDefinition definition({Field(Field_Size, BaseType_Float), Field(Field_Color, BaseType_Float4),
                                         Field(Field_Life, BaseType_Float), Field(Field_Velocity, BaseType_Float3),
                                         Field(Field_Position, BaseType_Float3)});
    return definition;
}

// Row i of every workload: each column has another value, and no two rows the same position.
inline SParticle MakeParticle(u32 i)
{
    const float x = float(i);
    return {CFloat3(x, x + 0.25f, x + 0.5f), CFloat3(0.5f, -0.5f, x * 0.125f), CFloat4(0.25f, 0.5f, 0.75f, x),
            1.0f + x * 0.001f, x * 0.5f};
}

// Binds a definition without constant fields.
inline void Bind(CParticleStream_MainMemory &stream, const SParticleStreamDef &definition)
{
    static const CGuid noSlot;
    const TStridedMemoryView<const CGuid> slots(&noSlot, definition.m_StreamDef.Count(), 0);
    stream.BindStreamDef(&definition, TMemoryView<const S64Bytes>(), slots, SParticleImplementationCache());
}

// Appends pages, of which page i gets particlesIn(i) particles. O(pages), where births would look for free slots each
// time.
template <typename _ParticlesIn>
void AppendPages(CParticleStream_MainMemory &stream, u32 pageCount, _ParticlesIn particlesIn)
{
    const CScopedPagesLock lock(stream);
    u32 bornCount = 0;
    for (u32 i = 0; i < pageCount; ++i)
    {
        const PParticlePage page = stream.AllocNewPage_NoLock(true);
        const u32 count = particlesIn(i);
        if (page == null || !page->AllocateParticles(count).Valid())
            break;
        bornCount += count;
    }
    stream.RegisterBornCount_NoConsistencyCheck(bornCount);
}

// Appends pages until the stream holds particleCount particles more, all pages but the last being full.
inline void AppendParticles(CParticleStream_MainMemory &stream, u32 particleCount)
{
    const u32 pageSize = stream.PageSize();
    AppendPages(stream, (particleCount + pageSize - 1) / pageSize,
                [=](u32 i) { return TZMin(pageSize, particleCount - i * pageSize); });
}

// Calls write(column, rowCount, rowBytes) for each stored column of each page.
template <typename _Write>
void ForEachColumn(const CParticleStream_MainMemory &stream, _Write write)
{
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const CParticlePage &page = *stream._UnsafePage(CGuid(i));
        for (const SParticleStreamField &field : page.Streams())
        {
            if (!field.IsConstant())
                write(field.m_RawDataPtr, page.ParticleCount(), field.m_Definition.m_StorageSize);
        }
    }
}

// Gives every 32-bit lane of every column the bits of a small float, or of a small integer.
inline void FillColumns(const CParticleStream_MainMemory &stream, bool asFloats)
{
    ForEachColumn(stream,
                  [=](u8 *column, u32 rowCount, u32 rowBytes)
                  {
                      for (u32 lane = 0; lane < rowCount * rowBytes / 4; ++lane)
                      {
                          const float value = float(lane);
                          std::memcpy(column + 4 * size_t(lane), asFloats ? static_cast<const void *>(&value) : &lane,
                                      4);
                      }
                  });
}

// The numbers 0, 1, 2, ... mixed: the same in every run.
inline u32 Scramble(u32 i)
{
    i = (i ^ (i >> 16)) * 0x7FEB352Du;
    i = (i ^ (i >> 15)) * 0x846CA68Bu;
    return i ^ (i >> 16);
}

} // namespace Workloads
