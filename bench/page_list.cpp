// Operations whose cost is that of the page list: walks, collection, draining. Pages are small, lists are long.
#include <cstdlib>
#include <vector>

#include "row.h"

namespace Bench
{

namespace
{

constexpr u32 kSmallPageSize = 64; // particles of 4 bytes: a smallest block

const SDefinition &SmallParticle()
{
    static const SDefinition definition({Field(Field_Life, BaseType_Float)});
    return definition;
}

std::string OnPages(const char *title, u32 pageCount)
{
    return title + (" on " + std::to_string(pageCount)) + " pages";
}

// Page objects side by side, and nothing else: what a walk can hope for.
class CBarePages
{
public:
    explicit CBarePages(u32 count)
    {
        for (u32 i = 0; i < count; ++i)
            m_Pages.push_back(
                Mem::New<CParticlePage>(TZ_CALL_SITE, static_cast<CParticleStream_MainMemory *>(null), kSmallPageSize));
    }

    void Walk() const
    {
        u32 sum = 0;
        for (const PParticlePage &page : m_Pages)
            sum += page.Get()->ParticleCount();
        benchmark::DoNotOptimize(sum);
    }

private:
    std::vector<PParticlePage> m_Pages;
};

// Each birth walks the list three times: the check on entry, the search for room, the check on exit.
void AddBirthRow(u32 pageCount)
{
    constexpr u32 kWalksPerBirth = 3, kBirthCount = 32;
    const auto body = [=](const RunSides &run)
    {
        CParticleStream_MainMemory stream(kSmallPageSize);
        Bind(stream, SmallParticle());
        AppendPages(stream, pageCount, [=](u32 i) { return i + 1 < pageCount ? kSmallPageSize : 0; });
        const CBarePages barePages(pageCount);
        const auto ours = [&](CStopwatch &watch)
        {
            CParticlePage &lastPage = *stream.Page(CGuid(pageCount - 1));
            const u32 deadCount = lastPage.ParticleCount();
            lastPage.Clear();
            stream.RegisterDeadCount(deadCount); // its check warms the caches as the first walk below does
            watch.Time(
                [&]
                {
                    for (u32 i = 0; i < kBirthCount; ++i)
                        stream.AllocateParticlesIFP(1, 1);
                });
        };
        const auto reference = [&](CStopwatch &watch)
        {
            barePages.Walk();
            watch.Time(
                [&]
                {
                    for (u32 i = 0; i < kBirthCount * kWalksPerBirth; ++i)
                        barePages.Walk();
                });
        };
        run(ours, reference);
    };
    AddRow({OnPages("one birth,", pageCount), "bare walk of as many page objects", 1.25,
            double(pageCount) * kWalksPerBirth * kBirthCount, "page"},
           body);
}

// A list of pages as one writes it by hand: three allocations a page, and blocks that go to a free list.
class CPlainPageList
{
public:
    explicit CPlainPageList(u32 pageCount)
    {
        for (u32 i = 0; i < pageCount; ++i)
        {
            SPage *page = static_cast<SPage *>(std::malloc(sizeof(CParticlePage)));
            *page = {i % 2, std::malloc(sizeof(SParticleStreamField)),
                     std::malloc(sizeof(CParticleRawPage_MainMemory))};
            m_Pages.push_back(page);
        }
        m_FreeBlocks.reserve(pageCount);
    }
    ~CPlainPageList()
    {
        for (SPage *page : m_Pages)
            _Free(page);
    }

    void Collect()
    {
        for (size_t i = 0; i < m_Pages.size();)
        {
            SPage *page = m_Pages[i];
            if (page->m_ParticleCount != 0)
            {
                ++i;
                continue;
            }
            m_FreeBlocks.push_back(page->m_RawPage);
            _Free(page);
            m_Pages[i] = m_Pages.back();
            m_Pages.pop_back();
        }
    }

private:
    struct SPage
    {
        u32 m_ParticleCount;
        void *m_Fields;
        void *m_RawPage;
    };

    static void _Free(SPage *page)
    {
        std::free(page->m_RawPage);
        std::free(page->m_Fields);
        std::free(page);
    }

    std::vector<SPage *> m_Pages;
    std::vector<void *> m_FreeBlocks;
};

void AddCollectionRow(const char *title, u32 pageCount, bool withReindexer)
{
    const u32 repeats = TZMax(10000 / pageCount, 1u);
    const auto body = [=](const RunSides &run)
    {
        CParticleStream_MainMemory stream(kSmallPageSize);
        Bind(stream, SmallParticle());
        TArray<CGuid> entries(pageCount);
        const auto ours = [&](CStopwatch &watch)
        {
            for (u32 i = 0; i < repeats; ++i)
            {
                stream.Clear();
                AppendPages(stream, pageCount, [](u32 page) { return page % 2; });
                TMemoryView<CGuid> reindexer = entries.ViewForWriting();
                watch.Time([&] { stream.GarbageCollectOldPages(withReindexer ? &reindexer : null); });
            }
        };
        const auto reference = [&](CStopwatch &watch)
        {
            for (u32 i = 0; i < repeats; ++i)
            {
                CPlainPageList list(pageCount);
                watch.Time([&] { list.Collect(); });
            }
        };
        run(ours, reference);
    };
    AddRow({OnPages(title, pageCount), "plain list: swap, pop, three frees", 1.5, double(pageCount) * repeats, "page"},
           body);
}

// Moves everything out of a long list of small pages. Linear: a list ten times as long costs as much a page.
void Drain(const RunSides &run)
{
    constexpr u32 kShort = 10000, kLong = 100000;
    const auto drain = [=](u32 pageCount, CStopwatch &watch)
    {
        CParticleStream_MainMemory stream(kSmallPageSize);
        Bind(stream, SmallParticle());
        AppendPages(stream, pageCount, [](u32) { return 16u; });
        stream.SetPageSize(4096);
        watch.Time([&] { stream.ResizePending(TNumericTraits<u32>::kMax); });
    };
    const auto shortLists = [&](CStopwatch &watch)
    {
        for (u32 i = 0; i < kLong / kShort; ++i)
            drain(kShort, watch);
    };
    run([&](CStopwatch &watch) { drain(kLong, watch); }, shortLists);
}

} // namespace

void AddPageListRows()
{
    for (const u32 pageCount : {1000u, 10000u, 100000u})
    {
        AddBirthRow(pageCount);
        AddCollectionRow("collection, half empty,", pageCount, false);
        AddCollectionRow("collection, half empty, reindexer,", pageCount, true);
    }
    AddRow({"ResizePending drains 100000 pages", "ten times 10000 pages", 1.5, 100000, "page"}, &Drain);
}

} // namespace Bench
