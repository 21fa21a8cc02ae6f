// What costs with the pages' number; the page lock; raw pages beside blocks of the C library, which tools/bench
// replaces by other allocators; resident bytes.
#include <fstream>
#include <iterator>

#include <pthread.h>

#include <tz_kernel/include/kr_profiler.h>

#include "measure.h"
#include "peers.h"

using namespace Bench;

namespace
{

// Births into a list of which only the last page has free slots.
struct SLongList
{
    static constexpr u32 kCallCount = 256, kBirthCount = kCallCount * kBurstSize;

    CStream m_Stream;

    explicit SLongList(u32 pageCount)
        : m_Stream((pageCount - 1) * kBurstSize, kBurstSize)
    {
        m_Stream.SetPageSize(kBirthCount);
        m_Stream.AppendPages(1, [](u32) { return kBirthCount; });
    }
    void Prepare()
    {
        m_Stream.Page(CGuid(m_Stream.PageCount() - 1))->Clear();
        m_Stream.RegisterDeadCount(kBirthCount); // its check brings what the births read into the caches
    }
    void Run()
    {
        for (u32 call = 0; call < kCallCount; ++call)
            m_Stream.AllocateParticlesIFP(kBurstSize, 0);
    }
};

const SDefinition kSmallParticle{BaseType_Float};

struct SCollection
{
    u32 m_PageCount;
    bool m_WithReindexer;
    TArray<CGuid> m_Entries{m_PageCount};
    CStream m_Stream{0, 64, kSmallParticle}; // a smallest block a page

    void Prepare()
    {
        m_Stream.Clear();
        m_Stream.AppendPages(m_PageCount, [](u32 page) { return page % 2; });
    }
    void Run()
    {
        TMemoryView<CGuid> reindexer = m_Entries.ViewForWriting();
        m_Stream.GarbageCollectOldPages(m_WithReindexer ? &reindexer : null);
    }
};

// A list of pages as one would write it: three allocations a page, and blocks that go to a free list.
struct SPlainCollection
{
    struct SPage
    {
        u32 m_ParticleCount;
        std::unique_ptr<u8[]> m_Fields{new u8[sizeof(SParticleStreamField)]};
        std::unique_ptr<u8[]> m_RawPage{new u8[sizeof(CParticleRawPage_MainMemory)]};
        u8 m_Rest[sizeof(CParticlePage) - 24];
    };
    u32 m_PageCount;
    std::vector<std::unique_ptr<SPage>> m_Pages{};
    std::vector<u8 *> m_FreeBlocks{};

    void Prepare()
    {
        m_Pages.clear();
        for (u32 i = 0; i < m_PageCount; ++i)
        {
            m_Pages.emplace_back(new SPage);
            m_Pages.back()->m_ParticleCount = i % 2;
        }
        m_FreeBlocks.clear();
        m_FreeBlocks.reserve(m_PageCount);
    }
    void Run()
    {
        for (size_t i = 0; i < m_Pages.size();)
        {
            if (m_Pages[i]->m_ParticleCount != 0)
            {
                ++i;
                continue;
            }
            m_FreeBlocks.push_back(m_Pages[i]->m_RawPage.get());
            m_Pages[i] = std::move(m_Pages.back());
            m_Pages.pop_back();
        }
    }
};

void PageLock(benchmark::State &state)
{
    const CStream stream;
    for (auto _ : state)
    {
        stream.LockPages();
        stream.UnlockPages();
    }
    state.SetItemsProcessed(state.iterations());
}

// With what two profiler scopes cost that nobody listens to.
void RecursiveMutex(benchmark::State &state)
{
    pthread_mutex_t mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    const auto loadAndBranch = [] { Profiler::CProfiler::Sink() != null ? std::abort() : void(); };
    for (auto _ : state)
    {
        pthread_mutex_lock(&mutex);
        loadAndBranch();
        pthread_mutex_unlock(&mutex);
        loadAndBranch();
    }
    state.SetItemsProcessed(state.iterations());
}

constexpr u32 kPageBytes = 48 << 10;

struct SRawPage
{
    PParticleRawPage_MainMemory m_Page = Particles::PageAllocator()->AllocPage(kPageBytes);

    u8 *Bytes() { return m_Page->RawDataForWriting(); }
};

struct SBlock
{
    std::unique_ptr<u8[]> m_Block{new u8[kPageBytes]};

    u8 *Bytes() { return m_Block.get(); }
};

template <typename _Page>
using TPages = std::vector<std::optional<_Page>>;

template <typename _Page>
void GetAndFill(std::optional<_Page> &page)
{
    std::memset(page.emplace().Bytes(), kFreshParticleByte, kPageBytes);
}

// Of so many pages, some in turn are released and got again.
template <typename _Page>
void AddReplace(const std::string &name, u32 pageCount, u32 replacedCount)
{
    constexpr u32 kFilledCount = 8192;
    const auto repetition = [=](benchmark::State &state)
    {
        TPages<_Page> pages(pageCount);
        std::for_each(pages.begin(), pages.end(), &GetAndFill<_Page>);
        for (auto _ : state)
        {
            for (u32 filled = 0; filled < kFilledCount; filled += replacedCount)
            {
                const auto first = pages.begin() + filled % pageCount, end = first + replacedCount;
                std::for_each(first, end, [](std::optional<_Page> &page) { page.reset(); });
                std::for_each(first, end, &GetAndFill<_Page>);
            }
        }
        state.SetItemsProcessed(kFilledCount / u32(state.threads()));
    };
    benchmark::RegisterBenchmark(("replace_" + name).c_str(), repetition)->Iterations(1);
    auto *threads = benchmark::RegisterBenchmark(("threads_replace_" + name).c_str(), repetition);
    threads->Iterations(1)->Threads(2)->UseRealTime();
}

// Those of the program's own code and of its files apart; the kernel counts them page by page.
double ResidentBytes()
{
    std::ifstream file("/proc/self/smaps_rollup");
    const std::string text(std::istreambuf_iterator<char>(file), {}), key = "Anonymous:";
    return 1024.0 * std::stod(text.substr(text.find(key) + key.size()));
}

void CleanAllFreePages() { Particles::PageAllocator()->CleanAllFreePages(); }
void UpdateForLong()
{
    for (u32 i = 0; i < 1000; ++i)
        Particles::PageAllocator()->Update();
}
void LeaveAsIs() {}

// Pages of a million particles, of which one in a hundred is kept.
template <typename _Page, void (*_TidyUp)()>
double BytesWhenMostAreReleased()
{
    static const double before = ResidentBytes();
    TPages<_Page> pages(977);
    std::for_each(pages.begin(), pages.end(), &GetAndFill<_Page>);
    for (size_t i = 0; i < pages.size(); ++i)
        i % 100 != 0 ? pages[i].reset() : void();
    _TidyUp();
    return ResidentBytes() - before;
}

template <typename _Particles>
double BytesOfFullPages()
{
    TrimHeap();
    const double before = ResidentBytes();
    _Particles particles;
    Spawn(particles, 976 * kPageSize);
    return ResidentBytes() - before;
}

// In an ordinary process, and round after round.
double BytesLeftBehind()
{
    CStream stream;
    static const double before = ResidentBytes();
    stream.Refill(kParticleCount);
    stream.Cleanup();
    CleanAllFreePages();
    return ResidentBytes() - before;
}

// measure gives bytes, told for each of itemCount items.
void AddBytes(const char *name, double itemCount, double (*measure)())
{
    const auto repetition = [=](benchmark::State &state)
    {
        for (auto _ : state)
            state.counters["bytes"] = measure() / itemCount;
    };
    benchmark::RegisterBenchmark(name, repetition)->Iterations(1);
}

[[maybe_unused]] const bool kAreRegistered = []
{
    Add<SLongList>("long_list/ours", SLongList::kCallCount, 100000u)->Iterations(20);
    Add<SLongList>("long_list/limit", SLongList::kCallCount, 10u)->Iterations(20);
    for (const u32 count : {1000u, 100000u})
    {
        const std::string end = "_" + std::to_string(count);
        const u32 repeats = TZMax(10000 / count, 1u);
        Add<SCollection>("collect" + end + "/ours", count, count, false)->Iterations(repeats);
        Add<SPlainCollection, false>("collect" + end + "/limit", count, count)->Iterations(repeats);
        Add<SCollection>("collect_reindexed" + end + "/ours", count, count, true)->Iterations(repeats);
        Add<SPlainCollection, false>("collect_reindexed" + end + "/limit", count, count)->Iterations(repeats);
    }
    benchmark::RegisterBenchmark("page_lock/ours", &PageLock)->Iterations(100000);
    benchmark::RegisterBenchmark("page_lock/limit", &RecursiveMutex)->Iterations(100000);
    AddReplace<SRawPage>("one/ours", 64, 1);
    AddReplace<SBlock>("one/malloc", 64, 1);
    AddReplace<SRawPage>("all/ours", 1024, 1024);
    AddReplace<SBlock>("all/malloc", 1024, 1024);
    AddBytes("kept_clean/ours", 1 << 20, &BytesWhenMostAreReleased<SRawPage, &CleanAllFreePages>);
    AddBytes("kept_clean/malloc", 1 << 20, &BytesWhenMostAreReleased<SBlock, &LeaveAsIs>);
    AddBytes("kept_update/ours", 1 << 20, &BytesWhenMostAreReleased<SRawPage, &UpdateForLong>);
    AddBytes("memory/ours", 976 * kPageSize, &BytesOfFullPages<CStream>);
    AddBytes("memory/columns", 976 * kPageSize, &BytesOfFullPages<SColumns>);
    AddBytes("memory/structs", 976 * kPageSize, &BytesOfFullPages<SStructs>);
    AddBytes("memory/colony", 976 * kPageSize, &BytesOfFullPages<SColony>);
    AddBytes("left_behind/ours", 1 << 20, &BytesLeftBehind);
    return true;
}();

} // namespace
