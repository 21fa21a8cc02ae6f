// Bytes of the process that are resident: of a million particles, and of what is left behind them.
#include <fstream>

#include "containers.h"
#include "plain_blocks.h"
#include "row.h"

namespace Bench
{

namespace
{

// Bytes resident, those of the program's own code and of its files apart; the kernel counts them page by page.
double ResidentBytes()
{
    std::ifstream file("/proc/self/smaps_rollup");
    for (std::string word; file >> word;)
    {
        double kibibytes = 0.0;
        if (word == "Anonymous:" && file >> kibibytes)
            return kibibytes * 1024.0;
    }
    return 0.0;
}

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

// What stays resident behind a million, above the allocator's floor: what is so when its first page came and went. The
// heap is trimmed both times: what the page allocator gave back is the C library's to give back.
void ResidentAfterCleanup(const RunSides &run)
{
    CParticleStream_MainMemory stream(0);
    Bind(stream, Particle());
    const auto residentAfter = [&](u32 particleCount)
    {
        AppendParticles(stream, particleCount);
        stream.Cleanup();
        TrimHeap();
        return ResidentBytes();
    };
    const double floor = residentAfter(1);
    run({Ours([&](CMeter &meter) { meter.Add(residentAfter(kParticleCount) - floor); }),
         Limit("a hundredth of the million", 1.0,
               [=](CMeter &meter) { meter.Add(0.01 * sizeof(SParticle) * kParticleCount); })});
}

} // namespace

void AddMemoryRows()
{
    AddRow({"memory", "a million in full pages", kParticleCount / kPageSize * kPageSize, "bytes a particle"},
           &ResidentPerParticle);
    AddRow({"memory", "left behind a million by Cleanup, CleanAllFreePages", kParticleCount, "bytes a particle"},
           &ResidentAfterCleanup);
}

} // namespace Bench
