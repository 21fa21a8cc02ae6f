// Going over particles: every one once, by pages and by values, with removal, on threads; and what stops it.

#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <set>
#include <thread>

#include <support/stream_fixture.h>
#include <tz_particles/include/ps_for_each.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

class ForEach : public CStreamTest
{
protected:
    // Pages of odd sizes, one of them empty; Life is the particle's number.
    ForEach()
    {
        for (const u32 count : {7u, 0u, 2501u, 11u})
            m_Stream.AppendPage(TZMax(count, 11u), count);
        float number = 0.0f;
        Particles::ForEach<float, CFloat3>(m_Stream, m_Life, m_Position,
                                           [&number](float &life, CFloat3 &position)
                                           {
                                               life = number++;
                                               position = CFloat3(life, 0.0f, -life);
                                           });
    }

    std::vector<std::string> TakeMessages()
    {
        std::vector<std::string> messages;
        for (const SSeenReport &report : m_Reports.Take())
            messages.push_back(report.m_Message);
        return messages;
    }

    static constexpr u32 kCount = 7 + 2501 + 11;
    const CGuid m_Position{0u}, m_Life{1u}, m_Colour{2u}, m_Tag{3u};
    CTestStream m_Stream{2501, m_Definition};
};

using RemoveIf = ForEach;

TEST_F(ForEach, LetsARenderThreadInBetweenTwoPagesUnlessTheLockIsHeldAround)
{
    for (const bool isHeldAround : {false, true})
    {
        std::atomic<bool> isAboutToWait{false};
        std::atomic<u32> visitedCount{0};
        u32 seenCount = 0;
        std::thread renderer;
        {
            std::optional<CScopedPagesLock> around;
            if (isHeldAround)
                around.emplace(m_Stream);
            const auto visit = [&](float)
            {
                if (visitedCount == 0)
                {
                    renderer = std::thread(
                        [&]
                        {
                            isAboutToWait = true;
                            m_Stream.LockPagesToRender();
                            seenCount = visitedCount;
                            m_Stream.UnlockPagesToRender();
                        });
                    while (!isAboutToWait)
                        std::this_thread::yield();
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                }
                ++visitedCount;
            };
            Particles::ForEach<const float>(m_Stream, m_Life, visit);
        }
        renderer.join();
        EXPECT_EQ(visitedCount, kCount);
        EXPECT_EQ(seenCount, isHeldAround ? kCount : 7u);
    }
}

TEST_F(ForEach, VisitsEachParticleOnce)
{
    const CParticleStream_MainMemory &stream = m_Stream;
    std::vector<u32> pageCounts;
    Particles::ForEachPage(stream, [&](const CParticlePageView &page)
                           { pageCounts.push_back(page.IsFullPageView() ? page.ParticleCount() : 0); });
    EXPECT_EQ(pageCounts, (std::vector<u32>{7, 2501, 11}));
    // Dense alone, and beside a constant and the first bytes of larger values.
    float next = 0.0f;
    Particles::ForEach<const float, const CFloat3>(stream, m_Life, m_Position,
                                                   [&](const float &life, const CFloat3 &position)
                                                   {
                                                       EXPECT_EQ(life, next++);
                                                       EXPECT_EQ(position, CFloat3(life, 0.0f, -life));
                                                   });
    EXPECT_EQ(next, float(kCount));
    Particles::ForEach<const float, const CFloat3, u8>(m_Stream, m_Position, m_Colour, m_Tag,
                                                       [&](float x, const CFloat3 &colour, u8 &tag)
                                                       {
                                                           tag = u8(u32(x));
                                                           next += colour == CFloat3(0.25f, 0.5f, 0.75f) ? x : 0.0f;
                                                       });
    EXPECT_EQ(next, kCount + kCount * (kCount - 1) / 2.0f);
    Particles::ForEach<const TVector3<u8>, const float>(
        stream, m_Tag, m_Life,
        [](TVector3<u8> tag, float life)
        { EXPECT_EQ(tag, TVector3<u8>(u8(u32(life)), kFreshParticleByte, kFreshParticleByte)); });
}

TEST_F(ForEach, FindsNothingInStreamsWithoutParticles)
{
    CTestStream empty(11, m_Definition);
    CParticleStream_MainMemory unbound(11);
    empty.AppendPage(11, 0);
    const auto fail = [](const auto &) { ADD_FAILURE(); };
    for (CParticleStream_MainMemory *stream : {static_cast<CParticleStream_MainMemory *>(&empty), &unbound})
    {
        Particles::ForEachPage(*stream, fail);
        Particles::ForEach<float>(*stream, CGuid::INVALID, fail);
        EXPECT_EQ(Particles::RemoveIf<float>(*stream, 99, [](float) { return true; }), 0u);
        Particles::ForEachPageOn([](u32, const auto &) { ADD_FAILURE(); }, *stream, fail);
    }
}

TEST_F(ForEach, WhatDoesNotFitIsReportedOnceAndVisitsNothing)
{
    const auto fail = [](const auto &...) { ADD_FAILURE(); };
    Particles::ForEach<float, float>(m_Stream, m_Life, CGuid::INVALID, fail);
    Particles::ForEach<const float>(m_Stream, 4, fail);
    Particles::ForEach<const CFloat4>(m_Stream, m_Position, fail);
    Particles::ForEach<CFloat4>(m_Stream, m_Colour, fail);
    Particles::ForEach<double>(m_Stream, m_Position, fail);
    EXPECT_EQ(TakeMessages(),
              (std::vector<std::string>{
                  "there is no field 4294967295: the stream has 4", "there is no field 4: the stream has 4",
                  "a type of 16 bytes does not fit field 0, whose values have 12 bytes",
                  "field 2 is a constant: go over it with a const type",
                  "a type aligned to 8 bytes does not fit field 0, whose values lie 12 bytes apart"}));
    {
        const CScopedRawPageReader reader(m_Stream.Page(CGuid(3))->RawPage());
        Particles::ForEach<const float, float>(m_Stream, m_Position, m_Life, fail);
        EXPECT_EQ(Particles::RemoveIf<const float>(m_Stream, m_Life, [](float) { return true; }), 0u);
        EXPECT_EQ(TakeMessages(), std::vector<std::string>(2, "page 3 has readers: it can not be written"));
        u32 count = 0;
        Particles::ForEach<const float>(m_Stream, m_Life, [&count](float) { ++count; });
        EXPECT_EQ(count, kCount);
    }
    CDefinition lacking;
    lacking.Stored(Life, BaseType_Float).ConstantAt(Colour, BaseType_Float4, CGuid::INVALID);
    CTestStream stream(11, lacking);
    stream.AppendPage(11, 3);
    Particles::ForEach<const float>(stream, 1, fail);
    EXPECT_EQ(TakeMessages(),
              std::vector<std::string>{"field 1 has no data: its constant was not found when the page was made"});
    m_Stream.Page(CGuid(2))->StreamsForWriting()[1].Clear(); // a page unlike the first one
    u32 count = 0;
    Particles::ForEach<float>(m_Stream, m_Life, [&count](float) { ++count; });
    EXPECT_EQ(TakeMessages(),
              std::vector<std::string>{"field 1 has no data: its constant was not found when the page was made"});
    EXPECT_EQ(count, 7u);
}

TEST_F(RemoveIf, AsksEachOnceAndKeepsTheOthers)
{
    for (const u32 divisor : {7u, 3u, 2u, 1u}) // keeps its multiples
    {
        std::multiset<u32> asked, expected, kept;
        Particles::ForEach<const float>(m_Stream, m_Life, [&](float life) { expected.insert(u32(life)); });
        const u32 requestCount = m_Memory.RequestCount();
        const u32 oldCount = m_Stream.ParticleCount();
        const u32 wentCount = Particles::RemoveIf<const float, u8>(m_Stream, m_Life, m_Tag,
                                                                   [&](float life, u8 &tag)
                                                                   {
                                                                       asked.insert(u32(life));
                                                                       tag = u8(u32(life) + divisor);
                                                                       return u32(life) % 7 % divisor != divisor - 1;
                                                                   });
        EXPECT_EQ(m_Memory.RequestCount(), requestCount);
        EXPECT_EQ(asked, expected);
        EXPECT_EQ(m_Stream.ParticleCount(), oldCount - wentCount);
        Particles::ForEach<const CFloat3, const float, const u8>(
            m_Stream, m_Position, m_Life, m_Tag,
            [&](const CFloat3 &position, float life, u8 tag)
            {
                kept.insert(u32(life));
                EXPECT_TRUE(position == CFloat3(life, 0.0f, -life) && tag == u8(u32(life) + divisor)) << life;
            });
        for (auto number = expected.begin(); number != expected.end();)
            number = *number % 7 % divisor != divisor - 1 ? expected.erase(number) : std::next(number);
        EXPECT_EQ(kept, expected);
    }
    EXPECT_EQ(Particles::RemoveIf<const float>(m_Stream, m_Life, [](float) { return true; }), m_Stream.ParticleCount());
    EXPECT_EQ(m_Stream.PageCount(), 4u) << "emptied pages stay";
}

// Each of them, from inside each of the functions, ends the going-over after the page, with one report.
TEST_F(ForEach, ChangingTheStreamIsReportedOnceAndEndsIt)
{
    CDefinition other;
    other.Stored(Life, BaseType_Float);
    const u32 row = 0;
    const std::pair<const char *, std::function<void(CTestStream &)>> changes[] = {
        {"allocates", [](CTestStream &stream) { stream.AllocateParticlesIFP(1, 0); }},
        {"removes",
         [&](CTestStream &stream) {
             stream.RemoveParticles(CGuid(1), {&row, 1});
         }},
        {"clears", [](CTestStream &stream) { stream.Clear(); }},
        {"lets go", [](CTestStream &stream) { stream.Cleanup(); }},
        {"adds a page", [](CTestStream &stream) { stream.AppendPage(11, 0); }},
        {"rebinds", [&](CTestStream &stream) { other.BindTo(stream); }},
        {"resizes",
         [](CTestStream &stream)
         {
             stream.SetPageSize(13);
             stream.ResizePending(100);
         }},
        {"empties a page", [](CTestStream &stream) { stream._UnsafePage(CGuid(0))->Clear(); }},
    };
    const auto run = [&](const char *name, const auto &change, u32 expectedCalls, const auto &goOver)
    {
        CTestStream stream(20, m_Definition);
        for (const u32 count : {2000u, 6u, 7u})
            stream.AppendPage(count, count);
        u32 calls = 0;
        goOver(stream,
               [&]
               {
                   if (calls++ == 0)
                       change(stream);
                   return false;
               });
        EXPECT_EQ(calls, expectedCalls) << name;
        std::vector<std::string> messages = TakeMessages();
        messages.erase(std::remove(messages.begin(), messages.end(), kCountText), messages.end());
        ASSERT_EQ(messages.size(), 1u) << name;
        EXPECT_EQ(messages[0].find("the stream was changed by the function that goes over it: "), 0u) << messages[0];
        stream.Clear();
        m_Reports.Take();
    };
    for (const auto &change : changes)
    {
        run(change.first, change.second, 1,
            [](CTestStream &stream, const auto &fn)
            { Particles::ForEachPage(stream, [&](const CParticlePageView &) { fn(); }); });
        run(change.first, change.second, 2000,
            [this](CTestStream &stream, const auto &fn)
            { Particles::ForEach<float>(stream, m_Life, [&](float &life) { life = fn() ? 1.0f : 0.0f; }); });
        run(change.first, change.second, 1024,
            [this](CTestStream &stream, const auto &fn)
            {
                const auto predicate = [&](float)
                {
                    fn();
                    return true;
                };
                EXPECT_EQ(Particles::RemoveIf<const float>(stream, m_Life, predicate), 0u);
            });
        run(change.first, change.second, 3,
            [](CTestStream &stream, const auto &fn)
            {
                const auto executor = [](u32 count, const auto &task)
                {
                    for (u32 i = 0; i < count; ++i)
                        task(i);
                };
                Particles::ForEachPageOn(executor, stream, [&](const CParticlePageView &) { fn(); });
            });
    }
}

TEST_F(ForEach, PagesGoToOtherThreadsUnderTheLock)
{
    std::map<const CParticlePage *, u32> visits;
    std::mutex visitsLock;
    const auto executor = [this](u32 count, const auto &task)
    {
        EXPECT_EQ(count, 3u);
        EXPECT_TRUE(m_Stream.LockedByCurrentThread());
        std::thread first([&] { task(0); }), others(
                                                 [&]
                                                 {
                                                     task(2);
                                                     task(1);
                                                 });
        first.join();
        others.join();
    };
    const auto visit = [&](const CParticlePageView &page)
    {
        for (float &life : page.DenseColumnForWriting<float>(m_Life))
            life += 1.0f;
        const std::lock_guard<std::mutex> lock(visitsLock);
        visits[page.OriginalPage().Get()] += page.ParticleCount();
    };
    Particles::ForEachPageOn(executor, m_Stream, visit);
    EXPECT_EQ(visits.size(), 3u);
    EXPECT_EQ(visits[m_Stream.Page(CGuid(2)).Get()], 2501u);
    float next = 1.0f;
    Particles::ForEach<const float>(m_Stream, m_Life, [&](float life) { EXPECT_EQ(life, next++); });
    EXPECT_FALSE(m_Stream.LockedByCurrentThread());

    Particles::ForEachPageOn([](u32 count, const auto &task) { task(count); }, m_Stream, visit);
    EXPECT_EQ(TakeMessages(), std::vector<std::string>{"there is no task 3: the executor was given 3"});
    m_Memory.RefuseFrom(1);
    Particles::ForEachPageOn([](u32, const auto &) { ADD_FAILURE(); }, m_Stream, visit);
    m_Reports.Expect({"false"});
}

} // namespace
} // namespace Tests
} // namespace Tessaly
