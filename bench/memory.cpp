// Bytes of the process that are resident: of a million particles, and of what is left behind them.
#include "containers.h"
#include "plain_blocks.h"
#include "resident.h"
#include "row.h"

namespace Bench
{

namespace
{

// What make's result keeps resident, from a trimmed heap on.
template <typename _Make>
void Resident(CMeter &meter, _Make make)
{
    TrimHeap();
    const double before = ResidentBytes();
    const auto container = make();
    meter.Add(ResidentBytes() - before);
}

std::unique_ptr<CParticleStream_MainMemory> MakeFullPages(u32 particleCount)
{
    auto stream = std::make_unique<CParticleStream_MainMemory>(0);
    Bind(*stream, Particle());
    AppendParticles(*stream, particleCount);
    return stream;
}

void ResidentPerParticle(const RunSides &run)
{
    const u32 count = kParticleCount / kPageSize * kPageSize;
    const auto spawn = [=](auto &container)
    {
        for (u32 i = 0; i < count; i += kBurstSize)
            Birth(container, kBurstSize);
    };
    run({Ours([=](CMeter &meter) { Resident(meter, [=] { return MakeFullPages(count); }); }),
         Limit("48 bytes and no more", 49.0 / 48.0, [=](CMeter &meter) { meter.Add(48.0 * count); }),
         Peer("vector per column", 0.0,
              [=](CMeter &meter)
              {
                  Resident(meter,
                           [=]
                           {
                               auto columns = std::make_unique<SColumns>();
                               for (u32 i = 0; i < count; i += kBurstSize)
                                   columns->Birth(kBurstSize);
                               return columns;
                           });
              }),
         Peer("vector of structs", 0.0,
              [=](CMeter &meter)
              {
                  Resident(meter,
                           [=]
                           {
                               auto structs = std::make_unique<CStructs>();
                               spawn(*structs);
                               return structs;
                           });
              }),
         Peer("plf::colony", 0.0,
              [=](CMeter &meter)
              {
                  Resident(meter,
                           [=]
                           {
                               auto colony = std::make_unique<CColony>();
                               spawn(*colony);
                               return colony;
                           });
              })});
}

// What stays resident behind a million, in an ordinary process and round after round.
void ResidentAfterCleanup(const RunSides &run)
{
    CParticleStream_MainMemory stream(0);
    Bind(stream, Particle());
    CResident resident;
    const auto ours = [&](CMeter &meter)
    {
        resident.Follow(
            [&]
            {
                AppendParticles(stream, kParticleCount);
                stream.Cleanup();
                Particles::PageAllocator()->CleanAllFreePages();
            });
        meter.Add(resident.Bytes());
    };
    run({Ours(ours), Limit("1 MiB", 1.0, [=](CMeter &meter) { meter.Add(1 << 20); })});
}

} // namespace

void AddMemoryRows()
{
    AddRow({"memory", "a million in full pages", kParticleCount / kPageSize * kPageSize, "bytes a particle"},
           &ResidentPerParticle);
    AddRow({"memory", "left behind a million by Cleanup, CleanAllFreePages", 1 << 20, "MiB"}, &ResidentAfterCleanup);
}

} // namespace Bench
