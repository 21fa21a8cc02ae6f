// Snapshots beside fwrite and fread of the same bytes, in the same order, to and from the same pages; and the peak of
// resident memory. Usage: snapshots_bench FOLDER [PARTICLES [PAGE_SIZE]], with Google Benchmark's options.
#include <cstdlib>

#include <sys/resource.h>
#include <unistd.h>

#include <tz_snapshot/include/sn_snapshot.h>

#include "measure.h"

using namespace Bench;

namespace
{

constexpr u32 kBytes = 32; // of a particle
std::string g_PlainPath, g_SnapshotPath;
u32 g_ParticleCount = 2000000;

void Require(bool isFine)
{
    if (isFine)
        return;
    std::perror("snapshots_bench");
    std::exit(1);
}

double PeakMebibytes()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0;
}

void AddRow(const char *name, std::function<void()> prepare, std::function<void()> work)
{
    const auto repetition = [=](benchmark::State &state)
    {
        prepare();
        for (auto _ : state)
            work();
        state.SetBytesProcessed(state.iterations() * g_ParticleCount * kBytes);
    };
    auto *row = benchmark::RegisterBenchmark(name, repetition);
    row->UseRealTime()->Iterations(1)->Repetitions(7)->ReportAggregatesOnly();
}

// Calls move(bytes, 1, byteCount, file), which is fwrite or fread, for each column of each page.
template <typename _Move>
void MoveColumns(const CStream &stream, const char *mode, bool isFlushed, _Move move)
{
    std::FILE *file = std::fopen(g_PlainPath.c_str(), mode);
    Require(file != null);
    stream.ForEachColumn([&](u8 *bytes, size_t count) { Require(move(bytes, 1, count, file) == count); });
    Require(std::fflush(file) == 0 && (!isFlushed || fsync(fileno(file)) == 0));
    std::fclose(file);
}

void Run()
{
    const SDefinition definition{BaseType_Float3, BaseType_Float3, BaseType_UByte4, BaseType_Float};
    CStream stream(g_ParticleCount, g_PageSize, definition);
    std::optional<CStream> loaded;
    Snapshot::SLoadedDefinition loadedDefinition;
    const auto clear = [&] { loaded.emplace(0, g_PageSize, definition); };
    const auto nothing = [] {};
    const auto save = [&] { Require(Snapshot::Save(stream, g_SnapshotPath.c_str())); };
    const auto load = [&] { Require(Snapshot::Load(g_SnapshotPath.c_str(), loadedDefinition, *loaded)); };
    const auto write = [&] { MoveColumns(stream, "wb", false, &std::fwrite); };
    const auto readNew = [&]
    {
        loaded->Refill(g_ParticleCount);
        MoveColumns(*loaded, "rb", false, &std::fread);
    };
    const double before = PeakMebibytes();
    save();
    const double saved = PeakMebibytes();
    clear();
    load();
    std::printf("%u particles of %u bytes, %u a page\nfirst Save: peak of resident memory up by %.1f MiB; first Load: "
                "by %.1f MiB, the pages included\n",
                g_ParticleCount, kBytes, g_PageSize, saved - before, PeakMebibytes() - saved);
    write();
    AddRow("Save", nothing, save);
    AddRow("fwrite and fsync", nothing, [&] { MoveColumns(stream, "wb", true, &std::fwrite); });
    AddRow("fwrite", nothing, write);
    AddRow("Load", clear, load);
    AddRow("fread into pages made for it", clear, readNew);
    AddRow("fread into pages that are there", nothing, [&] { MoveColumns(stream, "rb", false, &std::fread); });
    RunBenchmarks();
    unlink(g_PlainPath.c_str());
    unlink(g_SnapshotPath.c_str());
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (argc < 2 || argc > 4)
    {
        std::fputs("usage: snapshots_bench FOLDER [PARTICLES [PAGE_SIZE]]\n", stderr);
        return 2;
    }
    g_PlainPath = argv[1] + std::string("/plain.bin");
    g_SnapshotPath = argv[1] + std::string("/snapshot.h5");
    g_ParticleCount = argc > 2 ? u32(std::stoul(argv[2])) : g_ParticleCount;
    g_PageSize = argc > 3 ? u32(std::stoul(argv[3])) : g_PageSize;
    return RunWithRuntime(&Run);
}
