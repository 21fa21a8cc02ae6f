// Page sizes, and the making of pages: layout and every refusal.

#include <support/stream_fixture.h>

namespace Tessaly
{
namespace Tests
{
namespace
{

constexpr const char *kBytesText = "m_PageSizeInBytes != 0 || m_StreamDef->Empty()";

class PageSize : public CStreamTest
{
};

class NewPage : public CStreamTest
{
};

TEST_F(PageSize, BytesAreRoundedColumnByColumn)
{
    const auto bytes = [](u32 pageSize, const std::vector<u32> &storageSizes)
    {
        CDefinition definition;
        for (const u32 storageSize : storageSizes)
            definition.Stored(Life, BaseType_Float, storageSize);
        return CTestStream::_ComputePageSizeInBytes(pageSize, &definition.Def());
    };
    EXPECT_EQ(bytes(1024, {4, 12, 16}), 32768u);
    EXPECT_EQ(bytes(3, {4, 12, 16}), 112u);
    EXPECT_EQ(bytes(1, {4, 12, 16}), 48u);
    EXPECT_EQ(bytes(3, {4, 0, 4}), 32u);
    EXPECT_EQ(bytes(77, {}), 0u);
    EXPECT_EQ(bytes(0x10001, {0x10000}), 0x10000u) << "32-bit arithmetic";
    EXPECT_EQ(bytes(0x20000001, {8}), 16u);
    EXPECT_EQ(m_Reports.Count(), 0u);
    EXPECT_EQ(CTestStream::_ComputePageSizeInBytes(1, null), 0u);
    m_Reports.Expect({"streamDef != null"});
}

struct SClampCase
{
    u32 m_Requested;
    std::vector<u32> m_StorageSizes;
    u32 m_Capacity;
    u32 m_Bytes;
    std::vector<std::string> m_Reports;
};

TEST_F(PageSize, IsClampedToTheLargestBlock)
{
    const std::vector<std::string> tooLarge = {"m_PageSizeInBytes <= kMaxAllocSize"};
    const std::vector<std::string> zero = {"m_PageSizeInBytes != 0 || def->Empty()"};
    const std::vector<SClampCase> cases = {
        {1024, {4096}, 256, 1048576, {}},
        {100000, {12, 4}, 65536, 1048576, {}},
        {200000, {12}, 65536, 786432, {}},
        {5000, {64, 64, 64, 64}, 4096, 1048576, {}},
        {65536, {16}, 65536, 1048576, {}},
        {65537, {16}, 65536, 1048576, {}},
        {1, {4}, 1, 16, {}},
        // Bytes past 32 bits: a small remainder hides nothing, an exact 0 is stored.
        {0x10001, {0x10000}, 16, 1048576, {}},
        {0x20000001, {8}, 131072, 1048576, {}},
        {0x10000, {0x10000}, 0x10000, 0, zero},
        // One particle above the cap, by itself and by the rounding of its columns.
        {1024, {2097152}, 1, 2097152, tooLarge},
        {1024, std::vector<u32>(65600, 1), 8, 65600 * 16, tooLarge},
    };
    for (const SClampCase &row : cases)
    {
        CDefinition definition;
        for (const u32 storageSize : row.m_StorageSizes)
            definition.Stored(Life, BaseType_Float, storageSize);
        CTestStream stream(row.m_Requested, definition);
        m_Reports.Expect(row.m_Reports);
        EXPECT_EQ(stream.PageSize(), row.m_Capacity);
        EXPECT_EQ(CTestStream::_ComputePageSizeInBytes(stream.PageSize(), stream.GetStreamDef()), row.m_Bytes);
        const PParticlePage page = stream.AllocNewPage_NoLock(false);
        ASSERT_EQ(page != null, row.m_Bytes != 0) << "no page whose columns leave its block";
        EXPECT_TRUE(page == null || page->RawPage()->Size() >= row.m_Bytes);

        CTestStream later(64);
        definition.BindTo(later);
        m_Reports.Take();
        later.SetPageSize(row.m_Requested);
        EXPECT_EQ(later.PageSize(), row.m_Capacity);
        m_Reports.Take();
    }
}

TEST_F(PageSize, UnchangedDoesNothingAndClampedIsNotUnchanged)
{
    CDefinition definition;
    definition.Stored(Life, BaseType_Float, 4096);
    CTestStream stream(16, definition);
    stream.AppendPage(256, 3);
    stream.RegisterBornCount_NoConsistencyCheck(1);
    stream.SetPageSize(16);
    EXPECT_FALSE(stream.HasPendingResizes()) << "nothing is counted, nor checked";
    EXPECT_EQ(m_Reports.Count(), 0u);
    for (int i = 0; i < 2; ++i)
    {
        stream.SetPageSize(1024);
        m_Reports.Expect({kCountText, kCountText});
        EXPECT_EQ(stream.PageSize(), 256u);
        EXPECT_FALSE(stream.HasPendingResizes()) << "by the clamped size";
    }
    EXPECT_TRUE(stream._ClampPageSizeToAllocatorCapsIFN() == false);
    stream.RegisterDeadCount(1);
}

TEST_F(PageSize, PagesOfAnotherCapacityArePending)
{
    CTestStream stream(1024, m_Definition);
    stream.AppendPage(1024, 5);
    stream.AppendPage(1024, 0);
    FillParticles(stream, 0);
    const std::vector<const CParticlePage *> pages = stream.Pages();
    stream.SetPageSize(512);
    EXPECT_EQ(stream.PageSize(), 512u);
    EXPECT_TRUE(stream.HasPendingResizes());
    EXPECT_EQ(stream.Pages(), pages);
    EXPECT_TRUE(HoldsRun(*pages[0], 0, 5));
    stream.SetPageSize(1024);
    EXPECT_FALSE(stream.HasPendingResizes());
    // An empty page counts here, and not there.
    CTestStream empty(10, m_Definition);
    empty.AppendPage(10, 0);
    empty.SetPageSize(20);
    EXPECT_TRUE(empty.HasPendingResizes());
    empty.ComputePendingResizes_NoLock();
    EXPECT_FALSE(empty.HasPendingResizes());
}

TEST_F(PageSize, ZeroTakesTheDefault)
{
    CTestStream stream(10);
    stream.SetPageSize(0);
    EXPECT_EQ(stream.PageSize(), 1024u);
    EXPECT_EQ(m_Reports.Count(), 0u);
    m_Definition.BindTo(stream);
    stream.SetPageSize(10);
    stream.SetPageSize(0);
    m_Reports.Expect({kBytesText});
    EXPECT_EQ(stream.PageSize(), 1024u);
    EXPECT_EQ(stream.AllocateParticlesIFP(2000, 0).ParticleCount(), 1024u);
    CDefinition empty;
    CTestStream ofNothing(10, empty);
    ofNothing.SetPageSize(0);
    EXPECT_EQ(ofNothing.PageSize(), 1024u);
}

TEST_F(NewPage, LaysColumnsOutBackToBackAndFresh)
{
    CTestStream stream(10, m_Definition);
    for (const u32 capacity : {1000u, 1001u, 3u, 1u})
    {
        const u32 bytes = stream._ComputePageSizeInBytes(capacity, stream.GetStreamDef());
        const PParticlePage page = stream.AllocNewPage_NoLock(capacity, bytes, false);
        const TMemoryView<const SParticleStreamField> fields = page->Streams();
        const u8 *data = page->RawPage()->RawDataForWriting();
        const auto rounded = [](u32 byteCount) { return (byteCount + 15) / 16 * 16; };
        ASSERT_EQ(fields.Count(), 4u);
        EXPECT_EQ(fields[0].m_RawDataPtr - data, 0);
        EXPECT_EQ(fields[1].m_RawDataPtr - data, rounded(12 * capacity));
        EXPECT_EQ(fields[3].m_RawDataPtr - data, rounded(12 * capacity) + rounded(4 * capacity));
        for (u32 i = 0; i < bytes; ++i)
            ASSERT_EQ(data[i], 0xF3) << i;
        for (u32 i = 0; i < 4; ++i)
        {
            EXPECT_EQ(fields[i].m_ParticleCount, 0u);
            EXPECT_EQ(fields[i].m_Definition, m_Definition.Def().m_StreamDef[i]);
        }
        EXPECT_EQ(fields[2].m_RawDataPtr, reinterpret_cast<const u8 *>(m_Definition.ConstantData().Data()));
        EXPECT_EQ(page->ParentStream(), &stream);
        EXPECT_EQ(page->StrongRefCount(), 1u);
        EXPECT_EQ(page->RawPage()->StrongRefCount(), 1u);
    }
    EXPECT_EQ(stream.PageCount(), 0u);
    const PParticlePage listed = stream.AllocNewPage_NoLock(true);
    EXPECT_EQ(listed->StrongRefCount(), 2u);
    EXPECT_EQ(stream.Page(CGuid(0)), listed);
    EXPECT_FALSE(stream.HasPendingResizes());
}

TEST_F(NewPage, ConstantsPointAtTheirBlocksOrNowhere)
{
    CDefinition definition;
    definition.Constant(1, BaseType_Float, 1.0f).Constant(2, BaseType_Float, 2.0f);
    definition.ConstantAt(3, BaseType_Float, CGuid(1)).ConstantAt(4, BaseType_Float, CGuid::INVALID);
    CTestStream stream(10, definition);
    m_Reports.Expect({"m_PageSizeInBytes != 0 || def->Empty()"});
    PParticlePage page = stream.AllocNewPage_NoLock(false);
    const u8 *blocks = reinterpret_cast<const u8 *>(definition.ConstantData().Data());
    const u8 *expected[] = {blocks, blocks + 64, blocks + 64, null};
    for (u32 i = 0; i < 4; ++i)
        EXPECT_EQ(page->Streams()[i].m_RawDataPtr, expected[i]);

    CDefinition outOfRange;
    outOfRange.Constant(1, BaseType_Float, 1.0f).ConstantAt(2, BaseType_Float, CGuid(1)).Stored(3, BaseType_Float);
    outOfRange.BindTo(stream);
    page = stream.AllocNewPage_NoLock(false);
    m_Reports.Expect({"cstId < m_ConstantData.Count()"});
    EXPECT_EQ(page->Streams()[1].m_RawDataPtr, nullptr);
    EXPECT_EQ(page->Streams()[2].m_RawDataPtr, page->RawPage()->RawDataForWriting());
}

TEST_F(NewPage, EveryRefusalGivesNullAndLosesNothing)
{
    using Texts = std::vector<std::string>;
    // In the order in which memory is asked for: page, its fields, the list. Its raw page waits for reuse.
    const std::vector<Texts> reports = {{},
                                        {"false", "page->m_Streams_Unsafe.Reserve(streamDef.Count())"},
                                        {"false", "m_Pages.PushBack(page).Valid()"}};
    CTestStream stream(10, m_Definition);
    stream.AllocNewPage_NoLock(false);
    const u32 blockCount = m_Memory.LiveBlockCount();
    for (u32 n = 1; n <= reports.size(); ++n)
    {
        m_Memory.RefuseAt(n);
        EXPECT_TRUE(stream.AllocNewPage_NoLock(true) == null);
        m_Reports.Expect(reports[n - 1]);
        EXPECT_EQ(stream.PageCount(), 0u);
        EXPECT_EQ(m_Memory.LiveBlockCount(), blockCount);
        EXPECT_EQ(m_Memory.RequestCount(), n);
    }
    m_Memory.RefuseNone();
    m_Runtime.RefusePages();
    EXPECT_TRUE(stream.AllocNewPage_NoLock(true) == null);
    EXPECT_EQ(m_Memory.RequestCount(), 0u) << "no page object without its block";
    m_Runtime.AllowPages();
    EXPECT_TRUE(stream.AllocNewPage_NoLock(true) != null);
}

} // namespace
} // namespace Tests
} // namespace Tessaly
