// The page allocator: size classes, recycling, budget, maintenance, teardown.

#include <future>
#include <random>
#include <set>
#include <thread>

#include <support/stream_fixture.h>
#include <tz_kernel/include/kr_address_sanitizer.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

using Allocator = CParticlePageAllocator;

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
        ASSERT_TRUE(size <= 4096 || (blockSize - size) * 5 <= blockSize) << size;
        former = slotId;
    }
    EXPECT_EQ(Allocator::_SlotIdToSize(former), Allocator::kMaxAllocSize);
    EXPECT_EQ(Allocator::_SizeToSlotId(Allocator::kMaxAllocSize + 1), Allocator::kPoolSlotCount);
    EXPECT_EQ(Allocator::_SlotIdToSize(former + 1), 0u);
}

TEST_F(PageAllocator, BlocksAreRecycled)
{
    EXPECT_TRUE(Allocator().AllocPage(1) == null) << "not set up";
    const u8 *data = Pages().AllocPage(5000)->BeginRead(); // a reader who forgot to end
    const CParticlePageAllocator_Stats before = Stats();
    const PParticleRawPage_MainMemory again = Pages().AllocPage(4500);
    EXPECT_EQ(again->RawDataForWriting(), data);
    EXPECT_EQ(again->ReadersCount(), 0u);
    const CParticlePageAllocator_Stats after = Stats();
    EXPECT_EQ(after.m_AllocCount, before.m_AllocCount + 1);
    EXPECT_EQ(after.m_RecycleCount, before.m_RecycleCount + 1);
    EXPECT_EQ(after.m_BlocksFree, before.m_BlocksFree - 1);
    EXPECT_EQ(after.m_BytesFree, before.m_BytesFree - again->Size());
    EXPECT_EQ(after.m_BytesInUse, again->Size());
}

TEST_F(PageAllocator, BlocksServeBareAndUnderRawPages)
{
    u32 leastSize = 0;
    for (u32 slotId = 0; const u32 size = Allocator::_SlotIdToSize(slotId); ++slotId)
    {
        u8 *block = Pages().Alloc(leastSize);
        std::memset(block, 1, size);
        EXPECT_EQ(Pages().TotalMemoryAllocated(), size);
        Pages().Retire(block, size);
        {
            const PParticleRawPage_MainMemory rawPage = Pages().AllocPage(leastSize);
            EXPECT_TRUE(rawPage->RawDataForWriting() == block && rawPage->Size() == size) << size;
        }
        EXPECT_EQ(Pages().Alloc(size), block);
        Pages().Retire(block, leastSize);
        leastSize = size + 1;
    }
    Pages().Retire(Pages().Alloc(leastSize), leastSize);
    Pages().Retire(null, leastSize);
    u8 *small = Pages().Alloc(700);
    for (const u32 wrongSize : {500u, 5000u, leastSize})
    {
        Pages().Retire(small, wrongSize);
        m_Reports.Expect({"slotId == TZMin(_SizeToSlotId(sizeInBytes), kUsedSlotCount)"});
        EXPECT_EQ(Pages().Alloc(700), small) << "it waits as what it is";
    }
    Pages().Retire(small, 700);
    EXPECT_EQ(Pages().TotalMemoryAllocated(), 0u);
    EXPECT_EQ(Stats().m_AllocCount - Stats().m_RecycleCount, Stats().m_BlocksFree + 1) << "never pooled";
}

TEST_F(PageAllocator, NoBlockIsLostOrServedTwice)
{
    u64 recycleCount = 0;
    for (const u32 size : {700u, 100000u, Allocator::kMaxAllocSize})
    {
        std::set<const u8 *> blocks;
        std::vector<PParticleRawPage_MainMemory> held(150);
        std::vector<u8 *> bare(held.size());
        for (size_t round = 0; round < 6; ++round)
        {
            Pages().SetMemoryBudget(round == 2 || round == 3 ? u64(1) << 40 : 0); // past the threads' fronts
            if (round == 5)
                Pages().Update();
            for (size_t i = 0; i < held.size(); ++i)
            {
                if ((i + round) % 3 == 0)
                    blocks.insert(bare[i] = Pages().Alloc(size));
                else
                    blocks.insert((held[i] = Pages().AllocPage(size))->RawDataForWriting());
            }
            EXPECT_EQ(blocks.size(), held.size());
            recycleCount += round != 0 ? held.size() : 0;
            EXPECT_EQ(Stats().m_RecycleCount, recycleCount);
            for (size_t i = 0; i < held.size(); ++i)
                (i + round) % 3 == 0 ? Pages().Retire(bare[i], size) : void(held[i] = null);
            EXPECT_EQ(Stats().m_BlocksInUse, 0u);
        }
    }
}

TEST_F(PageAllocator, IdleBlocksGoBackAndBusyOnesStay)
{
    const u32 blockCount = m_Memory.LiveBlockCount();
    Pages().AllocPage(700);
    Pages().AllocPage(9000);
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount + 4) << "two raw pages and their arenas";
    for (u32 i = 0; i <= Allocator::kMaxIdleUpdates; ++i)
    {
        EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount + 4);
        Pages().AllocPage(9000);
        Pages().Update();
    }
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount + 2) << "the one that nobody asked for";
    EXPECT_EQ(Pages().TotalMemoryAvailable(), Stats().m_BytesFree);
    const PParticleRawPage_MainMemory inUse = Pages().AllocPage(700);
    Pages().CleanAllFreePages();
    EXPECT_EQ(Pages().TotalMemoryAvailable(), 0u);
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount + 2) << "those in use";
}

TEST_F(PageAllocator, BareBlocksServeBeforeNewArenas)
{
    u32 arenaCount = 0;
    m_Memory.AtEachCall([&](const SMemoryCall &call)
                        { arenaCount += call.m_Kind == SMemoryCall::Alloc && call.m_Size > 10000 ? 1 : 0; });
    const u32 blockCount = m_Memory.LiveBlockCount();
    std::vector<PParticleRawPage_MainMemory> held(400);
    for (u32 round = 0; round < 3; ++round)
    {
        for (u32 i = 0; i < held.size(); i += 1 + round)
            held[i] = Pages().AllocPage(700);
        EXPECT_TRUE(arenaCount == 3 || Mem::kIsAddressSanitized) << "64, 128 and 256 KiB: " << arenaCount;
        u32 releasedCount = 0;
        for (u32 i = 0; i < held.size(); i += 2 + round, ++releasedCount)
            held[i] = null;
        EXPECT_EQ(Stats().m_BlocksFree, releasedCount);
        Pages().CleanAllFreePages();
    }
    held.clear();
    Pages().CleanAllFreePages();
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount);
    m_Memory.AtEachCall(CAllocatorHook::FnAtCall());
}

TEST_F(PageAllocator, BlocksLieBesideEachOther)
{
    for (const u32 size : {3072u, 49152u, Allocator::kMaxAllocSize})
    {
        std::vector<PParticleRawPage_MainMemory> held((24 << 20) / size);
        u32 firstCount = 0; // those that begin with a huge page, and not behind another one
        const u8 *former = null;
        for (size_t i = 0; i < held.size(); ++i)
        {
            held[i] = Pages().AllocPage(size);
            u8 *data = held[i]->RawDataForWriting();
            std::memset(data, int(i % 251), size);
            firstCount += ureg(data - 64) % (2 << 20) == 0 && former != data - 64 - size ? 1 : 0;
            former = data;
        }
        for (size_t i = 0; i < held.size(); ++i)
        {
            const u8 *data = held[i]->RawDataForWriting();
            ASSERT_TRUE(data[0] == i % 251 && std::memcmp(data, data + 1, size - 1) == 0) << size << ", block " << i;
        }
        EXPECT_TRUE(firstCount >= 4 || Mem::kIsAddressSanitized) << "of 2, 4, 8 and 16 MiB: " << firstCount;
    }
}

TEST_F(PageAllocator, CountsPastFourGigabytes)
{
    m_Memory.ServeAtMost(1 << 16);
    PParticleRawPage_MainMemory first = Pages().AllocPage(0xF0000000u), second = Pages().AllocPage(0xFFFFFFFFu);
    ASSERT_TRUE(first != null && second != null);
    EXPECT_EQ(Pages().TotalMemoryAllocated(), 0xF0000000ull + 0xFFFFFFFFull);
    Pages().SetMemoryBudget(0x1F0000000ull);
    EXPECT_EQ(Pages().SpaceLeft(), 1u);
    first = second = null;
    EXPECT_EQ(Pages().TotalMemoryAvailable(), 0u) << "never pooled";
}

// With a budget every request goes to the pools: the plain twin of the threads' fronts.
TEST_F(PageAllocator, FrontsServeAsThePoolsDo)
{
    Allocator plain, fronted;
    ASSERT_TRUE(plain.Setup() && fronted.Setup());
    plain.SetMemoryBudget(u64(1) << 40);
    std::vector<PParticleRawPage_MainMemory> heldOfPlain, heldOfFronted;
    std::minstd_rand random(7);
    for (u32 i = 0; i < 5000; ++i)
    {
        const u32 choice = u32(random() % 100);
        if (choice == 0)
            Pages().AllocPage(700); // a thread's front goes where the thread goes
        if (choice < 52 || heldOfPlain.empty())
        {
            const u32 size = u32(300 << random() % 6);
            heldOfPlain.push_back(plain.AllocPage(size));
            heldOfFronted.push_back(fronted.AllocPage(size));
        }
        else if (choice < 99)
        {
            const size_t at = random() % heldOfPlain.size();
            heldOfPlain.erase(heldOfPlain.begin() + s64(at));
            heldOfFronted.erase(heldOfFronted.begin() + s64(at));
        }
        else if (choice < 99 + i % 2)
        {
            plain.CleanAllFreePages();
            fronted.CleanAllFreePages();
        }
        CParticlePageAllocator_Stats a, b;
        plain.GetTotalStats(a);
        fronted.GetTotalStats(b);
        ASSERT_EQ(std::memcmp(&a, &b, sizeof(a)), 0) << "operation " << i;
        ASSERT_EQ(plain.TotalMemoryAllocated(), fronted.TotalMemoryAllocated());
    }
}

TEST_F(PageAllocator, WhatWaitsWithAThreadIsWithinReach)
{
    const u32 blockCount = m_Memory.LiveBlockCount();
    std::promise<void> letGo, end;
    std::thread other(
        [&]
        {
            {
                std::vector<PParticleRawPage_MainMemory> held;
                for (u32 i = 0; i < 3; ++i)
                    held.push_back(Pages().AllocPage(2000));
            }
            letGo.set_value();
            end.get_future().wait();
            Pages().AllocPage(70000);
        });
    letGo.get_future().wait();
    EXPECT_EQ(Stats().m_BlocksFree, 3u);
    m_Memory.RefuseFrom(1);
    EXPECT_TRUE(Pages().AllocPage(2000) != null) << "one that waits with the other thread";
    m_Memory.RefuseNone();
    Pages().CleanAllFreePages();
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount + 1) << "the other thread's front";
    Particles::Shutdown();
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount - 4) << "both fronts, the allocator, its pools and statistics";
    EXPECT_TRUE(Particles::Startup());
    end.set_value();
    other.join();
    EXPECT_EQ(Stats().m_BlocksFree, 1u) << "a thread leaves it to the others";
    EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount + 2) << "and takes nothing along";
    EXPECT_TRUE(Pages().AllocPage(70000) != null);
    EXPECT_EQ(Stats().m_RecycleCount, 1u);
}

// A thread's front is asked for where blocks are, and the service may want one itself.
TEST_F(PageAllocator, MemoryServicesMayUseBlocks)
{
    Pages().AllocPage(700);
    Pages().Update(); // to where every thread finds it
    u32 count = 0;
    m_Memory.AtEachCall([&](const SMemoryCall &) { count += Pages().AllocPage(700) != null ? 1 : 0; });
    std::thread([&] { Pages().AllocPage(700); }).join();
    m_Memory.AtEachCall(CAllocatorHook::FnAtCall());
    EXPECT_EQ(count, 2u) << "the front comes and goes";
}

// Destructors of keys run behind those of thread_local objects, and may be the first of their thread to let a block go.
TEST_F(PageAllocator, ThreadsMayLetBlocksGoAtTheirVeryEnd)
{
    using PRawPage = PParticleRawPage_MainMemory;
    Pages().AllocPage(700); // makes the key of the fronts, so that it is the first
    pthread_key_t key;
    ASSERT_EQ(pthread_key_create(&key, [](void *held) { delete static_cast<PRawPage *>(held); }), 0);
    for (u32 i = 0; i < 3; ++i)
    {
        PRawPage *held = new PRawPage(Pages().AllocPage(700));
        const bool hasFront = i != 0;
        std::thread(
            [&]
            {
                if (hasFront)
                    Pages().AllocPage(700);
                pthread_setspecific(key, held);
            })
            .join();
        EXPECT_EQ(Pages().TotalMemoryAllocated(), 0u);
    }
    pthread_key_delete(key);
    Pages().Update();
    EXPECT_EQ(Stats().m_BlocksFree, Stats().m_AllocCount - Stats().m_RecycleCount) << "none is lost";
}

TEST_F(PageAllocator, BlocksOutliveTheLastShutdown)
{
    Allocator *allocator = &Pages();
    PParticleRawPage_MainMemory small = allocator->AllocPage(600), large = allocator->AllocPage(2000000);
    EXPECT_TRUE(Particles::Startup());
    Particles::Shutdown();
    EXPECT_EQ(Particles::PageAllocator(), allocator) << "its other user goes on";
    Particles::Shutdown();
    EXPECT_EQ(Particles::PageAllocator(), nullptr);
    EXPECT_TRUE(Particles::Startup());
    std::memset(small->RawDataForWriting(), 1, small->Size());
    small = large = null;
    EXPECT_EQ(Pages().TotalMemoryAllocated(), 0u);
}

} // namespace
} // namespace Tests
} // namespace Tessaly
