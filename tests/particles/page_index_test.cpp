// Long page lists: what the index answers is what a walk over the list would.

#include <random>

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

class LongPageList : public CStreamTest
{
protected:
    // The page that a walk finds for minCount particles; the list's length when there is none.
    static u32 WalkToRoom(const CParticleStream_MainMemory &stream, u32 minCount)
    {
        u32 i = 0;
        while (i < stream.PageCount() && stream.Page(CGuid(i))->FreeCount() < minCount)
            ++i;
        return i;
    }

    static void ExpectFirstFit(CTestStream &stream, u32 count)
    {
        const u32 expected = WalkToRoom(stream, count);
        const CParticlePageView view = stream.AllocateParticlesIFP(count, 0);
        ASSERT_FALSE(view.OriginalPage() == null);
        EXPECT_EQ(view.OriginalPage().Get(), stream.Page(CGuid(expected)).Get()) << "for " << count;
    }
};

TEST_F(LongPageList, IsAnsweredAsAWalkWouldAfterEveryOperation)
{
    constexpr u32 kSeed = 20171020;
    std::mt19937 random(kSeed);
    CTestStream stream(8, m_Definition);
    CTestStream other(8, m_Definition);
    PParticlePage outside; // held after it has left the list
    for (u32 step = 0; step < 4000; ++step)
    {
        const u32 pageCount = stream.PageCount();
        const CGuid pageId(pageCount != 0 ? u32(random()) % pageCount : 0);
        const u32 first = 0;
        switch (random() % 16)
        {
        case 0:
            if (pageCount != 0 && !stream.Page(pageId)->Empty())
                stream.RemoveParticles(pageId, TMemoryView<const u32>(&first, 1));
            break;
        case 1:
            if (pageCount != 0)
            {
                outside = stream.Page(pageId);
                const u32 count = outside->ParticleCount();
                outside->Clear();
                stream.RegisterDeadCount(count);
            }
            break;
        case 2:
            if (step % 5 == 0)
                stream.GarbageCollectOldPages(null);
            if (outside != null)
                outside->AllocateParticles(outside->StrongRefCount() == 1 ? 1 : 0);
            break;
        case 3:
            if (step % 50 == 0)
            {
                stream.SetPageSize(stream.PageSize() == 8 ? 70 : 8);
                stream.ResizePending(5);
            }
            break;
        case 4:
            if (step % 40 == 0)
                stream.Swap(other);
            else if (step % 41 == 0)
                other.DeepCopy(stream);
            break;
        default:
            ExpectFirstFit(stream, u32(random()) % 9);
            break;
        }
        ASSERT_EQ(m_Reports.Count(), 0u) << "step " << step << ", seed " << kSeed;
    }
    EXPECT_GT(stream.PageCount() + other.PageCount(), 2 * CPageListIndex::kMinPageCount) << "long lists were tried";
}

TEST_F(LongPageList, IsWalkedWhenTheIndexGetsNoMemory)
{
    CTestStream stream(4, m_Definition);
    for (u32 i = 0; i < 3 * CPageListIndex::kMinPageCount; ++i)
        stream.AppendPage(4, 4);
    m_Memory.RefuseFrom(1);
    stream.RemoveParticles(CGuid(70), TMemoryView<const u32>());
    EXPECT_TRUE(stream.AllocateParticlesIFP(1, 0).Empty());
    m_Memory.RefuseNone();
    ExpectFirstFit(stream, 1);
    stream.Cleanup();
}

} // namespace
} // namespace Tests
} // namespace Tessaly
