// Copies from page to page, pending resizes, copies of whole streams, and the collection of emptied pages.

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

using Stream = CParticleStream_MainMemory;
using Counts = std::vector<u32>;

constexpr const char *kRefusalText = "dstStartId.Valid() && dst.PrepareForWriting()";
constexpr const char *kProgressText = "actuallyTransferred == TZMin(totalToTransfer, dstSpaceLeft)";
constexpr const char *kDefinitionText = "srcField.m_Definition == dstField.m_Definition";
constexpr const char *kSyncText = "m_PageCount_OutOfSync <= m_Pages.Count()";

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

TEST_F(Transfer, AppendsARunOfEveryColumn)
{
    EXPECT_TRUE(Stream::CopySubRangeToPage(m_Target, m_Source, 5, 10));
    EXPECT_TRUE(Stream::CopyPageToPage(m_Target, CParticlePageView(m_Source, 90, 5)));
    EXPECT_EQ(Stream::TransferPageToPage(m_Target, CParticlePageView(m_Source, 10, 90), 40), 53u);
    EXPECT_TRUE(HoldsParticles(m_Target, 0, {500, 501, 502, 5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 90, 91, 92,
                                             93,  94,  50,  51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 62}));
    EXPECT_EQ(m_Stream.ParticleCount(), 103u) << "the copies know no stream";
    m_Stream.RegisterBornCount(28);
}

TEST_F(Transfer, RefusalsLeaveTheDestinationAsItWas)
{
    {
        const CScopedRawPageReader reader(m_Target.RawPage());
        EXPECT_FALSE(Stream::CopySubRangeToPage(m_Target, m_Source, 0, 5));
        EXPECT_FALSE(Stream::CopyPageToPage(m_Target, CParticlePageView(m_Source, 0, 5)));
        EXPECT_EQ(Stream::TransferPageToPage(m_Target, CParticlePageView(m_Source), 7), 7u);
        m_Reports.Expect({kRefusalText, kRefusalText, kRefusalText});
    }
    EXPECT_FALSE(Stream::CopySubRangeToPage(m_Target, m_Source, 0, 29));
    m_Reports.Expect({"transferCount <= dst.Capacity() - dst.ParticleCount()", kRefusalText});
    EXPECT_FALSE(Stream::CopyPageToPage(m_Target, CParticlePageView(m_Source)));
    m_Reports.Expect({"src.ParticleCount() <= dst.Capacity() - dst.ParticleCount()", kRefusalText});
    EXPECT_FALSE(Stream::CopySubRangeToPage(m_Target, m_Source, 0xFFFFFFFFu, 2)) << "past the source's capacity";
    EXPECT_EQ(m_Reports.Count(), 0u);
    EXPECT_TRUE(HoldsRun(m_Target, 500, 3));
    EXPECT_TRUE(IsFreshFrom(m_Target, 3));
}

TEST_F(Transfer, OnlyTheRangeCopyComparesDefinitions)
{
    CDefinition otherConstant;
    otherConstant.Stored(Position, BaseType_Float3).Stored(Life, BaseType_Float).Constant(Extra, BaseType_Float, 1.0f);
    CTestStream stream(10, otherConstant);
    CParticlePage &page = stream.AppendPage(10, 0);
    EXPECT_TRUE(Stream::CopyPageToPage(page, CParticlePageView(m_Source, 0, 2)));
    EXPECT_EQ(m_Reports.Count(), 0u);
    EXPECT_TRUE(Stream::CopySubRangeToPage(page, m_Source, 2, 2));
    m_Reports.Expect({kDefinitionText});
    EXPECT_TRUE(HoldsRun(page, 0, 4));
    stream.RegisterBornCount(4);
}

class Whole : public CStreamTest
{
protected:
    // A stream with these pages, by capacity and count, in a stream of that page size; pending ones are counted.
    CTestStream &Make(u32 pageSize, const std::vector<std::pair<u32, u32>> &pages)
    {
        m_Stream = std::make_unique<CTestStream>(pageSize + 1, m_Definition);
        for (const auto &page : pages)
            m_Stream->AppendPage(page.first, page.second);
        FillParticles(*m_Stream, 0);
        m_Stream->SetPageSize(pageSize);
        return *m_Stream;
    }

    std::unique_ptr<CTestStream> m_Stream;
};

using Resize = Whole;
using DeepCopy = Whole;
using Collection = Whole;

TEST_F(Resize, FillsPagesWithEnoughRoomFirst)
{
    CTestStream *stream = &Make(1024, {{512, 300}, {1024, 1000}});
    stream->ResizePending(0);
    EXPECT_TRUE(stream->HasPendingResizes());
    stream->ResizePending(1);
    EXPECT_EQ(stream->ParticleCounts(), (Counts{1000, 300})) << "24 free slots are too few";
    EXPECT_FALSE(stream->HasPendingResizes());
    stream = &Make(1024, {{512, 500}, {1024, 900}});
    stream->ResizePending(1);
    EXPECT_EQ(stream->ParticleCounts(), (Counts{1024, 376}));
    EXPECT_TRUE(HoldsParticles(*stream->Page(CGuid(0)), 900, Numbers(0, 124)));
    stream = &Make(1024, {{512, 400}, {512, 400}});
    stream->ResizePending(1);
    EXPECT_EQ(stream->ParticleCounts(), (Counts{400, 400}));
    EXPECT_EQ(stream->Capacities(), (Counts{512, 1024})) << "the bound";
    EXPECT_TRUE(HoldsRun(*stream->Page(CGuid(1)), 0, 400));
}

TEST_F(Resize, RefusalsAreReportedAndTheOthersGoOn)
{
    CTestStream *stream = &Make(100, {{50, 30}, {100, 0}, {100, 10}});
    {
        const CScopedRawPageReader reader(stream->Page(CGuid(2))->RawPage());
        stream->ResizePending(9);
    }
    m_Reports.Expect({kRefusalText, kProgressText, "dstSpaceLeft == 0"});
    EXPECT_EQ(stream->ParticleCounts(), (Counts{30, 10}));

    stream = &Make(100, {{100, 30}, {250, 220}, {250, 10}});
    m_Runtime.Allocator().CleanAllFreePages();
    m_Runtime.RefusePagesAfter(1, stream->Page(CGuid(0))->RawPage()->Size());
    const CParticlePageView oldView(*stream->Page(CGuid(1)));
    stream->ResizePending(9);
    m_Reports.Expect({"newPage != null"});
    m_Runtime.AllowPages();
    EXPECT_EQ(stream->ParticleCounts(), (Counts{100, 10, 100})) << "a page in progress is dropped and uncounted";
    EXPECT_EQ(stream->ParticleCount(), 210u);
    EXPECT_TRUE(HoldsRun(*oldView.OriginalPage(), 30, 220)) << "its holders keep it";
}

TEST_F(DeepCopy, TakesSettingsAndPagesWithParticles)
{
    const CTestStream &source = Make(12, {{10, 5}, {10, 0}, {10, 7}, {13, 13}});
    CTestStream copy(3);
    copy.DeepCopy(source);
    EXPECT_EQ(copy.ParticleCounts(), (Counts{5, 7, 13}));
    EXPECT_EQ(copy.PageSize(), 12u);
    EXPECT_EQ(copy.ConstantDataFieldSlot().Data(), m_Definition.Slots().Data());
    EXPECT_TRUE(HoldsRun(*copy.Page(CGuid(2)), 12, 13));
    EXPECT_EQ(copy.Page(CGuid(0))->ParentStream(), &copy);
    copy.ResizePending(100); // its counter is above its pages
    m_Reports.Expect({kSyncText, kSyncText});
    copy.Cleanup();
    m_Memory.RefuseAt(1); // the list
    copy.DeepCopy(source);
    m_Reports.Expect({"false"});
    EXPECT_EQ(copy.PageCount() + copy.ParticleCount(), 0u);
    m_Memory.RefuseNone();
    m_Stream->DeepCopy(*m_Stream);
    EXPECT_EQ(m_Stream->PageCount() + m_Stream->ParticleCount(), 0u);
    m_Stream->DeepCopy(CTestStream(77));
    m_Reports.Expect({"streamDef != null"});
    EXPECT_EQ(m_Stream->PageSize(), 77u);
}

TEST_F(Collection, TellsWhereEveryPageWent)
{
    constexpr u32 kGone = 0xFFFFFFFFu;
    const u32 all[] = {kGone, 1, kGone, 2, kGone, kGone, 0};
    for (const u32 size : {7u, 2u, 0u, 9u})
    {
        CTestStream &stream = Make(9, {{10, 0}, {10, 5}, {10, 0}, {10, 7}, {10, 0}, {10, 0}, {10, 9}});
        std::vector<CGuid> entries(10, CGuid(77));
        TMemoryView<CGuid> reindexer(entries.data(), size);
        const u32 requestCount = m_Memory.RequestCount();
        stream.GarbageCollectOldPages(&reindexer);
        EXPECT_EQ(m_Memory.RequestCount(), requestCount) << "without scratch memory";
        if (size != 7)
            m_Reports.Expect({"pageReindexer == null || pageReindexer->Count() == m_Pages.Count()"});
        EXPECT_EQ(stream.ParticleCounts(), (Counts{9, 5, 7}));
        for (u32 i = 0; i < 10; ++i)
            EXPECT_EQ(entries[i], i >= size ? 77u : i < 7 ? all[i] : kGone);
        EXPECT_TRUE(stream.HasPendingResizes()) << "the counter is left alone";
    }
}

} // namespace
} // namespace Tests
} // namespace Tessaly
