// A round of threads. Every particle has a number, from which follows what its columns hold; what was born and has not
// died must be there at the end, each once and whole. On a second stream particles are counted only, and no thread
// holds the lock around an operation. Nothing may be reported, whatever the threads do to each other.
#include "drivers.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

#include <support/definition.h>
#include <support/report_recorder.h>
#include <support/scoped_runtime.h>

namespace Tessaly
{
namespace Model
{

namespace
{

constexpr u32 kSteps = 25; // of a thread in a round
constexpr u32 kNumber = 1, kVector = 2, kOdd = 3, kShared = 4;

// The bytes of a particle in one of its columns.
void MakeBytes(u32 number, u32 column, u8 *out, u32 size)
{
    for (u32 i = 0; i < size; ++i)
        out[i] = u8((number >> (8 * (i % 4))) + column * i);
}

u32 NumberOf(const CParticlePage &page, u32 row)
{
    u32 number;
    std::memcpy(&number, page.Stream(CGuid(0)).m_RawDataPtr + size_t(row) * 4, 4);
    return number;
}

void FillRows(const CParticlePageView &view, u32 firstNumber)
{
    for (u32 i = 0; i < 3; ++i)
    {
        const SParticleStreamField &field = view.Stream(CGuid(i));
        const u32 size = field.m_Definition.m_StorageSize;
        for (u32 j = 0; j < view.ParticleCount(); ++j)
            MakeBytes(firstNumber + j, i, field.m_RawDataPtr + size_t(size) * (view.FirstParticle() + j), size);
    }
}

// What the threads of a round share, and their steps.
class CRound
{
public:
    explicit CRound(u64 seed, u32 threadCount)
        : m_Seed(seed)
        , m_MissingCount(threadCount)
        , m_Shared(64)
        , m_Growing(10)
        , m_Changing(10)
    {
        m_Definition.Stored(kNumber, BaseType_U32, 4).Stored(kVector, BaseType_Float3, 12);
        m_Definition.Stored(kOdd, BaseType_U8, 13).Constant(kShared, BaseType_U32, u32(77));
        m_Definition.BindTo(m_Shared);
        m_Definition.BindTo(m_Growing);
        m_Definition.BindTo(m_Changing);
    }

    using FnStep = void (CRound::*)(CRandom &random);

    void Run(u32 thread, FnStep step)
    {
        CRandom random(m_Seed * 64 + thread);
        --m_MissingCount;
        while (m_MissingCount != 0) // nobody begins before all have come
            std::this_thread::yield();
        for (u32 i = 0; i < kSteps; ++i)
            (this->*step)(random);
    }

    void Birth(CRandom &random) { _Birth(m_Shared, 1 + random.Below(150), m_Alive); }

    void Death(CRandom &random)
    {
        const CScopedPagesLock lock(m_Shared);
        if (m_Shared.PageCount() != 0)
            _Kill(CGuid(random.Below(m_Shared.PageCount())), 1 + random.Below(3));
    }

    void Resize(CRandom &random)
    {
        static const u32 kSizes[] = {32, 64, 100, 200};
        m_Shared.SetPageSize(random.Pick(kSizes));
        // Collection leaves the count of pending resizes too high, which a pass would report: it is taken anew first.
        const CScopedPagesLock lock(m_Shared);
        m_Shared.ComputePendingResizes_NoLock();
        m_Shared.ResizePending(random.Below(4));
    }

    void Collect(CRandom &) { m_Shared.GarbageCollectOldPages(null); }

    void Render(CRandom &)
    {
        m_Shared.LockPagesToRender();
        u32 count = 0;
        for (u32 i = 0; i < m_Shared.PageCount(); ++i)
        {
            const CScopedRawPageReader reader(m_Shared.Page(CGuid(i))->RawPage());
            if (!_IsWhole(*m_Shared.Page(CGuid(i))))
                _Tell("a rendered page is not what was written");
            count += m_Shared.Page(CGuid(i))->ParticleCount();
        }
        if (count != m_Shared.ParticleCount())
            _Tell("under the lock, the count is not that of the pages");
        m_Shared.UnlockPagesToRender();
    }

    void Ask(CRandom &)
    {
        const SParticleStreamStats stats = m_Shared.ComputeStats();
        if (stats.m_ParticleCount > stats.m_SlotCount || m_Shared.LockedByCurrentThread() ||
            m_Shared.StreamId(CStringId(kOdd)) != CGuid(2) || m_Shared.GetStreamDef() != &m_Definition.Def())
            _Tell("an answer that can not be");
        m_Asked += m_Shared.ComputeMemoryUsage().Total() + m_Shared.ParticleCount() + m_Shared.PageSize() +
                   (m_Shared.HasPendingResizes() ? 1 : 0) + m_Shared.PageCount();
    }

    void CountedBirth(CRandom &random)
    {
        m_Balance += m_Growing.AllocateParticlesIFP(1 + random.Below(9), 1).ParticleCount();
        // The view is made behind the allocation's own lock: where others remove, it takes one around both.
        const CScopedPagesLock lock(m_Changing);
        m_Balance += m_Changing.AllocateParticlesIFP(1 + random.Below(9), 1).ParticleCount();
    }

    // One thread alone does this: what it sees of a page can only grow until it comes back.
    void CountedDeath(CRandom &random)
    {
        std::vector<u32> rows;
        u32 pageId = 0;
        {
            const CScopedPagesLock lock(m_Changing);
            pageId = m_Changing.PageCount() != 0 ? random.Below(m_Changing.PageCount()) : 0;
            for (u32 i = 0; m_Changing.PageCount() != 0 && i < m_Changing.Page(CGuid(pageId))->ParticleCount(); i += 2)
                rows.push_back(i);
        }
        std::this_thread::yield();
        if (!rows.empty())
            m_Balance -= m_Changing.RemoveParticles(CGuid(pageId), {rows.data(), u32(rows.size())});
    }

    void CountedPageSize(CRandom &random)
    {
        m_Growing.SetPageSize(10 + random.Below(40));
        if (m_Growing.StreamId(CStringId(kVector)) != CGuid(1))
            _Tell("an answer that can not be");
    }

    // Streams of the thread's own: filled, copied and swapped, with the others only in the allocator.
    void Own(CRandom &random)
    {
        CParticleStream_MainMemory first(1 + random.Below(100)), second(0);
        m_Definition.BindTo(first);
        m_Definition.BindTo(second);
        std::vector<u32> numbers;
        _Birth(first, 1 + random.Below(300), numbers);
        second.DeepCopy(first);
        first.Clear();
        first.Swap(second);
        first.SetPageSize(64);
        first.ResizePending(100);
        _Expect(first, numbers);
    }

    void Blocks(CRandom &random)
    {
        CParticlePageAllocator &allocator = *Particles::PageAllocator();
        PParticleRawPage_MainMemory held[4];
        for (PParticleRawPage_MainMemory &page : held)
        {
            page = allocator.AllocPage(random.Below(20000));
            std::memset(page->RawDataForWriting(), int(random.Below(256)), page->Size());
        }
        CParticlePageAllocator_Stats stats;
        allocator.GetTotalStats(stats);
        m_Asked += stats.m_BytesInUse + allocator.SpaceLeft() + allocator.TotalMemoryAvailable();
        if (random.OneIn(3))
            allocator.Update();
        if (random.OneIn(5))
            allocator.CleanAllFreePages();
    }

    std::string Finish()
    {
        _Expect(m_Shared, m_Alive);
        if (m_Growing.ParticleCount() + m_Changing.ParticleCount() != m_Balance ||
            m_Growing.ComputeStats().m_ParticleCount + m_Changing.ComputeStats().m_ParticleCount != m_Balance)
            _Tell("another count than births less deaths");
        return m_Wrong;
    }

private:
    // Makes particles and writes them before anybody may look; alive is guarded by the stream's lock.
    void _Birth(CParticleStream_MainMemory &stream, u32 count, std::vector<u32> &alive)
    {
        const CScopedPagesLock lock(stream);
        TArray<CParticlePageView> views;
        if (stream.AllocateParticles(count, views) != count)
            _Tell("particles that could not be had");
        if (g_Planted == EPlanted::EarlyUnlock)
        {
            stream.UnlockPages();
            std::this_thread::yield();
            stream.LockPages();
        }
        for (const CParticlePageView &view : views.View())
        {
            const u32 number = m_NextNumber.fetch_add(view.ParticleCount());
            FillRows(view, number);
            for (u32 i = 0; i < view.ParticleCount(); ++i)
                alive.push_back(number + i);
        }
    }

    void _Kill(CGuid pageId, u32 stride)
    {
        std::vector<u32> rows, numbers;
        const CParticlePage &page = *m_Shared.Page(pageId);
        for (u32 i = 0; i < page.ParticleCount(); i += stride)
        {
            rows.push_back(i);
            numbers.push_back(NumberOf(page, i));
        }
        if (m_Shared.RemoveParticles(pageId, {rows.data(), u32(rows.size())}) != rows.size())
            _Tell("particles that could not be removed");
        std::sort(numbers.begin(), numbers.end());
        m_Alive.erase(std::remove_if(m_Alive.begin(), m_Alive.end(),
                                     [&](u32 number)
                                     { return std::binary_search(numbers.begin(), numbers.end(), number); }),
                      m_Alive.end());
    }

    static bool _IsWhole(const CParticlePage &page)
    {
        u8 expected[16];
        for (u32 row = 0; row < page.ParticleCount(); ++row)
        {
            for (u32 i = 0; i < 3; ++i)
            {
                const u32 size = page.Stream(CGuid(i)).m_Definition.m_StorageSize;
                MakeBytes(NumberOf(page, row), i, expected, size);
                if (std::memcmp(page.Stream(CGuid(i)).m_RawDataPtr + size_t(size) * row, expected, size) != 0)
                    return false;
            }
        }
        return true;
    }

    void _Expect(const CParticleStream_MainMemory &stream, std::vector<u32> numbers)
    {
        std::vector<u32> found;
        for (u32 i = 0; i < stream.PageCount(); ++i)
        {
            const CParticlePage &page = *stream.Page(CGuid(i));
            for (u32 row = 0; row < page.ParticleCount(); ++row)
                found.push_back(NumberOf(page, row));
            if (!_IsWhole(page))
                _Tell("a page is not what was written");
        }
        std::sort(found.begin(), found.end());
        std::sort(numbers.begin(), numbers.end());
        if (found != numbers || stream.ParticleCount() != numbers.size())
            _Tell("other particles than were born and have not died");
    }

    void _Tell(const char *what)
    {
        const std::lock_guard<std::mutex> lock(m_WrongLock);
        m_Wrong = m_Wrong.empty() ? what : m_Wrong;
    }

    const u64 m_Seed;
    std::atomic<u32> m_MissingCount; // threads that have not come yet
    Tests::CDefinition m_Definition;
    CParticleStream_MainMemory m_Shared;
    std::vector<u32> m_Alive; // in m_Shared, guarded by its lock
    CParticleStream_MainMemory m_Growing, m_Changing;
    std::atomic<u32> m_Balance{0}; // births less deaths in both
    std::atomic<u32> m_NextNumber{1};
    std::atomic<u64> m_Asked{0};
    std::mutex m_WrongLock;
    std::string m_Wrong;
};

// A thread each.
const CRound::FnStep kThreads[] = {
    &CRound::Birth,  &CRound::Birth,        &CRound::Death,        &CRound::Resize,       &CRound::Collect,
    &CRound::Render, &CRound::Ask,          &CRound::Own,          &CRound::Own,          &CRound::Blocks,
    &CRound::Blocks, &CRound::CountedBirth, &CRound::CountedBirth, &CRound::CountedDeath, &CRound::CountedPageSize};

} // namespace

std::string DriveThreads(u64 seed, SFigures &figures)
{
    const Tests::CScopedRuntime runtime;
    Tests::CReportRecorder reports;
    std::string wrong;
    {
        constexpr u32 kThreadCount = u32(sizeof(kThreads) / sizeof(kThreads[0]));
        CRound round(seed, kThreadCount);
        std::vector<std::thread> threads;
        for (u32 i = 0; i < kThreadCount; ++i)
            threads.emplace_back([&round, i] { round.Run(i, kThreads[i]); });
        for (std::thread &thread : threads)
            thread.join();
        wrong = round.Finish();
    }
    const std::vector<Tests::SSeenReport> seen = reports.Take();
    figures.m_Rounds += 1;
    return wrong.empty() && !seen.empty() ? "reported: " + seen[0].m_Text : wrong;
}

} // namespace Model
} // namespace Tessaly
