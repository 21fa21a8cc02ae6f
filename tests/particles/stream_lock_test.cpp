// The page lock: nesting, other threads, misuse; how often each operation takes it, and what happens under it.
#include <atomic>
#include <thread>

#include <support/profiler_recorder.h>
#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

constexpr const char *kLockedText = "m_PagesLocked != 0";
constexpr const char *kOwnerText = "m_ThreadOwningLock == CCurrentThread::ThreadID()";

class StreamLock : public CStreamTest
{
protected:
    CTestStream m_Stream{16, m_Definition};
};

// How often operation unlocks.
template <typename _Operation>
static u64 Unlocks(_Operation operation)
{
    const u64 before = CThreadStats::CSUnlockCount();
    operation();
    return CThreadStats::CSUnlockCount() - before;
}

TEST_F(StreamLock, KeepsOtherThreadsOutUntilTheLastUnlock)
{
    std::atomic<bool> hasEntered{false};
    m_Stream.LockPages();
    m_Stream.LockPages();
    std::thread other(
        [&]
        {
            EXPECT_FALSE(m_Stream.LockedByCurrentThread());
            const CScopedPagesRenderLock lock(m_Stream);
            hasEntered = true;
        });
    m_Stream.UnlockPages();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(hasEntered);
    m_Stream.UnlockPages();
    other.join();
}

TEST_F(StreamLock, WaitingRenderThreadGoesBeforeALockThatIsTakenAgain)
{
    constexpr u32 kAttempts = 10;
    u32 firstCount = 0;
    for (u32 i = 0; i < kAttempts; ++i)
    {
        std::atomic<bool> isAboutToWait{false}, hasEntered{false};
        m_Stream.LockPages();
        std::thread renderer(
            [&]
            {
                isAboutToWait = true;
                const CScopedPagesRenderLock lock(m_Stream);
                hasEntered = true;
            });
        while (!isAboutToWait)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        m_Stream.LockPages(); // the thread that holds it does not wait for the render thread
        m_Stream.UnlockPages();
        m_Stream.UnlockPages();
        m_Stream.LockPages();
        firstCount += hasEntered ? 1 : 0;
        m_Stream.UnlockPages();
        renderer.join();
    }
    EXPECT_GE(firstCount, kAttempts - 2); // the system may take longer to start a thread
}

TEST_F(StreamLock, UnlockByAnyoneButTheOwnerIsReportedAndNothingElse)
{
    EXPECT_EQ(Unlocks([this] { m_Stream.UnlockPages(), m_Stream.UnlockPagesToRender(); }), 0u);
    m_Reports.Expect({kLockedText, kOwnerText, kLockedText, kOwnerText});
    m_Stream.LockPages();
    std::thread([this] { m_Stream.UnlockPages(), m_Stream.UnlockPagesToRender(); }).join();
    m_Reports.Expect({kOwnerText, kOwnerText});
    EXPECT_TRUE(m_Stream.LockedByCurrentThread());
    m_Stream.UnlockPages();
    EXPECT_FALSE(m_Stream.LockedByCurrentThread());
}

TEST_F(StreamLock, ProfilerSeesRenderLocksUnlocksAndThreeOperations)
{
    using Scopes = std::vector<std::string>;
    const std::string render = "CParticleStream_MainMemory::LockPagesToRender";
    const std::string unlock = "CParticleStream_MainMemory::UnlockPages";
    CProfilerRecorder profiler;
    m_Stream.LockPages();
    m_Stream.Lock();
    m_Stream.LockPagesToRender();
    m_Stream.UnlockPagesToRender();
    EXPECT_EQ(profiler.Take(), (Scopes{"+" + render, "-" + render}));
    m_Stream.UnlockPages();
    m_Stream.Unlock();
    EXPECT_EQ(profiler.Take(), (Scopes{"+" + unlock, "-" + unlock, "+" + unlock, "-" + unlock}));
    EXPECT_EQ(profiler.Find(unlock)->m_Color, Profiler::SNodeDescriptor::AutogenColor(unlock.c_str()));
    m_Stream.SetPageSize(m_Stream.PageSize());
    EXPECT_EQ(profiler.Take(), (Scopes{"+SetPageSize", "-SetPageSize"})) << "a scope, and no lock";
    m_Stream.AllocateParticlesIFP(1, 0);
    CTestStream(0).DeepCopy(m_Stream);
    EXPECT_EQ(profiler.Take().front(), "+AllocateParticlesIFP")
        << "its scope begins before the consistency check locks";
    EXPECT_EQ(profiler.Find("AllocateParticlesIFP")->m_Color, CFloat4(0.8f, 0.2f, 1.0f, 1.0f));
    EXPECT_EQ(profiler.Find("DeepCopy")->m_Color, CFloat4(0.4f, 0.3f, 1.0f, 1.0f));
}

TEST_F(StreamLock, IsTakenAsOftenAsEachOperationSays)
{
    EXPECT_EQ(Unlocks([this] { m_Stream._RecomputeParticleCount(); }), 0u);
    EXPECT_EQ(Unlocks([this] { m_Stream._DEBUG_CheckParticleCountConsistency(); }), 1u);
    EXPECT_EQ(Unlocks([this] { m_Stream.AllocateParticlesIFP(5, 0); }), 4u);
    EXPECT_EQ(Unlocks([this] { m_Stream.AllocateParticlesIFP(5, 0); }), 5u);
    EXPECT_EQ(Unlocks([this] { m_Stream._DEBUG_CheckParticleCountConsistency(); }), 2u);
    EXPECT_EQ(Unlocks([this] { m_Stream.StreamId(CStringId(Life)); }), 2u);
    EXPECT_EQ(Unlocks([this] { m_Stream.ComputeMemoryUsage(); }), 1u);
    EXPECT_EQ(Unlocks([this] { m_Stream.RegisterBornCount_NoConsistencyCheck(0); }), 0u);
    EXPECT_EQ(Unlocks([this] { m_Stream.RegisterBornCount(0); }), 2u);
    EXPECT_EQ(Unlocks([this] { m_Stream.RegisterDeadCount(0); }), 2u);
    EXPECT_EQ(Unlocks([this] { m_Stream.SetPageSize(16); }), 0u);
    EXPECT_EQ(Unlocks([this] { m_Stream.SetPageSize(20); }), 5u);
    EXPECT_EQ(Unlocks([this] { m_Stream.ResizePending(0); }), 5u);
    EXPECT_EQ(Unlocks([this] { m_Stream.GarbageCollectOldPages(null); }), 5u);
    EXPECT_EQ(Unlocks([this] { m_Definition.BindTo(m_Stream); }), 2u);
    EXPECT_EQ(Unlocks([this] { m_Stream.ParticleCount(), m_Stream.GetStreamDef(), m_Stream.PageCount(); }), 0u);
    CTestStream copy(0), other(25, m_Definition);
    // Its own check, cleanup with two checks inside the lock, its own check with the copied page.
    EXPECT_EQ(Unlocks([&] { copy.DeepCopy(m_Stream); }), 1u + (1 + 1 + 1) + 1 + 2);
    EXPECT_EQ(Unlocks([&] { other.Swap(m_Stream); }), 4u) << "the other stream's lock is not taken";
}

TEST_F(StreamLock, ConsistencyIsReportedUnderItAndBadArgumentsOutside)
{
    m_Stream.AppendPage(16, 1);
    std::vector<bool> isLocked;
    m_Reports.AtEachReport([&](const Assert::SReport &) { isLocked.push_back(m_Stream.LockedByCurrentThread()); });
    m_Stream.RegisterBornCount(1);
    m_Stream.RegisterDeadCount(1);
    TMemoryView<CGuid> reindexer;
    m_Stream.GarbageCollectOldPages(&reindexer);
    CDefinition other;
    other.Stored(Life, BaseType_Float);
    m_Stream.BindStreamDef(&other.Def(), {}, {}, SParticleImplementationCache());
    m_Stream.SetPageSize(8);
    m_Reports.Expect({kCountText, "pageReindexer == null || pageReindexer->Count() == m_Pages.Count()",
                      "m_ConstantDataFieldSlot.Count() == def->m_StreamDef.Count()",
                      "m_ConstantDataFieldSlot.Count() == streamDef.Count()",
                      "m_Pages.Empty() || m_ConstantDataFieldSlot.Count() == m_StreamDef->m_StreamDef.Count()"});
    EXPECT_EQ(isLocked, (std::vector<bool>{true, false, false, true, false}));
}

TEST_F(StreamLock, QueriesBeforeBindingAndOutOfRangeGiveEmptyRecords)
{
    EXPECT_EQ(CTestStream(0).StreamDef(CGuid(3)), SParticleStreamFieldDef());
    EXPECT_EQ(m_Stream.StreamDef(CGuid(1)).m_NameGUID, CStringId(Life));
    EXPECT_EQ(m_Stream.StreamDef(CGuid(4)), SParticleStreamFieldDef());
    m_Stream.AppendPage(11, 1), m_Stream.AppendPage(11, 0);
    m_Stream.GarbageCollectOldPages(null);
    EXPECT_TRUE(m_Stream.Page(CGuid(1)) == null) << "although the list's buffer still holds the former one";
    m_Reports.Expect({"pos < BaseImpl::_Count()", "pos < BaseImpl::_Count()"});
    m_Stream.Cleanup();
    Particles::Shutdown();
    EXPECT_TRUE(m_Stream.AllocateParticlesIFP(1, 0).Empty());
    m_Reports.Expect({"m_PageAllocator != null"});
    EXPECT_TRUE(Particles::Startup());
}

TEST_F(StreamLock, ClearReleasesPagesUnderItAndCleanupOutside)
{
    std::vector<u64> unlocks; // before each of the deaths
    std::vector<bool> isLocked;
    for (const bool isCleanup : {false, true})
    {
        for (const u32 count : {4u, 3u, 1u})
            m_Stream.AppendPage(16, count);
        const CParticlePageView view(m_Stream.Page(CGuid(1)));
        unlocks.clear();
        isLocked.clear();
        const u64 before = CThreadStats::CSUnlockCount();
        m_Memory.AtEachCall(
            [&](const SMemoryCall &call)
            {
                if (call.m_Kind != SMemoryCall::Free ||
                    (call.m_Function.find("_DeleteObject") == std::string::npos &&
                     call.m_Function.find("TRefPtr<Tessaly::CParticlePage>") == std::string::npos))
                    return;
                unlocks.push_back(CThreadStats::CSUnlockCount() - before);
                isLocked.push_back(m_Stream.LockedByCurrentThread());
            });
        isCleanup ? m_Stream.Cleanup() : m_Stream.Clear();
        m_Memory.AtEachCall({});
        // Two pages with their raw pages are freed; in Cleanup after the check at the entry (two unlocks) and the
        // exchange of the list, which is freed itself after the check at the exit.
        EXPECT_EQ(unlocks, isCleanup ? (std::vector<u64>{3, 3, 3, 3, 4}) : std::vector<u64>(4, 2));
        EXPECT_EQ(isLocked, std::vector<bool>(unlocks.size(), !isCleanup));
        EXPECT_EQ(m_Stream.PageCount() + m_Stream.ParticleCount(), 0u);
        EXPECT_EQ(view.OriginalPage()->ParticleCount(), isCleanup ? 3u : 0u) << "views see the page cleared";
    }
}

TEST_F(StreamLock, CleanupGivesAllMemoryBack)
{
    const u32 blockCount = m_Memory.LiveBlockCount();
    for (u32 i = 0; i < 2 * CPageListIndex::kMaxWalkedPageCount; ++i)
        m_Stream.AppendPage(16, 1);
    m_Stream.StreamId(CStringId(Life)); // the second check, Cleanup's own, builds the index over the list
    m_Stream.Cleanup();
    m_Runtime.Allocator().CleanAllFreePages();
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount);
}

TEST_F(StreamLock, SwapWantsBothLocksFree)
{
    CTestStream other(25, m_Definition);
    const CScopedPagesLock lock(other);
    m_Stream.Swap(other);
    other.Swap(m_Stream);
    m_Reports.Expect({"other.m_PagesLocked == 0", "m_PagesLocked == 0"});
}
