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

// A list of pages as one would write it: three allocations a page, and blocks that go to a free list.
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
        const auto ours = [&](CMeter &meter)
        {
            for (u32 i = 0; i < repeats; ++i)
            {
                stream.Clear();
                AppendPages(stream, pageCount, [](u32 page) { return page % 2; });
                TMemoryView<CGuid> reindexer = entries.ViewForWriting();
                meter.Time([&] { stream.GarbageCollectOldPages(withReindexer ? &reindexer : null); });
            }
        };
        const auto plainList = [&](CMeter &meter)
        {
            for (u32 i = 0; i < repeats; ++i)
            {
                CPlainPageList list(pageCount);
                meter.Time([&] { list.Collect(); });
            }
        };
        run({Ours(ours), Limit("plain list: swap, pop, three frees", 1.5, plainList)});
    };
    AddRow({"collection", OnPages(title, pageCount), double(pageCount) * repeats, "ns a page", 0.0,
            "each block goes to its free list under a mutex"},
           body);
}

// Moves everything out of a long list of small pages. Linear: a list of twice the length costs as much a page, both
// lists being larger than the caches.
void Drain(const RunSides &run)
{
    constexpr u32 kShort = 50000, kLong = 100000;
    const auto drain = [=](u32 pageCount, CMeter &meter)
    {
        CParticleStream_MainMemory stream(kSmallPageSize);
        Bind(stream, SmallParticle());
        AppendPages(stream, pageCount, [](u32) { return 16u; });
        stream.SetPageSize(4096);
        meter.Time([&] { stream.ResizePending(TNumericTraits<u32>::kMax); });
    };
    const auto shortLists = [&](CMeter &meter)
    {
        for (u32 i = 0; i < kLong / kShort; ++i)
            drain(kShort, meter);
    };
    run({Ours([&](CMeter &meter) { drain(kLong, meter); }), Limit("twice 50,000 pages", 1.25, shortLists)});
}

} // namespace

void AddPageListRows()
{
    for (const u32 pageCount : {1000u, 100000u})
    {
        AddCollectionRow("half empty,", pageCount, false);
        AddCollectionRow("half empty, reindexer,", pageCount, true);
    }
    AddRow({"10", "ResizePending drains 100,000 pages", 100000, "ns a page"}, &Drain);
}

} // namespace Bench
