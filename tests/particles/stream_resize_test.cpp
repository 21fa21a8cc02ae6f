// Pending resizes: where the particles of pages of another capacity go, how much one call does; and the copies from
// page to page that it is made of.
#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

class StreamResize : public CStreamTest
{
protected:
    // Appends pages of these capacities and counts; those of another capacity than 1024 are pending.
    void AppendPages(const std::vector<std::pair<u32, u32>> &pages)
    {
        for (const auto &[capacity, count] : pages)
            m_Stream.AppendPage(capacity, count);
        m_Stream.ComputePendingResizes_NoLock();
    }

    CTestStream m_Stream{1024, m_Definition};
};

using PageCopy = StreamResize;

TEST_F(StreamResize, ParticlesMoveIntoPagesOfTheNewSizeInTheirOrder)
{
    CTestStream stream(64, m_Definition, {64, 64, 40});
    stream.SetPageSize(100);
    stream.ResizePending(100);
    EXPECT_EQ(stream.Pages(), "[0-99] [100-167]");
    EXPECT_EQ(stream.Capacities(), (std::vector<u32>{100, 100}));
    EXPECT_EQ(stream.ParticleCount(), 168u);
    stream.SetPageSize(64);
    stream.ResizePending(100);
    EXPECT_EQ(stream.Pages(), "[0-63] [64-127] [128-167]");
}

TEST_F(StreamResize, OneCallEmptiesAtMostAsManyPagesAsTold)
{
    AppendPages({{512, 300}, {512, 300}, {512, 300}});
    m_Stream.ResizePending(0);
    EXPECT_EQ(m_Stream.Capacities(), (std::vector<u32>{512, 512, 512}));
    m_Stream.ResizePending(2);
    EXPECT_EQ(m_Stream.Pages(), "[600-899] [0-599]");
    EXPECT_TRUE(m_Stream.HasPendingResizes());
    m_Stream.ResizePending(1);
    EXPECT_EQ(m_Stream.Pages(), "[0-899]");
    EXPECT_FALSE(m_Stream.HasPendingResizes());
}

TEST_F(StreamResize, EmptyPagesAreDroppedBesideThose)
{
    AppendPages({{512, 0}, {512, 4}, {512, 0}, {512, 4}});
    m_Stream.SetPageSize(2000); // counts empty pages, too
    m_Stream.ResizePending(1);
    EXPECT_EQ(m_Stream.Pages(), "[] [4-7] [0-3]");
}

TEST_F(StreamResize, PageWith64FreeSlotsIsFilledBeforeANewOneIsMade)
{
    AppendPages({{512, 300}, {1024, 961}});
    m_Stream.ResizePending(1);
    EXPECT_EQ(m_Stream.Pages(), "[300-1260] [0-299]") << "63 are not enough";
    AppendPages({{1024, 960}, {512, 100}});
    m_Stream.ResizePending(1);
    EXPECT_EQ(m_Stream.Pages(), "[300-1260] [0-299 2285-2320] [1261-2284]") << "from the last to the first";
}

TEST_F(StreamResize, WithoutMemoryTheRestOfThePageInHandIsLost)
{
    AppendPages({{512, 300}, {512, 300}, {1024, 924}});
    m_Runtime.Allocator().SetMemoryBudget(1);
    m_Stream.ResizePending(100);
    m_Reports.Expect({"newPage != null"});
    EXPECT_EQ(m_Stream.Pages(), "[300-599] [600-1523 0-99]");
    EXPECT_EQ(m_Stream.ParticleCount(), 1324u) << "200 fewer than before";
    EXPECT_TRUE(m_Stream.HasPendingResizes());
}

TEST_F(PageCopy, AppendsARunOfParticles)
{
    CTestStream stream(100, m_Definition, {100, 3, 97});
    CParticlePage &source = *stream.Page(CGuid(0)), &few = *stream.Page(CGuid(1)), &nearlyFull = *stream.Page(CGuid(2));
    EXPECT_TRUE(CTestStream::CopySubRangeToPage(few, source, 5, 10));
    EXPECT_TRUE(CTestStream::CopyPageToPage(few, CParticlePageView(source, 90, 2)));
    EXPECT_EQ(CTestStream::TransferPageToPage(nearlyFull, CParticlePageView(source, 10, 50), 40), 43u) << "what fits";
    EXPECT_EQ(CTestStream::TransferPageToPage(nearlyFull, CParticlePageView(source, 10, 50), 43), 43u) << "nothing";
    EXPECT_EQ(stream.Pages(), "[0-99] [100-102 5-14 90-91] [103-199 50-52]") << "the source keeps its own";
    EXPECT_FALSE(CTestStream::CopySubRangeToPage(nearlyFull, source, 0, 1));
    EXPECT_EQ(m_Reports.Take().size(), 2u) << "no free slot";
    EXPECT_FALSE(CTestStream::CopySubRangeToPage(few, source, 99, 2)) << "beyond the source's capacity";
    EXPECT_EQ(few.ParticleCount(), 15u);
    stream.RegisterBornCount(15); // the stream knows nothing of them
}
