// Raw pages of the page allocator beside blocks of general allocators: a page's bytes got, filled and released, and
// what stays resident when most pages are gone.
#include <cstring>
#include <memory>

#include <tz_particles/include/ps_runtime.h>

#include "block_peers.h"
#include "resident.h"
#include "row.h"

namespace Bench
{

namespace
{

constexpr u32 kPageBytes = kPageSize * sizeof(SParticle);
constexpr u32 kMillionPageCount = (kParticleCount + kPageSize - 1) / kPageSize;
constexpr u32 kFilledPageCount = 8192; // of a round and thread
static_assert(kPageBytes == 48 << 10, "as the rows are called");

// Our raw pages and the peers' blocks, called alike.
struct SRawPages
{
    using Block = PParticleRawPage_MainMemory;

    Block Get() const { return m_Allocator->AllocPage(kPageBytes); }
    void Release(Block &block) const { block = null; }
    u8 *Bytes(const Block &block) const { return block->RawDataForWriting(); }

    CParticlePageAllocator *m_Allocator = Particles::PageAllocator();
};

struct SPeerBlocks
{
    using Block = void *;

    Block Get() const { return m_Peer.m_Alloc(kPageBytes); }
    void Release(Block &block) const { m_Peer.m_Free(block); }
    u8 *Bytes(Block block) const { return static_cast<u8 *>(block); }

    SBlockPeer m_Peer;
};

template <typename _Blocks>
class CPages
{
public:
    CPages(const _Blocks &blocks, u32 count)
        : m_Blocks(blocks)
        , m_Pages(count)
    {
    }

    void Get(u32 first, u32 end)
    {
        for (u32 i = first; i < end; ++i)
        {
            m_Pages[i] = m_Blocks.Get();
            std::memset(m_Blocks.Bytes(m_Pages[i]), kFreshParticleByte, kPageBytes);
        }
    }
    void Release(u32 first, u32 end)
    {
        for (u32 i = first; i < end; ++i)
            m_Blocks.Release(m_Pages[i]);
    }
    u32 Count() const { return u32(m_Pages.size()); }

private:
    _Blocks m_Blocks;
    std::vector<typename _Blocks::Block> m_Pages;
};

// Of pageCount pages, replacedCount in turn are released and got again.
template <typename _Blocks>
void Replace(const _Blocks &blocks, u32 pageCount, u32 replacedCount, unsigned thread, CRendezvous &rendezvous)
{
    CPages<_Blocks> pages(blocks, pageCount);
    pages.Get(0, pageCount);
    rendezvous.Begin(thread);
    for (u32 filled = 0; filled < kFilledPageCount; filled += replacedCount)
    {
        const u32 first = filled % pageCount;
        pages.Release(first, first + replacedCount);
        pages.Get(first, first + replacedCount);
    }
    rendezvous.End(thread);
    pages.Release(0, pageCount);
}

template <typename _Side>
void AddPeers(std::vector<SSide> &sides, _Side side)
{
    for (const SBlockPeer &peer : BlockPeers())
        sides.push_back(Peer(peer.m_Name, 0.0, side(SPeerBlocks{peer})));
}

void AddReplaceRow(const char *title, u32 pageCount, u32 replacedCount, unsigned threadCount)
{
    const auto body = [=](const RunSides &run)
    {
        const auto side = [=](auto blocks)
        {
            return [=](CMeter &meter)
            {
                RunOnThreads(threadCount, meter,
                             [&](unsigned thread, CRendezvous &rendezvous)
                             { Replace(blocks, pageCount, replacedCount, thread, rendezvous); });
            };
        };
        std::vector<SSide> sides = {Ours(side(SRawPages()))};
        AddPeers(sides, side);
        run(sides);
    };
    AddRow({"11", title + std::string(threadCount > 1 ? ", two threads" : ""), kFilledPageCount, "ns a page", 1.0,
            "a raw page object is made and destroyed, and a mutex locked for each"},
           body);
}

// Pages of a million particles, of which one in a hundred is kept; tidyUp is called then.
template <typename _Blocks, typename _TidyUp>
std::function<void(CMeter &)> MostReleased(const _Blocks &blocks, _TidyUp tidyUp)
{
    const auto resident = std::make_shared<CResident>();
    return [=](CMeter &meter)
    {
        CPages<_Blocks> pages(blocks, kMillionPageCount);
        const auto isKept = [](u32 page) { return page % 100 == 0; };
        resident->Follow(
            [&]
            {
                pages.Get(0, pages.Count());
                for (u32 i = 0; i < pages.Count(); ++i)
                    isKept(i) ? void() : pages.Release(i, i + 1);
                tidyUp();
            });
        meter.Add(resident->Bytes());
        resident->Follow(
            [&]
            {
                for (u32 i = 0; i < pages.Count(); ++i)
                    isKept(i) ? pages.Release(i, i + 1) : void();
                tidyUp();
            });
    };
}

void ResidentWhenMostAreReleased(const RunSides &run)
{
    constexpr u32 kLiveBytes = (kMillionPageCount + 99) / 100 * kPageBytes;
    constexpr u32 kManyUpdates = 1000;
    CParticlePageAllocator &allocator = *Particles::PageAllocator();
    const auto update = [&]
    {
        for (u32 i = 0; i < kManyUpdates; ++i)
            allocator.Update();
    };
    std::vector<SSide> sides = {
        Ours("CleanAllFreePages", MostReleased(SRawPages(), [&] { allocator.CleanAllFreePages(); })),
        Ours("Update", MostReleased(SRawPages(), update)),
        Limit("live pages and 2 MiB", 1.0, [](CMeter &meter) { meter.Add(kLiveBytes + (2 << 20)); })};
    AddPeers(sides, [](auto blocks) { return MostReleased(blocks, [] {}); });
    run(sides);
}

} // namespace

void AddBlockRows()
{
    for (const unsigned threadCount : {1u, 2u})
    {
        AddReplaceRow("one of 64 pages of 48 KiB released, got, filled", 64, 1, threadCount);
        AddReplaceRow("1,024 pages of 48 KiB got, filled, all released", 1024, 1024, threadCount);
    }
    AddRow({"11", "resident when 99 of 100 pages are gone", 1 << 20, "MiB"}, &ResidentWhenMostAreReleased);
}

} // namespace Bench
