// Iteration over particles: each one once, by pages and by values, with removal, on threads; and what ends it.
#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <set>
#include <thread>

#include <support/stream_fixture.h>
#include <tz_particles/include/ps_for_each.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

class ForEach : public CStreamTest
{
protected:
    // Pages of odd sizes, one of them empty; Life is the particle's number.
    ForEach()
    {
        for (const u32 count : {7u, 0u, 2501u, 11u})
            m_Stream.AppendPage(TZMax(count, 11u), count);
        Particles::ForEach<const float, CFloat3>(
            m_Stream, m_Life, m_Position, [](float life, CFloat3 &position) { position = CFloat3(life, 0.0f, -life); });
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
        const auto render = [&]
        {
            isAboutToWait = true;
            const CScopedPagesRenderLock lock(m_Stream);
            seenCount = visitedCount;
        };
        {
            std::optional<CScopedPagesLock> around;
            if (isHeldAround)
                around.emplace(m_Stream);
            const auto visit = [&](float)
            {
                if (visitedCount++ != 0)
                    return;
                renderer = std::thread(render);
                while (!isAboutToWait)
                    std::this_thread::yield();
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
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
    float next = 0.0f;
    const auto visitDense = [&](const float &life, const CFloat3 &position)
    {
        EXPECT_TRUE(life == next && position == CFloat3(next, 0.0f, -next)) << next;
        ++next;
    };
    Particles::ForEach<const float, const CFloat3>(stream, m_Life, m_Position, visitDense);
    EXPECT_EQ(next, float(kCount));
    // Beside a constant and the first bytes of larger values.
    const auto visitMixed = [&](float x, const CFloat3 &colour, u8 &tag)
    {
        tag = u8(u32(x));
        next -= colour == CFloat3(0.25f, 0.5f, 0.75f) ? 1.0f : 0.0f;
    };
    Particles::ForEach<const float, const CFloat3, u8>(m_Stream, m_Position, m_Colour, m_Tag, visitMixed);
    EXPECT_EQ(next, 0.0f);
    const auto check = [](CUByte3 tag, float life)
    { EXPECT_EQ(tag, CUByte3(u8(u32(life)), kFreshParticleByte, kFreshParticleByte)); };
    Particles::ForEach<const CUByte3, const float>(stream, m_Tag, m_Life, check);
}

TEST_F(ForEach, FindsNothingInStreamsWithoutParticles)
{
    CTestStream empty(11, m_Definition, {0}), unbound(11);
    const auto fail = [](const auto &...) { ADD_FAILURE(); };
    for (CTestStream *stream : {&empty, &unbound})
    {
        Particles::ForEachPage(*stream, fail);
        Particles::ForEach<float>(*stream, CGuid::INVALID, fail);
        EXPECT_EQ(Particles::RemoveIf<float>(*stream, 99, [](float) { return true; }), 0u);
        Particles::ForEachPageOn(fail, *stream, fail);
    }
}

TEST_F(ForEach, WhatDoesNotFitIsReportedOnceAndVisitsNothing)
{
    u32 count = 0;
    const auto visit = [&count](const auto &...) { ++count; };
    Particles::ForEach<float, float>(m_Stream, m_Life, CGuid::INVALID, visit);
    Particles::ForEach<const float>(m_Stream, 4, visit);
    Particles::ForEach<const CFloat4>(m_Stream, m_Position, visit);
    Particles::ForEach<CFloat4>(m_Stream, m_Colour, visit);
    Particles::ForEach<double>(m_Stream, m_Position, visit);
    EXPECT_EQ(m_Reports.Take().size(), 5u);
    CDefinition lacking;
    lacking.Stored(Life, BaseType_Float).ConstantAt(Colour, BaseType_Float4, CGuid::INVALID);
    CTestStream stream(11, lacking, {3});
    Particles::ForEach<const float>(stream, 1, visit);
    EXPECT_EQ(m_Reports.Take().size(), 1u);
    {
        const CScopedRawPageReader reader(m_Stream.Page(CGuid(3))->RawPage());
        Particles::ForEach<const float, float>(m_Stream, m_Position, m_Life, visit);
        EXPECT_EQ(Particles::RemoveIf<const float>(m_Stream, m_Life, [](float) { return true; }), 0u);
        EXPECT_EQ(m_Reports.Take().size(), 2u);
        EXPECT_EQ(count, 0u);
        Particles::ForEach<const float>(m_Stream, m_Life, visit);
        EXPECT_EQ(count, kCount);
    }
    m_Stream.Page(CGuid(2))->StreamsForWriting()[1].Clear(); // a page unlike the first one
    Particles::ForEach<float>(m_Stream, m_Life, visit);
    EXPECT_EQ(m_Reports.Take().size(), 1u);
    EXPECT_EQ(count, kCount + 7);
}

TEST_F(RemoveIf, AsksEachOnceAndKeepsTheOthers)
{
    for (const u32 divisor : {7u, 3u, 2u, 1u})
    {
        const auto isToGo = [divisor](float life) { return u32(life) % 7 % divisor != divisor - 1; };
        const std::vector<float> before = m_Stream.Values<float>(Life);
        std::multiset<float> asked, expected;
        std::remove_copy_if(before.begin(), before.end(), std::inserter(expected, expected.end()), isToGo);
        const auto ask = [&](float life, u8 &tag)
        {
            asked.insert(life);
            tag = u8(u32(life) + divisor);
            return isToGo(life);
        };
        m_Memory.RefuseNone();
        const u32 goneCount = Particles::RemoveIf<const float, u8>(m_Stream, m_Life, m_Tag, ask);
        EXPECT_EQ(m_Memory.RequestCount(), 0u);
        EXPECT_EQ(goneCount, before.size() - m_Stream.ParticleCount());
        EXPECT_EQ(asked, std::multiset<float>(before.begin(), before.end()));
        const std::vector<float> kept = m_Stream.Values<float>(Life);
        EXPECT_EQ(std::multiset<float>(kept.begin(), kept.end()), expected);
        const auto check = [&](const CFloat3 &position, float life, u8 tag)
        { EXPECT_TRUE(position == CFloat3(life, 0.0f, -life) && tag == u8(u32(life) + divisor)) << life; };
        Particles::ForEach<const CFloat3, const float, const u8>(m_Stream, m_Position, m_Life, m_Tag, check);
    }
    EXPECT_EQ(Particles::RemoveIf<const float>(m_Stream, m_Life, [](float) { return true; }), m_Stream.ParticleCount());
    EXPECT_EQ(m_Stream.PageCount(), 4u) << "emptied pages stay";
}

// A change of the stream, made by the function that is called, ends the iteration after the page, with one report.
TEST_F(ForEach, ChangingTheStreamIsReportedOnceAndEndsIt)
{
    using FnChange = std::function<void(CTestStream &)>;
    CDefinition other;
    other.Stored(Life, BaseType_Float);
    const auto runInOrder = [](u32 count, const auto &task)
    {
        for (u32 i = 0; i < count; ++i)
            task(i);
    };
    const std::pair<const char *, FnChange> changes[] = {
        {"allocates", [](CTestStream &stream) { stream.AllocateParticlesIFP(1, 0); }},
        {"removes", [](CTestStream &stream) { stream.RemoveParticles(CGuid(1), std::vector<u32>{0}); }},
        {"clears", [](CTestStream &stream) { stream.Clear(); }},
        {"lets go", [](CTestStream &stream) { stream.Cleanup(); }},
        {"adds a page", [](CTestStream &stream) { stream.AppendPage(11, 0); }},
        {"rebinds", [&](CTestStream &stream) { other.BindTo(stream); }},
        {"resizes", [](CTestStream &stream) { stream.SetPageSize(13), stream.ResizePending(100); }},
        {"empties a page", [](CTestStream &stream) { stream._UnsafePage(CGuid(0))->Clear(); }},
    };
    u32 calls = 0;
    const FnChange *change = null;
    CTestStream *stream = null;
    const auto visit = [&](const auto &)
    {
        if (calls++ == 0)
            (*change)(*stream);
        return true;
    };
    const std::pair<u32, std::function<void()>> functions[] = {
        // and the calls until they end
        {1, [&] { Particles::ForEachPage(*stream, visit); }},
        {2000, [&] { Particles::ForEach<float>(*stream, m_Life, visit); }},
        {1024, [&] { EXPECT_EQ(Particles::RemoveIf<const float>(*stream, m_Life, visit), 0u); }},
        {3, [&] { Particles::ForEachPageOn(runInOrder, *stream, visit); }},
    };
    for (const auto &[name, changeIt] : changes)
    {
        for (const auto &[expectedCalls, iterate] : functions)
        {
            SCOPED_TRACE(std::string(name) + " in " + std::to_string(expectedCalls));
            CTestStream changed(20, m_Definition);
            for (const u32 count : {2000u, 6u, 7u})
                changed.AppendPage(count, count);
            stream = &changed;
            change = &changeIt;
            calls = 0;
            iterate();
            EXPECT_EQ(calls, expectedCalls);
            u32 reportCount = 0;
            for (const SSeenReport &report : m_Reports.Take())
                reportCount += report.m_Message.find("the stream was changed during the iteration") == 0;
            EXPECT_EQ(reportCount, 1u);
            changed.Clear();
            m_Reports.Take();
        }
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
        std::thread first([&] { task(0); }), others([&] { task(2), task(1); });
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
    EXPECT_EQ(m_Stream.Pages(), "[1-7] [] [8-2508] [2509-2519]");
    EXPECT_FALSE(m_Stream.LockedByCurrentThread());

    Particles::ForEachPageOn([](u32 count, const auto &task) { task(count); }, m_Stream, visit);
    EXPECT_EQ(m_Reports.Take().size(), 1u) << "there is no such task";
    m_Memory.RefuseFrom(1);
    Particles::ForEachPageOn([](u32, const auto &) { ADD_FAILURE(); }, m_Stream, visit);
    m_Reports.Expect({"false"});
}
