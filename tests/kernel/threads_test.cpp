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
    EXPECT_TRUE(atomic.FetchAdd(3) == 5 && atomic.FetchSub(7) == 8) << "the former value";
    EXPECT_TRUE(atomic.Dec() == 0 && atomic.Dec() == 0xFFFFFFFFu && atomic.Inc() == 0) << "the new value";
    atomic.Store(9);
    atomic.Add(1);
    EXPECT_EQ(TAtomic<u32>(atomic).Load(), 10u);
    using Primitives = SInterlockedPrimitives<u32, 4>;
    volatile u32 word = 6;
    EXPECT_TRUE(Primitives::_cmpxchg(&word, 1, 7) == 6 && Primitives::_cmpxchg(&word, 12, 6) == 6);
    EXPECT_TRUE(Primitives::_and(&word, 10) == 12 && Primitives::_or(&word, 1) == 8);
    EXPECT_TRUE(Primitives::_xor(&word, 15) == 9 && Primitives::_xchg(&word, 4) == 6);
    EXPECT_TRUE(Primitives::_xinc(&word) == 5 && Primitives::_xdec(&word) == 4);
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
