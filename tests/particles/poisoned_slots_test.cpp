// Under the address sanitizer: free slots are poisoned when the host asks for it; nothing else ever is.
#include <support/stream_fixture.h>
#include <tz_kernel/include/kr_address_sanitizer.h>

#if TZ_ADDRESS_SANITIZER

using namespace Tessaly;
using namespace Tessaly::Tests;

class PoisonedSlots : public CStreamTest
{
protected:
    PoisonedSlots() { Particles::SetPoisonFreeSlots(true); }
    ~PoisonedSlots() override { Particles::SetPoisonFreeSlots(false); }

    CTestStream m_Stream{11, m_Definition};
};

// The first count rows are accessible from their first to their last byte, and no other.
static void ExpectAccessibleRows(const CParticlePage &page, u32 count)
{
    for (const SParticleStreamField &field : page.Streams())
    {
        const size_t size = field.m_Definition.m_StorageSize;
        for (u32 row = 0; row < page.Capacity(); ++row)
            EXPECT_EQ(__asan_region_is_poisoned(field.m_RawDataPtr + size * row, size) == null,
                      field.IsConstant() || row < count);
    }
}

using PoisonedSlotsDeathTest = PoisonedSlots;

TEST_F(PoisonedSlotsDeathTest, StaleViewIsCaught)
{
    CParticlePageView view = m_Stream.AllocateParticlesIFP(9, 0);
    const TMemoryView<float> lives = view.DenseColumnForWriting<float>(CGuid(1));
    m_Stream.RemoveParticles(CGuid(0), std::vector<u32>{0, 1, 2, 3});
    lives[4] = 1.0f;
    EXPECT_DEATH(lives[5] = 1.0f, "use-after-poison");
    const u8 *block = m_Stream.Page(CGuid(0))->RawPage()->BeginRead();
    m_Stream.Page(CGuid(0))->RawPage()->EndRead();
    EXPECT_EQ(lives[8], lives[8]) << "a reader may read the whole block";
    view.Clear();
    m_Stream.Cleanup();
    EXPECT_DEATH(EXPECT_EQ(block[0], 0), "use-after-poison") << "the page is gone, its block is free";
}

TEST_F(PoisonedSlots, AreAccessibleUnlessTheHostWantsThemPoisoned)
{
    Particles::SetPoisonFreeSlots(false);
    CParticlePage &page = m_Stream.AppendPage(11, 7);
    const auto firstPoisoned = [&]
    { return __asan_region_is_poisoned(page.Stream(CGuid(0)).m_RawDataPtr, page.RawPage()->Size()); };
    EXPECT_EQ(firstPoisoned(), nullptr);
    EXPECT_EQ(page.Stream(CGuid(0)).m_RawDataPtr[12 * 9], kFreshParticleByte);
    Particles::SetPoisonFreeSlots(true);
    EXPECT_EQ(firstPoisoned(), nullptr) << "from the next change of the count on";
    page.AllocateParticles(1);
    ExpectAccessibleRows(page, 8);
    Particles::SetPoisonFreeSlots(false);
    page.AllocateParticles(1);
    EXPECT_EQ(firstPoisoned(), nullptr);
    m_Stream.RegisterBornCount(2);
}

TEST_F(PoisonedSlots, FollowTheCountThroughEveryOperation)
{
    CParticlePage &page = m_Stream.AppendPage(11, 6);
    ExpectAccessibleRows(page, 6);
    const TMemoryView<SParticleStreamField> fields = page.StreamsForWriting();
    fields.Data()[0].Swap(fields.Data()[3]);
    page.AllocateParticles(1);
    m_Stream.RegisterBornCount(1);
    ExpectAccessibleRows(page, 7);
    fields.Data()[0].Swap(fields.Data()[3]);
    m_Stream.RemoveParticles(CGuid(0), std::vector<u32>{1, 2});
    ExpectAccessibleRows(page, 5);
    ASSERT_TRUE(CTestStream::CopySubRangeToPage(m_Stream.AppendPage(22, 0), page, 2, 9));
    ExpectAccessibleRows(*m_Stream.Page(CGuid(1)), 9);
    m_Stream.RegisterBornCount(9);
    CTestStream copy(5);
    copy.DeepCopy(m_Stream);
    ExpectAccessibleRows(*copy.Page(CGuid(0)), 5);
    m_Stream.ComputePendingResizes_NoLock();
    m_Stream.ResizePending(1);
    ASSERT_EQ(m_Stream.Page(CGuid(1))->ParticleCount(), 9u);
    ExpectAccessibleRows(*m_Stream.Page(CGuid(1)), 9);
    CDefinition other;
    other.Stored(Life, BaseType_I32).Stored(Extra, BaseType_UByte3);
    other.BindTo(m_Stream);
    ExpectAccessibleRows(*m_Stream.Page(CGuid(0)), 5);
}

#endif
