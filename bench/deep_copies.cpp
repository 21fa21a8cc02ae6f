// Copies of whole streams: deep copies, and resizes of their pages.
#include <optional>

#include "containers.h"
#include "plain_blocks.h"
#include "row.h"

namespace Bench
{

namespace
{

constexpr size_t kBlockBytes = kPageSize * sizeof(SParticle);

void MakeParticles(CParticleStream_MainMemory &stream, u32 particleCount)
{
    Bind(stream, Particle());
    AppendParticles(stream, particleCount);
    FillColumns(stream, true);
}

// Fewer particles are copied so often that they make a million.
void AddWarmDeepCopyRow(u32 particleCount, double target)
{
    const auto body = [=](const RunSides &run)
    {
        CParticleStream_MainMemory source(0), copy(0);
        MakeParticles(source, particleCount);
        CPlainBlocks blocks(kBlockBytes);
        SColumns columns, columnsCopy;
        columns.Resize(particleCount);
        const auto repeat = [=](auto once)
        {
            for (u32 done = 0; done < kParticleCount; done += particleCount)
                once();
        };
        const auto ours = [&](CMeter &meter)
        {
            repeat(
                [&]
                {
                    copy.Cleanup();
                    meter.Time([&] { copy.DeepCopy(source); });
                });
        };
        const auto limit = [&](CMeter &meter)
        {
            repeat(
                [&]
                {
                    blocks.Reverse();
                    meter.Time([&] { blocks.CopyFrom(source); });
                });
        };
        const auto vectors = [&](CMeter &meter) { repeat([&] { meter.Time([&] { columnsCopy = columns; }); }); };
        run({Ours(ours), Limit("memcpy, column by column", target, limit), Peer("vector per column", 0.0, vectors)});
    };
    AddRow({"7", "deep copy into warm blocks, " + std::to_string(particleCount), kParticleCount, "ns a particle", 0.0,
            "a page takes two requests of the C library's memory, and what is free in the last one is filled"},
           body);
}

void DeepCopyFresh(const RunSides &run)
{
    CParticleStream_MainMemory source(0);
    MakeParticles(source, kParticleCount);
    CPlainBlocks blocks(kBlockBytes);
    SColumns columns;
    columns.Resize(kParticleCount);
    const auto ours = [&](CMeter &meter)
    {
        CParticleStream_MainMemory copy(0);
        TrimHeap();
        meter.Time([&] { copy.DeepCopy(source); });
    };
    const auto limit = [&](CMeter &meter)
    {
        TrimHeap();
        meter.Time([&] { blocks.CopyFrom(source); });
        blocks.Free();
    };
    const auto vectors = [&](CMeter &meter)
    {
        std::optional<SColumns> copy;
        TrimHeap();
        meter.Time([&] { copy = columns; });
    };
    run({Ours(ours), Limit("memcpy, column by column, malloc", 0.0, limit), Peer("vector per column", 0.3, vectors)});
    TrimHeap();
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
    const auto ours = [&](CMeter &meter)
    {
        build();
        meter.Time([&] { stream.ResizePending(TNumericTraits<u32>::kMax); });
    };
    const auto limit = [&](CMeter &meter)
    {
        build();
        meter.Time([&] { blocks.CopyFrom(stream); });
    };
    run({Ours(ours), Limit("memcpy, column by column", 1.25, limit)});
}

} // namespace

void AddDeepCopyRows()
{
    AddWarmDeepCopyRow(kParticleCount, 0.85);
    AddWarmDeepCopyRow(200000, 1.05);
    AddWarmDeepCopyRow(100000, 1.05);
    AddWarmDeepCopyRow(10000, 1.05);
    AddRow({"7", "deep copy into fresh memory, 1000000", kParticleCount, "ns a particle"}, &DeepCopyFresh);
    AddRow({"10", "a million in pages of 512 to pages of 4096", kParticleCount, "ns a particle"}, &Resize);
}

} // namespace Bench
