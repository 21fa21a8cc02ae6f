// Atomics, the critical section, thread ids.
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include <tz_kernel/include/kr_threads_atomic.h>
#include <tz_kernel/include/kr_threads_basics.h>

using namespace Tessaly;

TEST(Atomic, OperationsReturnWhatTheirNamesSay)
{
    TAtomic<u32> atomic(5);
    EXPECT_EQ(atomic.FetchAdd(3), 5u);
    EXPECT_EQ(atomic.FetchSub(7), 8u);
    EXPECT_EQ(atomic.Dec(), 0u) << "the new value";
    EXPECT_EQ(atomic.Dec(), 0xFFFFFFFFu);
    EXPECT_EQ(atomic.Inc(), 0u);
    atomic.Store(9);
    atomic.Add(1);
    EXPECT_EQ(TAtomic<u32>(atomic).Load(), 10u);

    using Primitives = SInterlockedPrimitives<u32, 4>;
    volatile u32 word = 6;
    EXPECT_EQ(Primitives::_cmpxchg(&word, 1, 7), 6u);
    EXPECT_EQ(Primitives::_cmpxchg(&word, 12, 6), 6u);
    EXPECT_EQ(Primitives::_and(&word, 10), 12u);
    EXPECT_EQ(Primitives::_or(&word, 1), 8u);
    EXPECT_EQ(Primitives::_xor(&word, 15), 9u);
    EXPECT_EQ(Primitives::_xchg(&word, 4), 6u);
    EXPECT_EQ(Primitives::_xinc(&word), 5u);
    EXPECT_EQ(Primitives::_xdec(&word), 4u);
}

TEST(CriticalSection, IsReentrantAndForgetsItsOwnerAtEachUnlock)
{
    Threads::CCriticalSection section;
    EXPECT_EQ(section.m_Owner, CGuid::INVALID.Get());
    section.Lock();
    EXPECT_EQ(section.m_Owner, CCurrentThread::ThreadID());
    section.Lock();
    for (const bool isFree : {false, true})
    {
        const u64 unlockCount = CThreadStats::CSUnlockCount();
        section.Unlock();
        EXPECT_EQ(CThreadStats::CSUnlockCount(), unlockCount + 1);
        EXPECT_EQ(section.m_Owner, CGuid::INVALID.Get());
        const auto tryLock = [&]
        {
            EXPECT_EQ(section.TryLock(), isFree);
            EXPECT_EQ(section.m_Owner, isFree ? CCurrentThread::ThreadID() : CGuid::INVALID.Get());
            if (isFree)
                section.Unlock();
        };
        std::thread(tryLock).join();
    }
}

TEST(ThreadId, IsNeverGivenTwice)
{
    constexpr u32 kThreads = 400;
    std::set<u32> ids{CCurrentThread::ThreadID(), CGuid::INVALID.Get()};
    EXPECT_EQ(ids.count(CCurrentThread::ThreadID()), 1u);
    for (u32 i = 0; i < kThreads; ++i)
        std::thread([&ids] { ids.insert(CCurrentThread::ThreadID()); }).join();
    EXPECT_EQ(ids.size(), kThreads + 2);
}
