// Rebinding a stream of a million to another definition.
#include "plain_blocks.h"
#include "row.h"

namespace Bench
{

namespace
{

const SDefinition &WideVelocity()
{
    static const SDefinition definition({Field(Field_Position, BaseType_Float3), Field(Field_Velocity, BaseType_Float4),
                                         Field(Field_Color, BaseType_Float4), Field(Field_Life, BaseType_Float),
                                         Field(Field_Size, BaseType_Float)});
    return definition;
}

const SDefinition &WholeLife()
{
    static const SDefinition definition({Field(Field_Position, BaseType_Float3), Field(Field_Velocity, BaseType_Float3),
                                         Field(Field_Color, BaseType_Float4), Field(Field_Life, BaseType_I32),
                                         Field(Field_Size, BaseType_Float)});
    return definition;
}

const SDefinition &WithForce()
{
    static const SDefinition definition({Field(Field_Position, BaseType_Float3), Field(Field_Velocity, BaseType_Float3),
                                         Field(Field_Color, BaseType_Float4), Field(Field_Life, BaseType_Float),
                                         Field(Field_Size, BaseType_Float), Field(Field_Force, BaseType_Float4)});
    return definition;
}

u32 RowBytes(const SParticleStreamDef &definition)
{
    u32 bytes = 0;
    for (const SParticleStreamFieldDef &field : definition.m_StreamDef.View())
        bytes += field.m_StorageSize;
    return bytes;
}

// The same bytes without conversion, a block a page: what a page holds is copied column by column, what the new
// definition has more of is cleared.
void CopyAndClear(const CParticleStream_MainMemory &stream, u32 newRowBytes, CPlainBlocks &blocks)
{
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const CParticlePage &page = *stream._UnsafePage(CGuid(i));
        u8 *to = blocks.Block(i);
        u8 *const end = to + size_t(newRowBytes) * page.ParticleCount();
        for (const SParticleStreamField &field : page.Streams())
        {
            const size_t bytes = size_t(field.m_Definition.m_StorageSize) * page.ParticleCount();
            std::memcpy(to, field.m_RawDataPtr, bytes);
            to += bytes;
        }
        std::memset(to, 0, size_t(end - to));
    }
}

// Blocks of one size are reused while hot: each page takes the block that the page before it has left.
void AddRebindRow(const char *title, const SDefinition &newDefinition, double target)
{
    const auto body = [=, &newDefinition](const RunSides &run)
    {
        CParticleStream_MainMemory stream(0);
        Bind(stream, Particle());
        AppendParticles(stream, kParticleCount);
        FillColumns(stream, true);
        CPlainBlocks blocks(size_t(RowBytes(newDefinition)) * kPageSize);
        const auto ours = [&](CMeter &meter)
        {
            Bind(stream, Particle());
            meter.Time([&] { Bind(stream, newDefinition); });
        };
        const auto limit = [&](CMeter &meter)
        {
            Bind(stream, Particle());
            blocks.Reverse();
            meter.Time([&] { CopyAndClear(stream, RowBytes(newDefinition), blocks); });
        };
        run({Ours(ours), Limit("memcpy and memset", target, limit)});
    };
    AddRow({"9", title, kParticleCount, "ns a particle", 0.0,
            "memory, which other programs use as well: a round's ratio lies between 0.6 and 0.9"},
           body);
}

} // namespace

void AddRebindRows()
{
    AddRebindRow("rebind, columns in another order, blocks reused while hot", ReorderedParticle(), 0.75);
    AddRebindRow("rebind, life from float to int, blocks reused while hot", WholeLife(), 0.75);
    AddRebindRow("rebind, velocity from Float3 to Float4", WideVelocity(), 1.1);
    AddRebindRow("rebind, one new Float4", WithForce(), 1.1);
}

} // namespace Bench
