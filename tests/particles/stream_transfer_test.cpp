// Copies from page to page, and pending resizes.

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

using Stream = CParticleStream_MainMemory;

constexpr const char *kRefusalText = "dstStartId.Valid() && dst.PrepareForWriting()";
constexpr const char *kProgressText = "actuallyTransferred == TZMin(totalToTransfer, dstSpaceLeft)";
constexpr const char *kDefinitionText = "srcField.m_Definition == dstField.m_Definition";
constexpr const char *kRangeRoomText = "transferCount <= dst.Capacity() - dst.ParticleCount()";
constexpr const char *kViewRoomText = "src.ParticleCount() <= dst.Capacity() - dst.ParticleCount()";

class Transfer : public CStreamTest
{
protected:
    Transfer()
    {
        FillParticles(CParticlePageView(m_Source), 0);
        FillParticles(CParticlePageView(m_Target), 500);
    }

    CTestStream m_Stream{100, m_Definition};
    CParticlePage &m_Source = m_Stream.AppendPage(100, 100);
    CParticlePage &m_Target = m_Stream.AppendPage(31, 3);
};

TEST_F(Transfer, CopiesAppendARunOfEveryColumn)
{
    EXPECT_TRUE(Stream::CopySubRangeToPage(m_Target, m_Source, 5, 10));
    EXPECT_TRUE(Stream::CopySubRangeToPage(m_Target, m_Source, 77, 0));
    EXPECT_TRUE(HoldsParticles(m_Target, 0, {500, 501, 502, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}));
    EXPECT_EQ(m_Target.ParticleCount(), 13u);
    EXPECT_TRUE(IsFreshFrom(m_Target, 13));
    EXPECT_TRUE(Stream::CopyPageToPage(m_Target, CParticlePageView(m_Source, 90, 10)));
    EXPECT_TRUE(HoldsParticles(m_Target, 13, Numbers(90, 10)));
    EXPECT_TRUE(Stream::CopySubRangeToPage(m_Source, m_Source, 0, 0));
    EXPECT_TRUE(Stream::CopySubRangeToPage(m_Target, m_Target, 0, 8)) << "within one page";
    EXPECT_TRUE(HoldsParticles(m_Target, 23, {500, 501, 502, 5, 6, 7, 8, 9}));
    EXPECT_TRUE(HoldsRun(m_Source, 0, 100));
    EXPECT_EQ(m_Stream.ParticleCount(), 103u) << "the copies know no stream";
    m_Stream.RegisterBornCount(28);
}

TEST_F(Transfer, PositionIsTheViewsAndGoesOn)
{
    const CParticlePageView view(m_Source, 10, 90);
    CParticlePage &page = m_Stream.AppendPage(25, 0);
    EXPECT_EQ(Stream::TransferPageToPage(page, view, 40), 65u);
    EXPECT_TRUE(HoldsRun(page, 50, 25));
    EXPECT_EQ(Stream::TransferPageToPage(page, view, 65), 65u) << "full";
    EXPECT_EQ(Stream::TransferPageToPage(m_Target, view, 65), 90u);
    EXPECT_TRUE(HoldsParticles(m_Target, 3, Numbers(75, 25)));
    EXPECT_EQ(Stream::TransferPageToPage(m_Target, view, 90), 90u);
    EXPECT_EQ(Stream::TransferPageToPage(m_Target, view, 91), 91u);
    EXPECT_EQ(Stream::TransferPageToPage(m_Target, view, 0xFFFFFFFFu), 0xFFFFFFFFu);
    EXPECT_EQ(Stream::TransferPageToPage(m_Target, CParticlePageView(), 0), 0u);
    EXPECT_EQ(m_Target.ParticleCount(), 28u);
    m_Stream.RegisterBornCount(50);
}

TEST_F(Transfer, RefusalsLeaveTheDestinationAsItWas)
{
    {
        const CScopedRawPageReader reader(m_Target.RawPage());
        EXPECT_FALSE(Stream::CopySubRangeToPage(m_Target, m_Source, 0, 5));
        EXPECT_FALSE(Stream::CopyPageToPage(m_Target, CParticlePageView(m_Source, 0, 5)));
        EXPECT_EQ(Stream::TransferPageToPage(m_Target, CParticlePageView(m_Source), 7), 7u);
        m_Reports.Expect({kRefusalText, kRefusalText, kRefusalText});
        EXPECT_TRUE(Stream::CopyPageToPage(m_Target, CParticlePageView(m_Source, 0, 0)));
    }
    EXPECT_FALSE(Stream::CopySubRangeToPage(m_Target, m_Source, 0, 29));
    m_Reports.Expect({kRangeRoomText, kRefusalText});
    EXPECT_FALSE(Stream::CopyPageToPage(m_Target, CParticlePageView(m_Source)));
    m_Reports.Expect({kViewRoomText, kRefusalText});
    EXPECT_FALSE(Stream::CopySubRangeToPage(m_Target, m_Source, 95, 6)) << "past the source's capacity";
    EXPECT_FALSE(Stream::CopySubRangeToPage(m_Target, m_Source, 0xFFFFFFFFu, 2));
    EXPECT_EQ(m_Reports.Count(), 0u);
    EXPECT_TRUE(HoldsRun(m_Target, 500, 3));
    EXPECT_TRUE(IsFreshFrom(m_Target, 3));
}

TEST_F(Transfer, TheTwoCopiesDifferInWhatTheyCheck)
{
    CDefinition otherConstant, otherStored, nothing, constants;
    otherConstant.Stored(Position, BaseType_Float3).Stored(Life, BaseType_Float).Constant(Extra, BaseType_Float, 1.0f);
    otherStored.Stored(Position, BaseType_Float2);
    constants.Constant(Colour, BaseType_Float, 1.0f);
    CTestStream a(10, otherConstant), b(10, otherStored), c(10, nothing), d(10, constants);
    m_Reports.Expect({"m_PageSizeInBytes != 0 || def->Empty()"});
    CParticlePage &pageOfA = a.AppendPage(10, 0), &pageOfB = b.AppendPage(10, 0);
    EXPECT_TRUE(Stream::CopyPageToPage(pageOfA, CParticlePageView(m_Source, 0, 2)));
    EXPECT_EQ(m_Reports.Count(), 0u);
    EXPECT_TRUE(Stream::CopySubRangeToPage(pageOfA, m_Source, 2, 2));
    m_Reports.Expect({kDefinitionText});
    EXPECT_TRUE(HoldsRun(pageOfA, 0, 4));
    EXPECT_TRUE(Stream::CopySubRangeToPage(pageOfB, m_Source, 0, 10)) << "the smaller of two sizes";
    EXPECT_TRUE(Stream::CopySubRangeToPage(m_Target, pageOfB, 0, 10));
    m_Reports.Expect({kDefinitionText, kDefinitionText});

    CParticlePage &pageOfC = c.AppendPage(10, 0), &pageOfD = d.AppendPage(10, 0);
    EXPECT_TRUE(Stream::CopyPageToPage(pageOfC, CParticlePageView(m_Source, 0, 2)));
    EXPECT_EQ(pageOfC.ParticleCount(), 0u) << "a page without fields";
    EXPECT_TRUE(Stream::CopySubRangeToPage(pageOfC, m_Source, 0, 2));
    EXPECT_EQ(pageOfC.ParticleCount(), 2u);
    EXPECT_TRUE(Stream::CopyPageToPage(pageOfD, CParticlePageView(m_Source, 0, 2)));
    EXPECT_EQ(pageOfD.ParticleCount(), 2u);
    a.RegisterBornCount(4);
    b.RegisterBornCount(10);
    c.RegisterBornCount(2);
    d.RegisterBornCount(2);
    m_Stream.RegisterBornCount(10);
}

// A page list as capacities and particle counts.
using Pages = std::vector<std::pair<u32, u32>>;

class Resize : public CStreamTest
{
protected:
    // A stream of that page size with these pages, numbered from 0 on, and its pending pages counted by SetPageSize.
    CTestStream &Make(u32 pageSize, const Pages &pages)
    {
        m_Stream = std::make_unique<CTestStream>(pageSize + 1, m_Definition);
        for (const auto &page : pages)
            m_Stream->AppendPage(page.first, page.second);
        FillParticles(*m_Stream, 0);
        m_Stream->SetPageSize(pageSize);
        m_Runtime.Allocator().CleanAllFreePages(); // what is made next is made of unused memory
        return *m_Stream;
    }
    Pages List() const
    {
        Pages pages;
        for (const CParticlePage *page : m_Stream->Pages())
            pages.emplace_back(page->Capacity(), page->ParticleCount());
        return pages;
    }
    // The particles' numbers are those, in list order.
    void ExpectNumbers(const std::vector<u32> &numbers) const
    {
        u32 first = 0;
        for (const CParticlePage *page : m_Stream->Pages())
        {
            const auto begin = numbers.begin() + first;
            EXPECT_TRUE(HoldsParticles(*page, 0, std::vector<u32>(begin, begin + page->ParticleCount())));
            first += page->ParticleCount();
        }
        EXPECT_EQ(first, numbers.size());
        EXPECT_EQ(m_Stream->ParticleCount(), numbers.size());
    }

    std::unique_ptr<CTestStream> m_Stream;
};

std::vector<u32> Join(std::initializer_list<std::vector<u32>> parts)
{
    std::vector<u32> all;
    for (const std::vector<u32> &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST_F(Resize, NothingPendingOrNoneWantedChangesNothing)
{
    CTestStream &stream = Make(1024, {{512, 300}});
    stream.ResizePending(0);
    EXPECT_EQ(List(), (Pages{{512, 300}}));
    stream.SetPageSize(512);
    stream.ResizePending(9);
    EXPECT_EQ(List(), (Pages{{512, 300}}));
}

TEST_F(Resize, PagesWithEnoughRoomAreFilledFirst)
{
    CTestStream *stream = &Make(1024, {{512, 300}, {1024, 1000}});
    stream->ResizePending(1);
    EXPECT_EQ(List(), (Pages{{1024, 1000}, {1024, 300}})) << "24 free slots are too few";
    ExpectNumbers(Join({Numbers(300, 1000), Numbers(0, 300)}));
    EXPECT_FALSE(stream->HasPendingResizes());
    EXPECT_TRUE(IsFreshFrom(*stream->Page(CGuid(1)), 300));

    stream = &Make(1024, {{512, 500}, {1024, 900}});
    stream->ResizePending(1);
    EXPECT_EQ(List(), (Pages{{1024, 1024}, {1024, 376}}));
    ExpectNumbers(Join({Numbers(500, 900), Numbers(0, 500)}));

    // Last page first; the others keep their order.
    stream = &Make(100, {{50, 30}, {100, 20}, {60, 40}, {100, 36}, {100, 37}, {70, 50}});
    stream->ResizePending(9);
    EXPECT_EQ(List(), (Pages{{100, 76}, {100, 100}, {100, 37}}));
    ExpectNumbers(Join({Numbers(30, 20), Numbers(40 + 30 + 20 - 6, 6), Numbers(163, 50), Numbers(90, 36),
                        Numbers(0, 30), Numbers(50, 34), Numbers(126, 37)}));
}

TEST_F(Resize, BoundCountsPagesWithParticles)
{
    CTestStream *stream = &Make(1024, {{512, 400}, {512, 400}});
    stream->ResizePending(1);
    EXPECT_EQ(List(), (Pages{{512, 400}, {1024, 400}}));
    EXPECT_TRUE(stream->HasPendingResizes());
    stream->ResizePending(1);
    EXPECT_EQ(List(), (Pages{{1024, 800}}));
    ExpectNumbers(Numbers(0, 800));

    stream = &Make(100, {{50, 0}, {50, 0}, {50, 7}, {50, 9}});
    stream->ResizePending(1);
    EXPECT_EQ(List(), (Pages{{50, 9}, {100, 7}}));
    EXPECT_EQ(stream->ComputeStats().m_PageCount_OutOfSync, 1u);
    EXPECT_TRUE(stream->HasPendingResizes());

    stream = &Make(100, {{500, 450}, {500, 0}});
    stream->ResizePending(1);
    EXPECT_EQ(List(), (Pages{{500, 0}, {100, 100}, {100, 100}, {100, 100}, {100, 100}, {100, 50}}))
        << "a page that was begun is finished, and then the bound is reached";
    ExpectNumbers(Numbers(0, 450));
}

TEST_F(Resize, SmallPagesAreNeverReusedAndADestinationComesFirst)
{
    Make(32, {{32, 0}, {64, 50}}).ResizePending(9);
    EXPECT_EQ(List(), (Pages{{32, 0}, {32, 32}, {32, 18}}));
    Make(1024, {{512, 0}}).ResizePending(9);
    EXPECT_EQ(List(), (Pages{{1024, 0}}));
    CTestStream &stream = Make(1024, {{512, 0}});
    m_Runtime.RefusePages();
    stream.ResizePending(9);
    m_Reports.Expect({"newPage != null"});
    EXPECT_EQ(List(), (Pages{{512, 0}}));
    m_Runtime.AllowPages();
}

TEST_F(Resize, CounterThatIsTooHighEndsThePass)
{
    CTestStream *stream = &Make(100, {{50, 0}, {50, 0}, {100, 20}});
    stream->GarbageCollectOldPages(null);
    EXPECT_TRUE(stream->HasPendingResizes());
    stream->ResizePending(9);
    m_Reports.Expect({"m_PageCount_OutOfSync <= m_Pages.Count()", "m_PageCount_OutOfSync <= m_Pages.Count()"});
    EXPECT_EQ(List(), (Pages{{100, 20}})) << "no page is made for nothing";
    EXPECT_FALSE(stream->HasPendingResizes());

    stream = &Make(100, {{50, 0}, {100, 20}, {50, 30}});
    stream->GarbageCollectOldPages(null);
    stream->ResizePending(9);
    EXPECT_EQ(List(), (Pages{{100, 50}}));
    ExpectNumbers(Join({Numbers(0, 20), Numbers(20, 30)}));
    EXPECT_FALSE(stream->HasPendingResizes());
    m_Reports.Take();
}

TEST_F(Resize, CounterThatIsTooLowLeavesEmptyPages)
{
    CTestStream &stream = Make(100, {{50, 0}, {50, 10}, {50, 0}});
    stream.ComputePendingResizes_NoLock();
    stream.ResizePending(9);
    EXPECT_EQ(List(), (Pages{{50, 10}, {50, 0}, {100, 0}})) << "the first that is met takes the count with it";
    EXPECT_FALSE(stream.HasPendingResizes());
}

TEST_F(Resize, RefusingDestinationIsLeftOutAndNothingIsLost)
{
    CTestStream &stream = Make(100, {{50, 30}, {100, 0}, {100, 10}});
    {
        const CScopedRawPageReader reader(stream.Page(CGuid(2))->RawPage());
        stream.ResizePending(9);
    }
    m_Reports.Expect({kRefusalText, kProgressText, "dstSpaceLeft == 0"});
    EXPECT_EQ(List(), (Pages{{100, 30}, {100, 10}}));
    ExpectNumbers(Join({Numbers(0, 30), Numbers(30, 10)}));
}

TEST_F(Resize, PageInProgressIsDroppedAndUncountedWhenMemoryIsOut)
{
    CTestStream &stream = Make(100, {{100, 30}, {250, 220}, {250, 10}});
    m_Runtime.RefusePagesAfter(1, stream.Page(CGuid(0))->RawPage()->Size());
    const CParticlePageView oldView(*stream.Page(CGuid(1)));
    stream.ResizePending(9);
    m_Reports.Expect({"newPage != null"});
    m_Runtime.AllowPages();
    EXPECT_EQ(List(), (Pages{{100, 100}, {250, 10}, {100, 100}}));
    ExpectNumbers(Join({Numbers(0, 30), Numbers(30, 70), Numbers(250, 10), Numbers(100, 100)}));
    EXPECT_TRUE(HoldsRun(*oldView.OriginalPage(), 30, 220)) << "its holders keep it";
    stream.ResizePending(9);
    EXPECT_EQ(List(), (Pages{{100, 100}, {100, 100}, {100, 10}}));
}

} // namespace
} // namespace Tests
} // namespace Tessaly
