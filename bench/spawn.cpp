// Births: into warm storage, from nothing, and into long page lists.
#include <cstddef>
#include <memory>

#include "containers.h"
#include "plain_blocks.h"
#include "row.h"

namespace Bench
{

namespace
{

// A million births, a burst at a time.
template <typename _Birth>
void Spawn(_Birth birth)
{
    for (u32 born = 0; born < kParticleCount; born += kBurstSize)
        birth(kBurstSize);
}

// The same bytes without a container: each block is filled as a fresh page is, and its bursts are written.
void FillAndWrite(CPlainBlocks &blocks)
{
    u8 *block = null;
    for (u32 born = 0; born < kParticleCount; born += kBurstSize)
    {
        const u32 row = born % kPageSize;
        if (row == 0)
        {
            block = blocks.Block(born / kPageSize);
            std::memset(block, kFreshParticleByte, kPageSize * sizeof(SParticle));
        }
        WriteBorn(reinterpret_cast<CFloat3 *>(block) + row,
                  reinterpret_cast<float *>(block + kPageSize * offsetof(SParticle, m_Life)) + row, kBurstSize);
    }
}

void SpawnWarm(const RunSides &run)
{
    CParticleStream_MainMemory stream(0);
    Bind(stream, Particle());
    CPlainBlocks blocks(kPageSize * sizeof(SParticle));
    SColumns columns;
    CStructs structs;
    CColony colony;
    CColonyInPlace colonyInPlace;
    const auto ours = [&](CMeter &meter)
    {
        stream.Clear();
        meter.Time([&] { Spawn([&](u32 count) { Birth(stream, count); }); });
    };
    const auto limit = [&](CMeter &meter)
    {
        blocks.Reverse();
        meter.Time([&] { FillAndWrite(blocks); });
    };
    const auto inColumns = [&](CMeter &meter)
    {
        columns.Resize(0);
        meter.Time([&] { Spawn([&](u32 count) { columns.Birth(count); }); });
    };
    const auto again = [](CMeter &meter, auto &container)
    {
        container.clear();
        meter.Time([&] { Spawn([&](u32 count) { Birth(container, count); }); });
    };
    run({Ours(ours), Limit("fill and write", 1.25, limit), Peer("vector per column", 0.0, inColumns),
         Peer("vector of structs", 0.0, [&](CMeter &meter) { again(meter, structs); }),
         Peer("plf::colony", 0.55, [&](CMeter &meter) { again(meter, colony); }),
         Peer("plf::colony, emplace", 0.0, [&](CMeter &meter) { again(meter, colonyInPlace); })});
}

// A container that is made, filled and destroyed, the heap being trimmed before.
template <typename _Container, typename _Birth>
void SpawnFromNothing(CMeter &meter, _Birth birth)
{
    TrimHeap();
    std::unique_ptr<_Container> container;
    meter.Time(
        [&]
        {
            container = std::make_unique<_Container>();
            Spawn([&](u32 count) { birth(*container, count); });
        });
}

struct SBoundStream
{
    CParticleStream_MainMemory m_Stream{0};

    SBoundStream() { Bind(m_Stream, Particle()); }
};

void AddFromNothingRow()
{
    const auto body = [](const RunSides &run)
    {
        const auto ours = [](CMeter &meter)
        { SpawnFromNothing<SBoundStream>(meter, [](SBoundStream &to, u32 count) { Birth(to.m_Stream, count); }); };
        const auto limit = [](CMeter &meter)
        {
            CPlainBlocks blocks(kPageSize * sizeof(SParticle));
            TrimHeap();
            meter.Time([&] { FillAndWrite(blocks); });
        };
        const auto inColumns = [](CMeter &meter)
        { SpawnFromNothing<SColumns>(meter, [](SColumns &to, u32 count) { to.Birth(count); }); };
        const auto inStructs = [](CMeter &meter)
        { SpawnFromNothing<CStructs>(meter, [](CStructs &to, u32 count) { Birth(to, count); }); };
        const auto inColony = [](CMeter &meter)
        { SpawnFromNothing<CColony>(meter, [](CColony &to, u32 count) { Birth(to, count); }); };
        const auto inColonyInPlace = [](CMeter &meter)
        { SpawnFromNothing<CColonyInPlace>(meter, [](CColonyInPlace &to, u32 count) { Birth(to, count); }); };
        run({Ours(ours), Limit("fill and write, malloc", 0.0, limit), Peer("vector per column", 0.15, inColumns),
             Peer("vector of structs", 0.0, inStructs), Peer("plf::colony", 0.2, inColony),
             Peer("plf::colony, emplace", 0.0, inColonyInPlace)});
    };
    AddRow({"3", "spawn a million by 64 from nothing", kParticleCount, "ns a particle"}, body);
}

// A list of pageCount pages, of which only the last has free slots: enough for all the births that are measured.
class CLongList
{
public:
    static constexpr u32 kCallCount = 256;

    explicit CLongList(u32 pageCount)
        : m_Stream(kBurstSize)
    {
        Bind(m_Stream, Particle());
        AppendParticles(m_Stream, (pageCount - 1) * kBurstSize);
        m_Stream.SetPageSize(kCallCount * kBurstSize);
        AppendPages(m_Stream, 1, [](u32) { return 0u; });
    }

    void Measure(CMeter &meter)
    {
        CParticlePage &lastPage = *m_Stream.Page(CGuid(m_Stream.PageCount() - 1));
        for (u32 i = 0; i < 20; ++i)
        {
            const u32 deadCount = lastPage.ParticleCount();
            lastPage.Clear();
            m_Stream.RegisterDeadCount(deadCount); // its check brings what the births read into the caches
            meter.Time(
                [&]
                {
                    for (u32 call = 0; call < kCallCount; ++call)
                        m_Stream.AllocateParticlesIFP(kBurstSize, 0);
                });
        }
    }

    static constexpr u32 kMeasuredCount = 20 * kCallCount;

private:
    CParticleStream_MainMemory m_Stream;
};

void BirthsOnLongList(const RunSides &run)
{
    CLongList longList(100000), shortList(10);
    run({Ours([&](CMeter &meter) { longList.Measure(meter); }),
         Limit("the same on 10 pages", 1.5, [&](CMeter &meter) { shortList.Measure(meter); })});
}

} // namespace

void AddSpawnRows()
{
    AddRow({"1", "spawn a million by 64, warm", kParticleCount, "ns a particle", 0.0,
            "the five lock pairs of a call, two thirds of what it takes beyond the bytes"},
           &SpawnWarm);
    AddRow({"2", "AllocateParticlesIFP(64) on 100,000 pages", CLongList::kMeasuredCount, "ns a call"},
           &BirthsOnLongList);
    AddFromNothingRow();
}

} // namespace Bench
