// A round of threads. Every particle has a number, from which follows what its columns hold; what was allocated and not
// removed must be there at the end, each once and whole. On two more streams particles are only counted, and threads
// hold no lock around an operation. Nothing may be reported, whatever the threads do to each other.
#include "drivers.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <list>
#include <set>
#include <thread>

#include <support/definition.h>
#include <support/report_recorder.h>
#include <support/scoped_runtime.h>
#include <tz_particles/include/ps_for_each.h>

namespace Tessaly::Model
{

namespace
{

const CGuid kNumber(0), kOdd(1); // fields

// What the second one holds.
struct SOdd
{
    explicit SOdd(u32 number)
    {
        for (u32 i = 0; i < sizeof(m_Bytes); ++i)
            m_Bytes[i] = u8((number >> (8 * (i % 4))) + i);
    }

    u8 m_Bytes[13];
};

// What the threads of a round share, and their steps.
class CRound
{
public:
    using FnStep = void (CRound::*)(CRandom &random);

    CRound(u64 seed, u32 threadCount)
        : m_Seed(seed)
        , m_MissingCount(threadCount)
    {
        m_Definition.Stored(1, BaseType_U32, 4).Stored(2, BaseType_U8, 13).Constant(3, BaseType_U32, u32(77));
        for (CParticleStream_MainMemory *stream : {&m_Shared, &m_Growing, &m_Changing})
            m_Definition.BindTo(*stream);
    }

    void Run(u32 thread, FnStep step)
    {
        CRandom random(m_Seed * 64 + thread);
        --m_MissingCount;
        while (m_MissingCount != 0) // nobody begins before all have come
            std::this_thread::yield();
        for (u32 i = 0; i < 25; ++i)
            (this->*step)(random);
    }

    void Allocate(CRandom &random) { _Allocate(m_Shared, 1 + random.Below(150), m_Alive); }

    void Remove(CRandom &random)
    {
        const CScopedPagesLock lock(m_Shared);
        if (m_Shared.PageCount() == 0)
            return;
        const CGuid pageId(random.Below(m_Shared.PageCount()));
        const CParticlePageView view(m_Shared.Page(pageId));
        std::vector<u32> rows;
        for (u32 i = 0, stride = 1 + random.Below(3); i < view.ParticleCount(); i += stride)
        {
            rows.push_back(i);
            m_Alive.erase(view.DenseColumn<u32>(kNumber)[i]);
        }
        if (m_Shared.RemoveParticles(pageId, {rows.data(), u32(rows.size())}) != rows.size())
            _Report("particles that could not be removed");
    }

    void Resize(CRandom &random)
    {
        static const u32 kSizes[] = {32, 64, 100, 200};
        m_Shared.SetPageSize(random.Pick(kSizes));
        // Collection leaves the count of pending resizes too high, which a resize would report: it is taken anew first.
        const CScopedPagesLock lock(m_Shared);
        m_Shared.ComputePendingResizes_NoLock();
        m_Shared.ResizePending(random.Below(4));
    }

    void Collect(CRandom &) { m_Shared.GarbageCollectOldPages(null); }

    void Render(CRandom &)
    {
        const CScopedPagesRenderLock lock(m_Shared);
        std::list<CScopedRawPageReader> readers;
        for (u32 i = 0; i < m_Shared.PageCount(); ++i)
            readers.emplace_back(m_Shared.Page(CGuid(i))->RawPage());
        if (_Numbers(m_Shared).size() != m_Shared.ParticleCount())
            _Report("under the lock, the count is not that of the pages");
    }

    void Ask(CRandom &)
    {
        const SParticleStreamStats stats = m_Shared.ComputeStats();
        if (stats.m_ParticleCount > stats.m_SlotCount || m_Shared.LockedByCurrentThread() ||
            m_Shared.StreamId(CStringId(2)) != kOdd || m_Shared.GetStreamDef() != &m_Definition.Def())
            _Report("an answer that can not be");
        m_Asked += m_Shared.ComputeMemoryUsage().Total() + m_Shared.ParticleCount() + m_Shared.PageSize() +
                   (m_Shared.HasPendingResizes() ? 1 : 0) + m_Shared.PageCount();
    }

    void AllocateUnlocked(CRandom &random)
    {
        m_Count += m_Growing.AllocateParticlesIFP(1 + random.Below(9), 1).ParticleCount();
        if (random.OneIn(3))
            m_Growing.SetPageSize(10 + random.Below(40));
        // The view is made behind the allocation's own lock: where others remove, it takes one around both.
        const CScopedPagesLock lock(m_Changing);
        m_Count += m_Changing.AllocateParticlesIFP(1 + random.Below(9), 1).ParticleCount();
    }

    // One thread alone does this: what it sees of a page can only grow until it comes back.
    void RemoveUnlocked(CRandom &random)
    {
        m_Changing.LockPages();
        const CGuid pageId(random.Below(std::max(m_Changing.PageCount(), 1u)));
        const u32 count = m_Changing.PageCount() != 0 ? m_Changing.Page(pageId)->ParticleCount() : 0;
        m_Changing.UnlockPages();
        std::this_thread::yield();
        const u32 first = 0;
        if (count != 0)
            m_Count -= m_Changing.RemoveParticles(pageId, {&first, 1});
    }

    // Streams of the thread's own: the others are met in the allocator only.
    void CopyAndSwap(CRandom &random)
    {
        CParticleStream_MainMemory first(1 + random.Below(100)), second(0);
        m_Definition.BindTo(first);
        m_Definition.BindTo(second);
        std::set<u32> alive;
        _Allocate(first, 1 + random.Below(300), alive);
        second.DeepCopy(first);
        first.Clear();
        first.Swap(second);
        first.SetPageSize(64);
        first.ResizePending(100);
        _Expect(first, alive);
    }

    void TakeBlocks(CRandom &random)
    {
        CParticlePageAllocator &allocator = *Particles::PageAllocator();
        PParticleRawPage_MainMemory blocks[4];
        for (PParticleRawPage_MainMemory &block : blocks)
        {
            block = allocator.AllocPage(random.Below(20000));
            std::memset(block->RawDataForWriting(), int(random.Below(256)), block->Size());
        }
        CParticlePageAllocator_Stats stats;
        allocator.GetTotalStats(stats);
        m_Asked += stats.m_BytesInUse + allocator.SpaceLeft() + allocator.TotalMemoryAvailable();
        if (random.OneIn(2))
            random.OneIn(3) ? allocator.CleanAllFreePages() : allocator.Update();
    }

    std::string Finish()
    {
        _Expect(m_Shared, m_Alive);
        if (m_Growing.ParticleCount() + m_Changing.ParticleCount() != m_Count ||
            m_Growing.ComputeStats().m_ParticleCount + m_Changing.ComputeStats().m_ParticleCount != m_Count)
            _Report("the count is not that of the particles allocated and not removed");
        return m_Difference;
    }

private:
    // Allocates particles and writes them before anybody may look; alive is guarded by the stream's lock.
    void _Allocate(CParticleStream_MainMemory &stream, u32 count, std::set<u32> &alive)
    {
        const CScopedPagesLock lock(stream);
        TArray<CParticlePageView> views;
        if (stream.AllocateParticles(count, views) != count)
            _Report("particles that could not be allocated");
        if (g_Planted == EPlanted::EarlyUnlock)
        {
            stream.UnlockPages();
            std::this_thread::yield();
            stream.LockPages();
        }
        for (const CParticlePageView &view : views.View())
        {
            const TMemoryView<u32> numbers = view.DenseColumnForWriting<u32>(kNumber);
            for (u32 i = 0; i < numbers.Count(); ++i)
            {
                numbers[i] = m_NextNumber++;
                view.DenseColumnForWriting<SOdd>(kOdd)[i] = SOdd(numbers[i]);
                alive.insert(numbers[i]);
            }
        }
    }

    std::vector<u32> _Numbers(const CParticleStream_MainMemory &stream)
    {
        std::vector<u32> numbers;
        Particles::ForEach<const u32, const SOdd>(stream, kNumber, kOdd,
                                                  [&](const u32 &number, const SOdd &odd)
                                                  {
                                                      numbers.push_back(number);
                                                      if (std::memcmp(&odd, SOdd(number).m_Bytes, sizeof(odd)) != 0)
                                                          _Report("a particle is not what was written");
                                                  });
        return numbers;
    }

    void _Expect(const CParticleStream_MainMemory &stream, const std::set<u32> &alive)
    {
        std::vector<u32> numbers = _Numbers(stream);
        std::sort(numbers.begin(), numbers.end());
        if (!std::equal(numbers.begin(), numbers.end(), alive.begin(), alive.end()) ||
            stream.ParticleCount() != alive.size())
            _Report("other particles than were allocated and not removed");
    }

    void _Report(const char *what)
    {
        const std::lock_guard<std::mutex> lock(m_DifferenceLock);
        m_Difference = m_Difference.empty() ? what : m_Difference;
    }

    const u64 m_Seed;
    std::atomic<u32> m_MissingCount; // threads that have not come yet
    Tests::CDefinition m_Definition;
    CParticleStream_MainMemory m_Shared{64}, m_Growing{10}, m_Changing{10};
    std::set<u32> m_Alive;       // in m_Shared, guarded by its lock
    std::atomic<u32> m_Count{0}; // in the two others
    std::atomic<u32> m_NextNumber{1};
    std::atomic<u64> m_Asked{0};
    std::mutex m_DifferenceLock;
    std::string m_Difference;
};

} // namespace

std::string DriveThreads(u64 seed, SFigures &figures)
{
    // A thread each.
    static const CRound::FnStep kSteps[] = {
        &CRound::Allocate,         &CRound::Allocate,         &CRound::Remove,        &CRound::Resize,
        &CRound::Collect,          &CRound::Render,           &CRound::Ask,           &CRound::CopyAndSwap,
        &CRound::CopyAndSwap,      &CRound::TakeBlocks,       &CRound::TakeBlocks,    &CRound::AllocateUnlocked,
        &CRound::AllocateUnlocked, &CRound::AllocateUnlocked, &CRound::RemoveUnlocked};
    const Tests::CScopedRuntime runtime;
    Tests::CReportRecorder reports;
    std::string difference;
    {
        CRound round(seed, u32(std::size(kSteps)));
        std::vector<std::thread> threads;
        for (u32 i = 0; i < std::size(kSteps); ++i)
            threads.emplace_back([&round, i] { round.Run(i, kSteps[i]); });
        for (std::thread &thread : threads)
            thread.join();
        difference = round.Finish();
    }
    for (const Tests::SSeenReport &report : reports.Take())
        difference = difference.empty() ? "reported: " + report.m_Text : difference;
    figures.m_Rounds += 1;
    return difference;
}

} // namespace Tessaly::Model
