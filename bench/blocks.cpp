// Raw pages of the page allocator beside blocks of general allocators.
#include <cstdlib>
#include <cstring>

#include <sched.h>

#include <tz_particles/include/ps_runtime.h>

#include "block_peers.h"
#include "row.h"

namespace Bench
{

namespace
{

constexpr u32 kRequestCount = 200000;
constexpr u32 kBulkRepeatCount = 8;
constexpr u32 kAliveCount = 64; // blocks of a thread

// Blocks of our allocator as the others are called: get, and let go.
struct SOwnBlocks
{
    using Block = u8 *;

    Block Get(u32 bytes) const { return m_Allocator->Alloc(bytes); }
    void Release(Block &block, u32 bytes) const
    {
        m_Allocator->Retire(block, bytes);
        block = null;
    }
    u8 *Bytes(Block block) const { return block; }

    CParticlePageAllocator *m_Allocator = Particles::PageAllocator();
};

// The same, each with the reference-counted object that a page holds.
struct SRawPages
{
    using Block = PParticleRawPage_MainMemory;

    Block Get(u32 bytes) const { return m_Allocator->AllocPage(bytes); }
    void Release(Block &block, u32 /*bytes*/) const { block = null; }
    u8 *Bytes(const Block &block) const { return block->RawDataForWriting(); }

    CParticlePageAllocator *m_Allocator = Particles::PageAllocator();
};

struct SPeerBlocks
{
    using Block = void *;

    Block Get(u32 bytes) const { return m_Peer.m_Alloc(bytes); }
    void Release(Block &block, u32 /*bytes*/) const
    {
        m_Peer.m_Free(block);
        block = nullptr;
    }
    u8 *Bytes(Block block) const { return static_cast<u8 *>(block); }

    SBlockPeer m_Peer;
};

// The least that one could do: a stack of blocks for each thread, of one size.
class CBareStack
{
public:
    ~CBareStack() { SetSize(0); }

    void SetSize(u32 bytes)
    {
        for (; m_Bytes != bytes && m_Top != null;)
            std::free(Pop());
        m_Bytes = bytes;
    }
    void *Pop()
    {
        void *block = m_Top;
        std::memcpy(&m_Top, block, sizeof(m_Top));
        return block;
    }
    void Push(void *block)
    {
        std::memcpy(block, &m_Top, sizeof(m_Top));
        m_Top = block;
    }
    bool IsEmpty() const { return m_Top == null; }

    static thread_local CBareStack m_OfThread;

private:
    u32 m_Bytes = 0;
    void *m_Top = null;
};

thread_local CBareStack CBareStack::m_OfThread;

struct SStackBlocks
{
    using Block = void *;

    Block Get(u32 bytes) const
    {
        CBareStack &stack = CBareStack::m_OfThread;
        return stack.IsEmpty() ? std::malloc(bytes) : stack.Pop();
    }
    void Release(Block &block, u32 /*bytes*/) const { CBareStack::m_OfThread.Push(block); }
    u8 *Bytes(Block block) const { return static_cast<u8 *>(block); }
};

// Places of blocks: places[i] is the next one whose block is released and got again.
std::vector<u32> Places(bool atRandom)
{
    std::vector<u32> places;
    for (u32 i = 0; i < kRequestCount; ++i)
        places.push_back((atRandom ? Scramble(i) : i) % kAliveCount);
    return places;
}

// Each block that is got has a byte written.
template <typename _Blocks>
void GetAgain(const _Blocks &blocks, u32 bytes, const std::vector<u32> &places, unsigned thread,
              CRendezvous &rendezvous)
{
    CBareStack::m_OfThread.SetSize(bytes);
    typename _Blocks::Block alive[kAliveCount];
    const auto get = [&](typename _Blocks::Block &block)
    {
        block = blocks.Get(bytes);
        *blocks.Bytes(block) = 1;
    };
    for (auto &block : alive)
        get(block);
    rendezvous.Begin(thread);
    for (const u32 place : places)
    {
        blocks.Release(alive[place], bytes);
        get(alive[place]);
    }
    rendezvous.End(thread);
    for (auto &block : alive)
        blocks.Release(block, bytes);
}

// Batches that one thread gets and another one releases.
template <typename _Blocks>
class CHandOver
{
public:
    CHandOver(const _Blocks &blocks, u32 bytes)
        : m_Blocks(blocks)
        , m_Bytes(bytes)
    {
    }

    void Run(unsigned thread, CRendezvous &rendezvous)
    {
        rendezvous.Begin(thread);
        for (u32 i = 0; i < kRequestCount / kAliveCount; ++i)
            thread == 0 ? _Get(m_Batches[i % 2]) : _Release(m_Batches[i % 2]);
        rendezvous.End(thread);
    }

private:
    struct SBatch
    {
        typename _Blocks::Block m_Blocks[kAliveCount];
        bool m_IsFull = false;
    };

    static void _WaitUntil(const SBatch &batch, bool isFull)
    {
        while (__atomic_load_n(&batch.m_IsFull, __ATOMIC_ACQUIRE) != isFull)
            sched_yield();
    }
    void _Get(SBatch &batch) const
    {
        _WaitUntil(batch, false);
        for (auto &block : batch.m_Blocks)
        {
            block = m_Blocks.Get(m_Bytes);
            *m_Blocks.Bytes(block) = 1;
        }
        __atomic_store_n(&batch.m_IsFull, true, __ATOMIC_RELEASE);
    }
    void _Release(SBatch &batch) const
    {
        _WaitUntil(batch, true);
        for (auto &block : batch.m_Blocks)
            m_Blocks.Release(block, m_Bytes);
        __atomic_store_n(&batch.m_IsFull, false, __ATOMIC_RELEASE);
    }

    _Blocks m_Blocks;
    u32 m_Bytes;
    SBatch m_Batches[2];
};

template <typename _Blocks>
void GetAllThenReleaseAll(const _Blocks &blocks, u32 bytes, u32 count, CMeter &meter)
{
    CBareStack::m_OfThread.SetSize(bytes);
    std::vector<typename _Blocks::Block> alive(count);
    const auto once = [&]
    {
        for (auto &block : alive)
        {
            block = blocks.Get(bytes);
            *blocks.Bytes(block) = 1;
        }
        for (auto &block : alive)
            blocks.Release(block, bytes);
    };
    meter.Time(
        [&]
        {
            for (u32 i = 0; i < kBulkRepeatCount; ++i)
                once();
        });
}

// Ours and the peers of a row; side(blocks) is the function of one of them.
template <typename _Side>
std::vector<SSide> SidesOf(_Side side, double mimallocTarget)
{
    std::vector<SSide> sides = {Ours(side(SOwnBlocks())), Ours("raw page", side(SRawPages()))};
    for (const SBlockPeer &peer : BlockPeers())
        sides.push_back(
            Peer(peer.m_Name, peer.m_Name == std::string("mimalloc") ? mimallocTarget : 0.0, side(SPeerBlocks{peer})));
    return sides;
}

std::string SizeName(u32 bytes)
{
    return bytes < 1024 ? std::to_string(bytes) + " bytes" : std::to_string(bytes >> 10) + " KiB";
}

void RunBeside(const RunSides &run, std::vector<SSide> sides, std::function<void(CMeter &)> bareStack)
{
    sides.push_back(Limit("bare stack", 0.0, std::move(bareStack)));
    run(sides);
    CBareStack::m_OfThread.SetSize(0);
    Particles::PageAllocator()->CleanAllFreePages();
}

void AddGetAgainRow(u32 bytes, bool atRandom, unsigned threadCount)
{
    const auto body = [=](const RunSides &run)
    {
        const std::vector<u32> places = Places(atRandom);
        const auto side = [&](auto blocks)
        {
            return [=, &places](CMeter &meter)
            {
                RunOnThreads(threadCount, meter,
                             [&](unsigned thread, CRendezvous &rendezvous)
                             { GetAgain(blocks, bytes, places, thread, rendezvous); });
            };
        };
        RunBeside(run, SidesOf(side, 0.0), side(SStackBlocks()));
    };
    AddRow({"11",
            SizeName(bytes) + (atRandom ? ", at random" : ", in order") + (threadCount > 1 ? ", two threads" : ""),
            kRequestCount, "ns a block", bytes <= (256u << 10) ? 1.0 : 0.35,
            "a raw page counts a reference, some 40 instructions beyond the 50 of a bare block"},
           body);
}

void AddHandOverRow(u32 bytes)
{
    const auto body = [=](const RunSides &run)
    {
        run(SidesOf(
            [=](auto blocks)
            {
                return [=](CMeter &meter)
                {
                    CHandOver<decltype(blocks)> handOver(blocks, bytes);
                    RunOnThreads(2, meter,
                                 [&](unsigned thread, CRendezvous &rendezvous) { handOver.Run(thread, rendezvous); });
                };
            },
            0.0));
        Particles::PageAllocator()->CleanAllFreePages();
    };
    AddRow({"shapes", SizeName(bytes) + ", gotten by one thread, released by another", kRequestCount, "ns a block"},
           body);
}

void AddBulkRow(u32 bytes)
{
    const u32 count = TZMin(4096u, (256u << 20) / bytes);
    const auto body = [=](const RunSides &run)
    {
        const auto side = [=](auto blocks)
        { return [=](CMeter &meter) { GetAllThenReleaseAll(blocks, bytes, count, meter); }; };
        RunBeside(run, SidesOf(side, 0.5), side(SStackBlocks()));
    };
    AddRow({"11", SizeName(bytes) + ", " + std::to_string(count) + " gotten, then released",
            double(count) * kBulkRepeatCount, "ns a block", 0.0,
            "each block costs a cache line for its first byte, and one for its size class or its count"},
           body);
}

} // namespace

void AddBlockRows()
{
    constexpr u32 sizes[] = {512, 4096, 48u << 10, 256u << 10, 1u << 20};
    for (const unsigned threadCount : {1u, 2u})
    {
        for (const u32 bytes : sizes)
        {
            AddGetAgainRow(bytes, false, threadCount);
            AddGetAgainRow(bytes, true, threadCount);
        }
    }
    for (const u32 bytes : sizes)
        AddBulkRow(bytes);
}

void AddHandOverRows()
{
    for (const u32 bytes : {4096u, 48u << 10})
        AddHandOverRow(bytes);
}

} // namespace Bench
