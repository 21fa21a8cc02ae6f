// Copies of whole streams: deep copy, resizes, rebinding, conversion.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <malloc.h>

#include <tz_particles/include/ps_runtime.h>

#include "row.h"

namespace Bench
{

namespace
{

constexpr double kCopyTarget = 1.0 / 0.9;       // nine tenths of the limit's speed
constexpr double kConversionTarget = 1.0 / 0.8; // eight tenths

// Blocks from the C library, for plain copies of what a stream holds.
class CPlainBlocks : public CNonCopyable
{
public:
    explicit CPlainBlocks(size_t blockBytes)
        : m_BlockBytes(blockBytes)
    {
    }
    ~CPlainBlocks() { Free(); }

    // The block, which is made when it is first asked for.
    u8 *Block(size_t index)
    {
        while (m_Blocks.size() <= index)
            m_Blocks.push_back(static_cast<u8 *>(std::malloc(m_BlockBytes)));
        return m_Blocks[index];
    }
    // One memcpy a column and page, into the blocks one after the other.
    void CopyFrom(const CParticleStream_MainMemory &stream)
    {
        size_t index = 0, offset = 0;
        ForEachColumn(stream,
                      [&](const u8 *column, u32 rowCount, u32 rowBytes)
                      {
                          const size_t bytes = size_t(rowCount) * rowBytes;
                          index += offset + bytes > m_BlockBytes ? 1 : 0;
                          offset = offset + bytes > m_BlockBytes ? 0 : offset;
                          std::memcpy(Block(index) + offset, column, bytes);
                          offset += bytes;
                      });
    }
    // Blocks that come back to a free list are handed out last in, first out: the next round meets them in reverse.
    void Reverse() { std::reverse(m_Blocks.begin(), m_Blocks.end()); }
    void Free()
    {
        for (u8 *block : m_Blocks)
            std::free(block);
        m_Blocks.clear();
    }

private:
    size_t m_BlockBytes;
    std::vector<u8 *> m_Blocks;
};

constexpr size_t kBlockBytes = kPageSize * sizeof(SParticle);

void MakeParticles(CParticleStream_MainMemory &stream, u32 particleCount)
{
    Bind(stream, Particle());
    AppendParticles(stream, particleCount);
    FillColumns(stream, true);
}

void AddWarmDeepCopyRow(u32 particleCount)
{
    const auto body = [=](const RunSides &run)
    {
        CParticleStream_MainMemory source(kPageSize), copy(kPageSize);
        MakeParticles(source, particleCount);
        CPlainBlocks blocks(kBlockBytes);
        const auto ours = [&](CStopwatch &watch)
        {
            for (u32 done = 0; done < kParticleCount; done += particleCount)
            {
                copy.Cleanup();
                watch.Time([&] { copy.DeepCopy(source); });
            }
        };
        const auto reference = [&](CStopwatch &watch)
        {
            for (u32 done = 0; done < kParticleCount; done += particleCount)
            {
                blocks.Reverse();
                watch.Time([&] { blocks.CopyFrom(source); });
            }
        };
        run(ours, reference);
    };
    AddRow({"deep copy into warm blocks, " + std::to_string(particleCount), "memcpy, column by column", kCopyTarget,
            kParticleCount, "particle"},
           body);
}

void DeepCopyFresh(const RunSides &run)
{
    CParticleStream_MainMemory source(kPageSize);
    MakeParticles(source, kParticleCount);
    CPlainBlocks blocks(kBlockBytes);
    const auto forgetBlocks = [&]
    {
        Particles::PageAllocator()->CleanAllFreePages();
        malloc_trim(0);
    };
    const auto ours = [&](CStopwatch &watch)
    {
        CParticleStream_MainMemory copy(kPageSize);
        forgetBlocks();
        watch.Time([&] { copy.DeepCopy(source); });
    };
    const auto reference = [&](CStopwatch &watch)
    {
        forgetBlocks();
        watch.Time([&] { blocks.CopyFrom(source); });
        blocks.Free();
    };
    run(ours, reference);
    forgetBlocks();
}

void Resize(const RunSides &run)
{
    constexpr u32 kOldPageSize = 512, kNewPageSize = 4096;
    CParticleStream_MainMemory stream(kOldPageSize);
    CPlainBlocks blocks(kNewPageSize * sizeof(SParticle));
    const auto build = [&]
    {
        stream.Cleanup();
        stream.SetPageSize(kOldPageSize);
        MakeParticles(stream, kParticleCount);
        stream.SetPageSize(kNewPageSize);
        blocks.Reverse();
    };
    const auto ours = [&](CStopwatch &watch)
    {
        build();
        watch.Time([&] { stream.ResizePending(TNumericTraits<u32>::kMax); });
    };
    const auto reference = [&](CStopwatch &watch)
    {
        build();
        watch.Time([&] { blocks.CopyFrom(stream); });
    };
    run(ours, reference);
}

void RebindReordered(const RunSides &run)
{
    CParticleStream_MainMemory stream(kPageSize);
    MakeParticles(stream, kParticleCount);
    CPlainBlocks blocks(kBlockBytes);
    const auto ours = [&](CStopwatch &watch)
    {
        const bool isReordered = stream.GetStreamDef() == &ReorderedParticle();
        watch.Time([&] { Bind(stream, isReordered ? Particle() : ReorderedParticle()); });
    };
    run(ours, [&](CStopwatch &watch) { watch.Time([&] { blocks.CopyFrom(stream); }); });
}

// Reads and writes as many bytes as a conversion does: the smaller number is copied, the rest cleared.
void CopyAsMany(const u8 *from, size_t fromBytes, u8 *to, size_t toBytes)
{
    std::memcpy(to, from, fromBytes);
    std::memset(to + fromBytes, 0, toBytes - fromBytes);
}

void AddConversionRow(const char *title, EBaseTypeID from, EBaseTypeID to)
{
    const auto body = [=](const RunSides &run)
    {
        const SDefinition oldDefinition({Field(Field_Position, from)});
        const SDefinition newDefinition({Field(Field_Position, to)});
        const u32 toBytes = newDefinition.m_StreamDef.First().m_StorageSize;
        CPlainBlocks blocks(size_t(toBytes) * kPageSize);
        CParticleStream_MainMemory stream(kPageSize);
        Bind(stream, oldDefinition);
        AppendParticles(stream, kParticleCount);
        const auto prepare = [&]
        {
            Bind(stream, oldDefinition);
            FillColumns(stream, CBaseTypeTraits::Traits(from).IsFp);
        };
        const auto ours = [&](CStopwatch &watch)
        {
            prepare();
            watch.Time([&] { Bind(stream, newDefinition); });
        };
        const auto reference = [&](CStopwatch &watch)
        {
            prepare();
            u32 index = 0;
            watch.Time(
                [&]
                {
                    ForEachColumn(stream,
                                  [&](const u8 *column, u32 rowCount, u32 rowBytes) {
                                      CopyAsMany(column, size_t(rowCount) * rowBytes, blocks.Block(index++),
                                                 size_t(rowCount) * toBytes);
                                  });
                });
        };
        run(ours, reference);
    };
    AddRow({title, "as many bytes copied and cleared", kConversionTarget, kParticleCount, "particle"}, body);
}

} // namespace

void AddCopyRows()
{
    const SRow columnByColumn = {"", "memcpy, column by column", kCopyTarget, kParticleCount, "particle"};
    const auto add = [&](const char *title, void (*body)(const RunSides &))
    {
        SRow row = columnByColumn;
        row.m_Title = title;
        AddRow(row, body);
    };
    for (const u32 count : {10000u, 100000u, kParticleCount})
        AddWarmDeepCopyRow(count);
    add("deep copy into fresh memory, 1000000", &DeepCopyFresh);
    add("pages of 512 to pages of 4096", &Resize);
    add("rebind, columns in another order", &RebindReordered);
}

void AddConversionRows()
{
    AddConversionRow("rebind, Float3 to Float4", BaseType_Float3, BaseType_Float4);
    AddConversionRow("rebind, Float4 to Int4", BaseType_Float4, BaseType_Int4);
    AddConversionRow("rebind, Int4 to Float4", BaseType_Int4, BaseType_Float4);
    AddConversionRow("rebind, UByte4 to Float4", BaseType_UByte4, BaseType_Float4);
}

} // namespace Bench
