// The uncontended page lock, and raw pages against the C library's blocks.
#include <cstdlib>
#include <vector>

#include <pthread.h>

#include <tz_kernel/include/kr_profiler.h>
#include <tz_particles/include/ps_runtime.h>

#include "row.h"

namespace Bench
{

namespace
{

constexpr u32 kPairCount = 100000;

// A bare mutex of the page lock's kind.
class CRecursiveMutex
{
public:
    CRecursiveMutex()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_Mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~CRecursiveMutex() { pthread_mutex_destroy(&m_Mutex); }

    pthread_mutex_t m_Mutex;
};

// What a profiler scope costs that nobody listens to.
void LoadAndBranch()
{
    if (Profiler::CProfiler::Sink() != null)
        std::abort();
}

// Requests in a fixed order; each one releases what its place held.
struct SRequest
{
    u32 m_Place;
    u32 m_Bytes;
};

enum EOrder
{
    Order_Pairs,  // each block is released before the next one is asked for
    Order_Random, // 64 blocks are alive; one of them is exchanged
    Order_Bulk,   // all are asked for, then all are released
};

constexpr u32 kAnySize = 0; // 512 bytes to 1 MiB, each doubling as likely as the others

std::vector<SRequest> Requests(u32 bytes, EOrder order, u32 count)
{
    constexpr u32 kPlaceCount = 64;
    std::vector<SRequest> requests;
    for (u32 i = 0; i < count; ++i)
    {
        const u32 place = order == Order_Pairs ? 0 : order == Order_Random ? Scramble(i) % kPlaceCount : i;
        const u32 doubling = 512u << Scramble(i + count) % 11;
        requests.push_back({place, bytes != kAnySize ? bytes : doubling + Scramble(i + 2 * count) % doubling});
    }
    return requests;
}

void AddBlockRow(const char *title, EOrder order, u32 requestCount, u32 bytes)
{
    const std::string size = bytes == kAnySize ? "any size" : std::to_string(bytes) + " bytes";
    const auto body = [=](const RunSides &run)
    {
        const std::vector<SRequest> requests = Requests(bytes, order, requestCount);
        CParticlePageAllocator &allocator = *Particles::PageAllocator();
        std::vector<PParticleRawPage_MainMemory> rawPages(requestCount);
        std::vector<void *> blocks(requestCount);
        const auto ours = [&]
        {
            for (const SRequest &request : requests)
            {
                rawPages[request.m_Place] = null;
                rawPages[request.m_Place] = allocator.AllocPage(request.m_Bytes);
            }
            for (PParticleRawPage_MainMemory &rawPage : rawPages)
                rawPage = null;
        };
        const auto reference = [&]
        {
            for (const SRequest &request : requests)
            {
                std::free(blocks[request.m_Place]);
                blocks[request.m_Place] = std::malloc(request.m_Bytes);
            }
            for (void *&block : blocks)
            {
                std::free(block);
                block = nullptr;
            }
        };
        run([&](CStopwatch &watch) { watch.Time(ours); }, [&](CStopwatch &watch) { watch.Time(reference); });
        allocator.CleanAllFreePages();
    };
    AddRow({std::string(title) + ", " + size, "malloc and free", 1.0, double(requestCount), "block"}, body);
}

} // namespace

void AddLockRows()
{
    const auto body = [](const RunSides &run)
    {
        const CParticleStream_MainMemory stream(kPageSize);
        CRecursiveMutex bare;
        const auto ours = [&]
        {
            for (u32 i = 0; i < kPairCount; ++i)
            {
                stream.LockPages();
                stream.UnlockPages();
            }
        };
        const auto reference = [&]
        {
            for (u32 i = 0; i < kPairCount; ++i)
            {
                pthread_mutex_lock(&bare.m_Mutex);
                LoadAndBranch();
                pthread_mutex_unlock(&bare.m_Mutex);
                LoadAndBranch();
            }
        };
        run([&](CStopwatch &watch) { watch.Time(ours); }, [&](CStopwatch &watch) { watch.Time(reference); });
    };
    AddRow({"LockPages and UnlockPages", "recursive mutex pair and two branches", 1.5, kPairCount, "pair"}, body);
}

void AddBlockRows()
{
    for (const u32 bytes : {512u, 4096u, 48u << 10, 256u << 10, 1u << 20, kAnySize})
    {
        AddBlockRow("raw pages one at a time", Order_Pairs, 20000, bytes);
        AddBlockRow("raw pages, 64 alive, exchanged", Order_Random, 20000, bytes);
        AddBlockRow("raw pages, all gotten, then released", Order_Bulk, 1000, bytes);
    }
}

} // namespace Bench
