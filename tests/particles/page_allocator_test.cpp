// The page allocator: size classes, recycling, budget, memory given back to the system, shutdown.
#include <atomic>
#include <random>
#include <thread>

#include <support/stream_fixture.h>
#include <tz_kernel/include/kr_address_sanitizer.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

using Allocator = CParticlePageAllocator;
using PRawPage = PParticleRawPage_MainMemory;

class PageAllocator : public CStreamTest
{
protected:
    Allocator &Pages() const { return m_Runtime.Allocator(); }
    CParticlePageAllocator_Stats Stats() const
    {
        CParticlePageAllocator_Stats stats;
        Pages().GetTotalStats(stats);
        return stats;
    }
    std::vector<PRawPage> AllocPages(size_t count, u32 size) const
    {
        std::vector<PRawPage> pages(count);
        for (PRawPage &page : pages)
            page = Pages().AllocPage(size);
        return pages;
    }
    // Releases all of them but each n-th.
    static void KeepEach(size_t n, std::vector<PRawPage> &pages)
    {
        for (size_t i = 0; i < pages.size(); ++i)
            pages[i] = i % n == 0 ? pages[i] : null;
    }
    // A page of which every byte is value, and the check for it.
    static PRawPage Filled(PRawPage page, u8 value)
    {
        std::memset(page->RawDataForWriting(), value, page->Size());
        return page;
    }
    static void ExpectFilled(const PRawPage &page, u8 value)
    {
        const CScopedRawPageReader reader(page);
        const u8 *data = reader.Data();
        EXPECT_TRUE(data[0] == value && std::memcmp(data, data + 1, page->Size() - 1) == 0);
    }
    void CountCalls(const SMemoryCall &call)
    {
        ++m_CallCount;
        m_DiscardedBytes += call.m_Kind == SMemoryCall::Discard ? call.m_Size : 0;
    }
    ~PageAllocator() override { m_Memory.AtEachCall({}); }

    u32 m_CallCount = 0;
    u64 m_DiscardedBytes = 0;
};

TEST(PageSizeClasses, HoldEverySizeAndWasteAFifthAtMost)
{
    u32 former = Allocator::_SizeToSlotId(0);
    EXPECT_EQ(former, 0u);
    EXPECT_EQ(Allocator::_SlotIdToSize(0), Allocator::kMinAllocSize);
    for (u32 size = 0; size <= Allocator::kMaxAllocSize; ++size)
    {
        const u32 slotId = Allocator::_SizeToSlotId(size);
        const u32 blockSize = Allocator::_SlotIdToSize(slotId);
        ASSERT_TRUE(slotId == former || (slotId == former + 1 && Allocator::_SlotIdToSize(former) == size - 1)) << size;
        ASSERT_TRUE(blockSize >= size && slotId < Allocator::kPoolSlotCount) << size;
        ASSERT_TRUE(size <= Allocator::kMinAllocSize || (blockSize - size) * 5 <= blockSize) << size;
        former = slotId;
    }
    EXPECT_EQ(Allocator::_SlotIdToSize(former), Allocator::kMaxAllocSize);
    EXPECT_EQ(Allocator::_SizeToSlotId(Allocator::kMaxAllocSize + 1), Allocator::kPoolSlotCount);
    EXPECT_EQ(Allocator::_SlotIdToSize(former + 1), 0u);
}

TEST_F(PageAllocator, BlocksAreRecycled)
{
    EXPECT_TRUE(Allocator().AllocPage(1) == null) << "not set up";
    const u8 *data = Pages().AllocPage(5000)->BeginRead(); // a read that never ends
    const CParticlePageAllocator_Stats before = Stats();
    const PRawPage again = Pages().AllocPage(4500);
    EXPECT_EQ(again->RawDataForWriting(), data);
    EXPECT_EQ(again->ReadersCount(), 0u);
    const CParticlePageAllocator_Stats after = Stats();
    EXPECT_TRUE(after.m_AllocCount == before.m_AllocCount + 1 && after.m_RecycleCount == before.m_RecycleCount + 1);
    EXPECT_EQ(after.m_BlocksFree, before.m_BlocksFree - 1);
    EXPECT_EQ(after.m_BytesFree, before.m_BytesFree - again->Size());
    EXPECT_EQ(after.m_BytesInUse, again->Size());
}

TEST_F(PageAllocator, BlocksAreHandedOutWithoutTheirRawPages)
{
    u8 *small = Pages().Alloc(700);
    std::memset(small, 1, Allocator::_SlotIdToSize(Allocator::_SizeToSlotId(700)));
    Pages().Retire(small, 768); // of the same size class
    EXPECT_EQ(Pages().AllocPage(700)->RawDataForWriting(), small);
    EXPECT_EQ(Pages().Alloc(700), small);
    Pages().Retire(small, 5000);
    m_Reports.Expect({"blockBytes == expectedBytes"});
    EXPECT_EQ(Pages().Alloc(700), small) << "a free block of its own class";
    Pages().Retire(small + 1, 700);
    Pages().Retire(small, 700);
    Pages().Retire(small, 700);
    m_Reports.Expect({"isInUse", "isInUse"});
    Pages().Retire(null, 700);
    const u64 freeCount = Stats().m_BlocksFree;
    Pages().Retire(Pages().Alloc(Allocator::kMaxAllocSize + 1), Allocator::kMaxAllocSize + 1);
    Pages().Retire(Pages().Alloc(Allocator::kMaxAllocSize + 1), Allocator::kMaxAllocSize + 2);
    m_Reports.Expect({"blockBytes == expectedBytes"});
    EXPECT_TRUE(Stats().m_BlocksFree == freeCount && Stats().m_BlocksInUse == 0) << "large blocks are never pooled";
}

// Random requests and releases beside what a model expects of sums, contents and overlap.
TEST_F(PageAllocator, NoBlockIsLostSharedOrDiscardedInUse)
{
    const u32 seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::minstd_rand random(seed);
    std::vector<std::pair<PRawPage, u8>> held;
    u64 bytesInUse = 0;
    for (u32 i = 0; i < 6000 && !HasFailure(); ++i)
    {
        const u32 choice = u32(random() % 200);
        if (choice < 105 || held.empty())
        {
            const u32 size = u32((600u << random() % 11) - random() % 300);
            const u8 value = u8(random());
            held.emplace_back(Filled(Pages().AllocPage(size), value), value);
            bytesInUse += held.back().first->Size();
            EXPECT_GE(held.back().first->Size(), size);
            EXPECT_EQ(ureg(held.back().first->RawDataForWriting()) % 64, 0u);
        }
        else if (choice < 197)
        {
            std::swap(held[random() % held.size()], held.back());
            ExpectFilled(held.back().first, held.back().second);
            bytesInUse -= held.back().first->Size();
            held.pop_back();
        }
        else if (choice < 199)
            Pages().CleanAllFreePages();
        else
        {
            for (u32 k = 0; k <= Allocator::kMaxIdleUpdates; ++k)
                Pages().Update();
        }
        const CParticlePageAllocator_Stats stats = Stats();
        EXPECT_EQ(stats.m_BytesInUse, bytesInUse);
        EXPECT_EQ(stats.m_BlocksInUse, held.size());
        EXPECT_LE(stats.m_BytesInUse + stats.m_BytesFree, stats.m_BytesReserved);
    }
    for (const auto &[page, value] : held)
        ExpectFilled(page, value);
}

TEST_F(PageAllocator, IdleBlocksAreGivenBackAndUsedOnesStay)
{
    const u32 blockCount = m_Memory.LiveBlockCount();
    Pages().AllocPage(700);
    Pages().AllocPage(9000);
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount + 4) << "two arenas and their records";
    for (u32 i = 0; i <= Allocator::kMaxIdleUpdates; ++i)
    {
        EXPECT_EQ(Stats().m_BlocksFree, 2u) << i;
        Pages().AllocPage(9000);
        Pages().Update();
    }
    EXPECT_EQ(Stats().m_BlocksFree, 1u) << "the idle one is gone";
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount + 2);
    EXPECT_EQ(Pages().TotalMemoryAvailable(), Stats().m_BytesFree);
    const PRawPage inUse = Pages().AllocPage(700);
    Pages().CleanAllFreePages();
    EXPECT_EQ(Pages().TotalMemoryAvailable(), 0u);
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount + 3) << "what is in use";
}

// However much is idle, one Update calls the memory services a few times at most; later ones give back the rest.
TEST_F(PageAllocator, UpdateGivesBackInSmallSteps)
{
    std::vector<PRawPage> held = AllocPages(4000, 4096);
    KeepEach(10, held);
    m_Memory.AtEachCall([this](const SMemoryCall &call) { CountCalls(call); });
    const auto update300Times = [&]
    {
        for (u32 i = 0; i < 300; ++i)
        {
            m_CallCount = 0;
            Pages().Update();
            ASSERT_LE(m_CallCount, 8u) << "update " << i;
            EXPECT_TRUE(m_DiscardedBytes == 0 || i >= Allocator::kMaxIdleUpdates || held.empty());
        }
    };
    update300Times();
    // Under the sanitizer each block has an arena of its own.
    EXPECT_TRUE(m_DiscardedBytes >= 4000u * 4096 * 9 / 10 || Mem::kIsAddressSanitized) << m_DiscardedBytes;
    held.clear();
    update300Times();
}

// In an arena that blocks in use keep, blocks that were given back are used again before another arena is made.
TEST_F(PageAllocator, ArenasAreFilledFirstAndFreedWithTheirLastBlock)
{
    for (const u32 size : {512u, 48u << 10, 200u << 10, Allocator::kMaxAllocSize})
    {
        Pages().CleanAllFreePages(); // of the class before
        const PRawPage kept = Pages().AllocPage(size);
        const u64 reserved = Stats().m_BytesReserved;
        EXPECT_LE(reserved, (4u << 20) + (4u << 10)) << size;
        for (u32 round = 0; round < 3; ++round)
        {
            std::vector<PRawPage> held = AllocPages(3, size);
            EXPECT_TRUE(Stats().m_BytesReserved == reserved || Mem::kIsAddressSanitized) << size;
            held.clear();
            Pages().CleanAllFreePages();
        }
        EXPECT_EQ(Stats().m_BytesReserved, reserved);
        std::vector<PRawPage> held; // fills three more arenas
        while (Stats().m_BytesReserved < 4 * reserved)
            held.push_back(Pages().AllocPage(size));
        EXPECT_EQ(held.size() % 3, 0u) << size << ": each arena has as many blocks";
    }
    Pages().CleanAllFreePages();
    EXPECT_EQ(Stats().m_BytesReserved, 0u);
}

// Only the last block of an arena is in use: all other bytes are discarded, also those behind the last block.
TEST_F(PageAllocator, AllBytesButTheBlocksInUseAreDiscarded)
{
    m_Memory.AtEachCall([this](const SMemoryCall &call) { CountCalls(call); });
    for (u32 slotId = 0; const u32 size = Allocator::_SlotIdToSize(slotId); ++slotId)
    {
        Pages().CleanAllFreePages(); // of the class before
        std::vector<PRawPage> held = AllocPages(1, size);
        const u64 reserved = Stats().m_BytesReserved;
        while (Stats().m_BytesReserved == reserved)
            held.push_back(Pages().AllocPage(size));
        const PRawPage kept = held[held.size() - 2];
        held.clear();
        m_DiscardedBytes = 0;
        Pages().CleanAllFreePages();
        EXPECT_EQ(Stats().m_BytesReserved, reserved) << "the other arena is gone";
        EXPECT_GE(m_DiscardedBytes + size + 64, reserved) << size;
    }
}

// A block that another thread takes while blocks of its class are being discarded keeps its bytes.
TEST_F(PageAllocator, BlocksTakenDuringADiscardKeepTheirBytes)
{
    std::vector<PRawPage> held = AllocPages(20, 48 << 10), taken;
    KeepEach(5, held);
    const auto take = [&] { taken.push_back(Filled(Pages().AllocPage(48 << 10), 7)); };
    m_Memory.AtEachCall(
        [&](const SMemoryCall &call)
        {
            if (call.m_Kind == SMemoryCall::Discard)
                std::thread(take).join();
        });
    Pages().CleanAllFreePages();
    EXPECT_EQ(taken.size() >= 4, !Mem::kIsAddressSanitized);
    for (const PRawPage &page : taken)
        ExpectFilled(page, 7);
}

TEST_F(PageAllocator, ThreadsThatNeedAnArenaAtTheSameTimeShareIt)
{
    std::vector<PRawPage> taken;
    m_Memory.AtEachCall(
        [&](const SMemoryCall &call)
        {
            if (call.m_Size >= 4 << 20 && taken.empty())
                std::thread([&] { taken = std::vector<PRawPage>(1), taken[0] = Pages().AllocPage(3000); }).join();
        });
    const PRawPage page = Pages().AllocPage(3000);
    EXPECT_EQ(taken.size(), Mem::kIsAddressSanitized ? 0u : 1u);
    EXPECT_LE(Stats().m_BytesReserved, (4u << 20) + (4u << 10));
}

TEST_F(PageAllocator, NoLockIsHeldWhileAMemoryServiceIsCalled)
{
    std::vector<PRawPage> held = AllocPages(20, 48 << 10);
    KeepEach(5, held);
    u32 callCount = 0;
    std::atomic<bool> isNested{false};
    m_Memory.AtEachCall(
        [&](const SMemoryCall &)
        {
            if (isNested.exchange(true))
                return;
            const auto useAllocator = [&]
            {
                AllocPages(2, 48 << 10);
                Pages().Update();
                Pages().CleanAllFreePages();
            };
            std::thread(useAllocator).join();
            ++callCount;
            isNested = false;
        });
    Pages().CleanAllFreePages();
    AllocPages(1, 3 << 20);
    AllocPages(1, 70000);
    held.clear();
    for (u32 i = 0; i <= Allocator::kMaxIdleUpdates; ++i)
        Pages().Update();
    Pages().CleanAllFreePages();
    EXPECT_GE(callCount, 12u);
    EXPECT_EQ(Stats().m_BytesReserved + Stats().m_BlocksFree, 0u);
}

TEST_F(PageAllocator, FreeBlocksServeOtherThreadsAndOtherClasses)
{
    const u8 *second = null;
    const auto takeTwo = [&]
    {
        const PRawPage a = Pages().AllocPage(2000), b = Pages().AllocPage(2000);
        second = b->RawDataForWriting();
    }; // b is released first
    std::thread(takeTwo).join();
    EXPECT_EQ(Stats().m_BlocksFree, 2u) << "a thread leaves its blocks to the others";
    m_Memory.RefuseIf([](const SMemoryCall &call) { return call.m_Size > 2000; });
    const PRawPage other = Pages().AllocPage(2000);
    EXPECT_EQ(other->RawDataForWriting(), second) << "the oldest of another shard";
    EXPECT_TRUE(Pages().AllocPage(Allocator::kMaxAllocSize) == null);
    EXPECT_EQ(Stats().m_BlocksFree, 0u) << "free blocks of all classes are given back before the second try";
    EXPECT_EQ(Stats().m_RefusalCount, 1u);
    m_Memory.RefuseNone();
    Pages().AllocPage(2000); // leaves a free block
    m_Memory.RefuseAt(1);
    EXPECT_TRUE(Pages().AllocPage(70000) != null) << "the second try";
    EXPECT_EQ(Stats().m_RefusalCount, 1u);
}

TEST_F(PageAllocator, BudgetIsExactUnderThreads)
{
    constexpr u64 kBudget = 20 * 4096;
    Pages().SetMemoryBudget(kBudget);
    EXPECT_EQ(Pages().SpaceLeft(), kBudget);
    std::atomic<u32> servedCount{0};
    const auto takeAndRelease = [&]
    {
        std::vector<PRawPage> held;
        for (u32 i = 0; i < 500; ++i)
        {
            held.push_back(Pages().AllocPage(4096));
            servedCount += held.back() != null ? 1 : 0;
            EXPECT_LE(Pages().TotalMemoryAllocated(), kBudget);
            EXPECT_LE(Stats().m_BlocksInUse, 20u);
            if (held.size() > 7)
                held.clear();
            if (i % 100 == 0)
                Pages().Update();
        }
    };
    std::vector<std::thread> threads;
    for (u32 t = 0; t < 4; ++t)
        threads.emplace_back(takeAndRelease);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_GE(servedCount, 20u);
    EXPECT_EQ(Pages().SpaceLeft(), kBudget);
    const std::vector<PRawPage> held = AllocPages(21, 4096);
    EXPECT_TRUE(held[19] != null && held[20] == null);
}

TEST_F(PageAllocator, CountsPastFourGigabytes)
{
    m_Memory.ServeAtMost(1 << 16);
    PRawPage first = Pages().AllocPage(0xF0000000u), second = Pages().AllocPage(0xFFFFFFFFu);
    ASSERT_TRUE(first != null && second != null);
    EXPECT_EQ(Pages().TotalMemoryAllocated(), 0xF0000000ull + 0xFFFFFFFFull);
    Pages().SetMemoryBudget(0x1F0000000ull);
    EXPECT_EQ(Pages().SpaceLeft(), 1u);
    first = second = null;
    EXPECT_EQ(Pages().TotalMemoryAvailable(), 0u) << "never pooled";
}

TEST_F(PageAllocator, BlocksOutliveTheLastShutdown)
{
    Allocator *allocator = &Pages();
    PRawPage small = allocator->AllocPage(600), large = allocator->AllocPage(2000000);
    EXPECT_TRUE(Particles::Startup());
    Particles::Shutdown();
    EXPECT_EQ(Particles::PageAllocator(), allocator) << "it has another user";
    Particles::Shutdown();
    EXPECT_EQ(Particles::PageAllocator(), nullptr);
    EXPECT_TRUE(Particles::Startup());
    std::memset(small->RawDataForWriting(), 1, small->Size());
    small = large = null;
    EXPECT_EQ(Pages().TotalMemoryAllocated(), 0u);
}
