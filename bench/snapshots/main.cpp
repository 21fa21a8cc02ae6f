// Snapshots beside fwrite and fread of the same bytes, in the same order, to and from the same pages: medians of
// several rounds in turn, and the peak of resident memory. Usage: snapshots_bench FOLDER [PARTICLES [PAGE_SIZE
// [ROUNDS]]]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include <tz_particles/include/ps_runtime.h>
#include <tz_snapshot/include/sn_snapshot.h>

using namespace Tessaly;

namespace
{

void Require(bool isFine, const char *what)
{
    if (isFine)
        return;
    std::fprintf(stderr, "snapshots_bench: %s failed\n", what);
    std::exit(1);
}

double Seconds(const std::function<void()> &work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

long PeakKilobytes()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Hands every column's bytes to fn, page by page.
template <typename _Fn>
void ForEachColumn(CParticleStream_MainMemory &stream, _Fn &&fn)
{
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        for (SParticleStreamField &field : stream.Page(CGuid(i))->StreamsForWriting())
            fn(field.m_RawDataPtr, size_t(field.m_ParticleCount) * field.m_Definition.m_StorageSize);
    }
}

void Fill(CParticleStream_MainMemory &stream, u32 count)
{
    const CScopedPagesLock lock(stream);
    while (count != 0)
    {
        const PParticlePage page = stream.AllocNewPage_NoLock(true);
        Require(page != null, "making a page");
        const u32 bornCount = std::min(count, page->Capacity());
        page->AllocateParticles(bornCount);
        stream.RegisterBornCount_NoConsistencyCheck(bornCount);
        count -= bornCount;
    }
}

void WriteFile(CParticleStream_MainMemory &stream, const std::string &path, bool isFlushed)
{
    std::FILE *file = std::fopen(path.c_str(), "wb");
    Require(file != nullptr, "fopen");
    ForEachColumn(stream, [&](const u8 *bytes, size_t count)
                  { Require(std::fwrite(bytes, 1, count, file) == count, "fwrite"); });
    Require(std::fflush(file) == 0 && (!isFlushed || fsync(fileno(file)) == 0), "fflush");
    std::fclose(file);
}

void ReadFile(CParticleStream_MainMemory &stream, const std::string &path)
{
    std::FILE *file = std::fopen(path.c_str(), "rb");
    Require(file != nullptr, "fopen");
    ForEachColumn(stream,
                  [&](u8 *bytes, size_t count) { Require(std::fread(bytes, 1, count, file) == count, "fread"); });
    std::fclose(file);
}

void Run(const std::string &folder, u32 particleCount, u32 pageSize, u32 roundCount)
{
    SParticleStreamDef def;
    def.Add(CStringId("position"), BaseType_Float3);
    def.Add(CStringId("velocity"), BaseType_Float3);
    def.Add(CStringId("colour"), BaseType_UByte4);
    def.Add(CStringId("life"), BaseType_Float);
    CParticleStream_MainMemory stream(pageSize);
    Require(stream.BindStreamDef(&def), "binding");
    Fill(stream, particleCount);
    u32 seed = 1;
    ForEachColumn(stream, [&](u8 *bytes, size_t count)
                  { std::generate_n(bytes, count, [&] { return u8((seed = seed * 1664525 + 1013904223) >> 24); }); });
    const double bytes = particleCount * 32.0;

    const std::string plain = folder + "/plain.bin", snapshot = folder + "/snapshot.h5";
    std::vector<double> save, load, write, flushedWrite, read, freshRead;
    long savePeak = 0, loadPeak = 0;
    for (u32 round = 0; round <= roundCount; ++round)
    {
        if (round == 1) // the first one warms up
            save = load = write = flushedWrite = read = freshRead = {};
        const long before = PeakKilobytes();
        save.push_back(Seconds([&] { Require(Snapshot::Save(stream, snapshot.c_str()), "Save"); }));
        savePeak = round == 0 ? PeakKilobytes() - before : savePeak;
        flushedWrite.push_back(Seconds([&] { WriteFile(stream, plain, true); }));
        write.push_back(Seconds([&] { WriteFile(stream, plain, false); }));
        {
            CParticleStream_MainMemory loaded(pageSize);
            Snapshot::SLoadedDefinition definition;
            const long beforeLoad = PeakKilobytes();
            load.push_back(Seconds([&] { Require(Snapshot::Load(snapshot.c_str(), definition, loaded), "Load"); }));
            loadPeak = round == 0 ? PeakKilobytes() - beforeLoad : loadPeak;
            Require(loaded.ParticleCount() == particleCount, "counting");
        }
        CParticleStream_MainMemory fresh(pageSize);
        Require(fresh.BindStreamDef(&def), "binding");
        freshRead.push_back(Seconds(
            [&]
            {
                Fill(fresh, particleCount);
                ReadFile(fresh, plain);
            }));
        read.push_back(Seconds([&] { ReadFile(fresh, plain); }));
    }
    unlink(plain.c_str());
    unlink(snapshot.c_str());
    const auto tell = [&](const char *name, const std::vector<double> &ours, const std::vector<double> &other)
    {
        std::printf("%-42s %6.2f GB/s, %6.2f, ratio %.2f\n", name, bytes / Median(ours) / 1e9,
                    bytes / Median(other) / 1e9, Median(other) / Median(ours));
    };
    std::printf("%u particles of 32 bytes, %u a page, %.0f MiB; medians of %u rounds\n", particleCount, pageSize,
                bytes / (1 << 20), roundCount);
    tell("Save, fwrite and fsync", save, flushedWrite);
    tell("Save, fwrite alone", save, write);
    tell("Load, fread into pages made for it", load, freshRead);
    tell("Load, fread into pages that are there", load, read);
    std::printf("first Save: peak of resident memory up by %.1f MiB; first Load: by %.1f MiB, the pages included\n",
                double(savePeak) / 1024, double(loadPeak) / 1024);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || argc > 5)
    {
        std::fputs("usage: snapshots_bench FOLDER [PARTICLES [PAGE_SIZE [ROUNDS]]]\n", stderr);
        return 2;
    }
    const auto number = [&](int i, u32 other) { return argc > i ? u32(std::strtoul(argv[i], nullptr, 10)) : other; };
    Require(Particles::Startup(), "Startup");
    Run(argv[1], std::max(number(2, 2'000'000), 1u), number(3, 1024), std::max(number(4, 7), 1u));
    Particles::Shutdown();
    return 0;
}
