// Runs the rows that register themselves, by Google Benchmark's options; tools/bench runs a process for each.
#include <cstdlib>

#include <dlfcn.h>

#include "measure.h"

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    Dl_info info = {};
    dladdr(reinterpret_cast<void *>(&std::malloc), &info);
    benchmark::AddCustomContext("malloc", info.dli_fname);
    if (const char *pageSize = std::getenv("TESSALY_PAGE_SIZE"))
        Bench::g_PageSize = Tessaly::u32(std::atoi(pageSize));
    if (const char *moreColumns = std::getenv("TESSALY_MORE_COLUMNS"))
        Bench::g_MoreColumns = Tessaly::u32(std::atoi(moreColumns));
    return Bench::RunWithRuntime(&Bench::RunBenchmarks);
}
