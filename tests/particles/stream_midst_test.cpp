// What the handler of a report or a memory service sees of a stream during an operation: the page list and the rows as
// each step leaves them. Which operations ask for memory. The page list and its index.
#include <support/stream_fixture.h>

using namespace Tessaly;
using namespace Tessaly::Tests;

using Looks = std::vector<std::string>;

class StreamMidst : public CStreamTest
{
protected:
    // Appends pages with so many particles, whose rows say which page they are of: A, B, C ...
    void AppendPages(CTestStream &stream, u32 capacity, const std::vector<u32> &counts)
    {
        for (const u32 count : counts)
        {
            const CParticlePage &page = stream.AppendPage(capacity, count);
            for (const SParticleStreamField &field : page.Streams())
            {
                if (!field.IsConstant())
                    std::memset(field.m_RawDataPtr, m_NextName, size_t(field.m_Definition.m_StorageSize) * count);
            }
            ++m_NextName;
        }
    }

    // The capacities of the pages in list order, and of which pages the rows of their fields are: ? where a field
    // differs from the one before, or a free slot was used.
    static std::string Look(const CTestStream &stream)
    {
        std::string text;
        for (u32 i = 0; i < stream.PageCount(); ++i)
        {
            const CParticlePage *page = stream._UnsafePage(CGuid(i)).Get();
            if (page == null)
                return text + "null";
            text += std::to_string(page->Capacity()) + ":";
            std::string rows; // of the fields so far
            for (const SParticleStreamField &field : page->Streams())
            {
                std::string ofField;
                for (u32 row = 0; !field.IsConstant() && row < page->Capacity(); ++row)
                {
                    const char byte = char(field.m_RawDataPtr[row * field.m_Definition.m_StorageSize]);
                    const char name = row < page->ParticleCount() ? byte : byte == char(kFreshParticleByte) ? 0 : '?';
                    if (name != 0 && (ofField.empty() || ofField.back() != name))
                        ofField += name;
                }
                if (!field.IsConstant())
                    rows = rows.empty() || rows == ofField ? ofField : "?";
            }
            text += rows + " ";
        }
        return text;
    }

    // What is seen under the lock at each call of a memory service, and at each report (behind a !), the same but once.
    Looks LooksDuring(const CTestStream &stream, const std::function<void()> &operation)
    {
        Looks looks;
        const auto look = [&](const char *where)
        {
            const std::string text = where + Look(stream);
            if (stream.LockedByCurrentThread() && (looks.empty() || looks.back() != text))
                looks.push_back(text);
        };
        m_Memory.AtEachCall([&](const SMemoryCall &) { look(""); });
        m_Reports.AtEachReport([&](const Assert::SReport &) { look("!"); });
        operation();
        m_Memory.AtEachCall({});
        m_Reports.AtEachReport({});
        return looks;
    }

    u8 m_NextName = 'A';
    CTestStream m_Stream{8, m_Definition};
};

TEST_F(StreamMidst, ResizingFillsAPageBeforeItDropsTheOldOnes)
{
    AppendPages(m_Stream, 4, {4, 4, 0, 4, 3});
    m_Stream.SetPageSize(8);
    m_Stream.SetPageSize(7);
    m_Stream.SetPageSize(8);
    EXPECT_EQ(LooksDuring(m_Stream, [&] { m_Stream.ResizePending(10); }),
              (Looks{"4:A 4:B 4: 4:D 4:E ", "4: 4:D 4:E 8:AB ", "8:AB 8:DE "}));
    AppendPages(m_Stream, 100, {30, 90});
    m_Stream.SetPageSize(100);
    const CScopedRawPageReader reader(m_Stream.Page(CGuid(2))->RawPage());
    EXPECT_EQ(LooksDuring(m_Stream, [&] { m_Stream.ResizePending(1); }),
              (Looks{"!8:DE 100:F 100:G ", "8:DE 100:F 100:G ", "8:DE 100:F 100:G 100:AB "}));
    EXPECT_EQ(m_Reports.Take().size(), 3u);
}

// A reader comes when the first of many empty pages is dropped, before any particle is copied into the new page.
TEST_F(StreamMidst, PageMadeForAResizeMayHaveReaders)
{
    AppendPages(m_Stream, 4, std::vector<u32>(17));
    AppendPages(m_Stream, 4, {4, 3});
    m_Stream.SetPageSize(100);
    PParticleRawPage_MainMemory read;
    m_Memory.AtEachCall(
        [&](const SMemoryCall &call)
        {
            const PParticlePage &last = m_Stream._UnsafePage(CGuid(m_Stream.PageCount() - 1));
            if (call.m_Kind == SMemoryCall::Free && read == null && last->Capacity() == 100)
                (read = last->RawPage())->BeginRead();
        });
    m_Stream.ResizePending(10);
    m_Memory.AtEachCall({});
    EXPECT_EQ(Look(m_Stream), "4:S 100: 4:R ") << "nothing was copied, and nothing is lost";
    EXPECT_EQ(m_Reports.Take().size(), 3u);
    EXPECT_TRUE(m_Stream.ParticleCount() == 7 && m_Stream.HasPendingResizes());
    read->EndRead();
    m_Stream.ResizePending(10);
    EXPECT_EQ(Look(m_Stream), "100:SR ");
    EXPECT_FALSE(m_Stream.HasPendingResizes());
}

// The second page of a resize has a reader since its raw page was made: the memory service gave its address.
TEST_F(StreamMidst, RestOfAPageThatCannotBeCopiedGoesBackToTheList)
{
    CTestStream stream(8, m_Definition, {8}), lost(8, m_Definition, {8});
    for (CTestStream *each : {&stream, &lost})
    {
        each->SetPageSize(5);
        // With a reader of its own, the old page keeps its first rows: then the rest is lost.
        const CScopedRawPageReader reader(each == &lost ? each->Page(CGuid(0))->RawPage() : null);
        PParticleRawPage_MainMemory read;
        u32 pageCount = 0;
        m_Memory.AtEachCall(
            [&](const SMemoryCall &call)
            {
                const bool isPage = call.m_Kind == SMemoryCall::Alloc && call.m_Size == sizeof(CParticlePage);
                if (isPage && call.m_Origin == u32(Mem::Origin_New) && ++pageCount == 2)
                    (read = static_cast<CParticleRawPage_MainMemory *>(m_Memory.LastServed()))->BeginRead();
            });
        each->ResizePending(10);
        m_Memory.AtEachCall({});
        EXPECT_EQ(each->Pages(), each == &lost ? "[0-4] []" : "[0-4] [] [5-7]");
        EXPECT_EQ(each->ParticleCount(), each == &lost ? 5u : 8u);
        EXPECT_EQ(m_Reports.Take().size(), 4u) << "the page is laid out, and its first copy, in three places";
        read->EndRead();
    }
    EXPECT_TRUE(stream.HasPendingResizes() && !lost.HasPendingResizes());
    stream.ResizePending(10);
    EXPECT_EQ(stream.Pages(), "[0-4] [] [5-7]");
    EXPECT_EQ(stream.Capacities(), (std::vector<u32>{5, 5, 5}));
}

TEST_F(StreamMidst, RowsThatSwappedFieldsDoNotFillHoldFreshBytes)
{
    const u32 columnsBytes = CTestStream::_ComputePageSizeInBytes(100, m_Stream.GetStreamDef());
    // Leaves a free block whose columns hold 0xEE, for the next page of 100 particles.
    const auto releaseDirtyBlock = [&]
    {
        std::memset(CTestStream(100, m_Definition, {0}).Page(CGuid(0))->RawPage()->RawDataForWriting(), 0xEE,
                    columnsBytes);
    };
    const auto countDirtyBytes = [&](const CTestStream &stream)
    {
        const CScopedRawPageReader reader(stream.Page(CGuid(0))->RawPage());
        return std::count(reader.Data(), reader.Data() + columnsBytes, 0xEE);
    };
    CTestStream stream(64, m_Definition, {64}), copy(0);
    const auto swapFields = [&]
    {
        const TMemoryView<SParticleStreamField> fields = stream.Page(CGuid(0))->StreamsForWriting();
        fields[0].Swap(fields[1]);
    };
    swapFields();
    stream.SetPageSize(100);
    releaseDirtyBlock();
    stream.ResizePending(1);
    m_Reports.Expect(
        {"srcField.m_Definition == dstField.m_Definition", "srcField.m_Definition == dstField.m_Definition"});
    EXPECT_EQ(countDirtyBytes(stream), 0);
    swapFields();
    releaseDirtyBlock();
    copy.DeepCopy(stream);
    EXPECT_EQ(countDirtyBytes(copy), 0);
}

TEST_F(StreamMidst, DeepCopyFillsAPageBeforeItMakesTheNext)
{
    AppendPages(m_Stream, 8, {5, 0, 7});
    CTestStream copy(0);
    EXPECT_EQ(LooksDuring(copy, [&] { copy.DeepCopy(m_Stream); }), (Looks{"", "8:A "}));
    EXPECT_EQ(Look(copy), "8:A 8:C ");
}

TEST_F(StreamMidst, RebindingReportsWithTheFieldsBeforeWritten)
{
    CDefinition bad;
    bad.Constant(Extra, BaseType_Float, 1.0f).Stored(Tag, BaseType_UByte3);
    bad.ConstantAt(Position, BaseType_Float3, CGuid(1)).Stored(Life, BaseType_Float); // there is one constant
    AppendPages(m_Stream, 8, {5, 0, 7});
    std::string rows; // of two stored fields, in the old definition as well
    m_Reports.AtEachReport(
        [&](const Assert::SReport &)
        {
            for (const u32 field : {1u, 3u})
                rows += char(*m_Stream.Page(CGuid(0))->Stream(CGuid(field)).m_RawDataPtr);
        });
    bad.BindTo(m_Stream);
    EXPECT_EQ(m_Reports.Take().size(), 4u) << "while each page is made, and after";
    EXPECT_EQ(rows, "AAA\xF3"
                    "AAAA");
    EXPECT_EQ(Look(m_Stream), "8:A 8:C ");
}

TEST_F(StreamMidst, RebindingReportsATypeOfTheOldFieldWithAllRowsFilled)
{
    CDefinition bad, old, other;
    bad.Stored(Extra, __MaxBaseTypes, 4);
    old.Stored(Extra, BaseType_I32, 4);
    other.Stored(Extra, BaseType_Float).Stored(Position, BaseType_Float3);
    for (const CDefinition *each : {&bad, &old})
    {
        CTestStream stream(8, *each, {8});
        if (each == &old) // then the page alone has the bad type
            stream.Page(CGuid(0))->StreamsForWriting()[0].m_Definition.m_Type = __MaxBaseTypes;
        // The new page reuses this block.
        std::memset(CTestStream(8, other, {8}).Page(CGuid(0))->RawPage()->RawDataForWriting(), 'L', 128);
        std::string rows;
        m_Reports.AtEachReport([&](const Assert::SReport &)
                               { rows += char(stream.Page(CGuid(0))->Stream(CGuid(1)).m_RawDataPtr[0]); });
        other.BindTo(stream);
        m_Reports.AtEachReport({});
        EXPECT_EQ(m_Reports.Take().size(), 2u);
        EXPECT_EQ(rows, "\xF3\xF3");
    }
}

TEST_F(StreamMidst, CollectionAndClearRemoveOnePageAtATime)
{
    AppendPages(m_Stream, 8, {0, 5, 0, 0, 3});
    EXPECT_EQ(LooksDuring(m_Stream, [&] { m_Stream.GarbageCollectOldPages(null); }),
              (Looks{"8:E 8:B 8: 8: ", "8:E 8:B 8: ", "8:E 8:B "}));
    EXPECT_EQ(LooksDuring(m_Stream, [&] { m_Stream.Clear(); }), (Looks{"8:? ", ""}));
}

TEST_F(StreamMidst, OperationsThatMakeNoPageAskForNoMemory)
{
    for (const u32 pageCount : {40u, 200u})
    {
        CTestStream stream(16, m_Definition), other(16, m_Definition);
        for (u32 i = 0; i < pageCount; ++i)
            stream.AppendPage(16, i % 16);
        m_Memory.RefuseNone();
        for (u32 round = 0; round < 2; ++round)
        {
            EXPECT_EQ(stream.AllocateParticlesIFP(1, 0).FirstParticle(), round);
            stream.StreamId(CStringId(Life));
            stream.RemoveParticles(CGuid(1), std::vector<u32>{0});
            stream.RegisterBornCount(0);
            stream.Swap(other);
            other.StreamId(CStringId(Life));
            other.Swap(stream);
            stream.SetPageSize(20 + round);
            stream.ResizePending(0);
            stream.GarbageCollectOldPages(null);
            stream.ComputeStats();
        }
        stream.Clear();
        EXPECT_EQ(m_Memory.RequestCount(), 0u) << pageCount;
    }
}

TEST_F(StreamMidst, WithoutMemoryForTheIndexTheListIsWalked)
{
    u32 requestCount = 0;
    bool isRefused = true;
    m_Memory.RefuseIf(
        [&](const SMemoryCall &call)
        {
            const bool isOfIndex = call.m_Function.find("CPageListIndex") != std::string::npos;
            requestCount += isOfIndex ? 1 : 0;
            return isOfIndex && isRefused;
        });
    constexpr u32 kWalkedCount = CPageListIndex::kMaxWalkedPageCount;
    for (u32 i = 0; i < 2 * kWalkedCount; ++i)
        m_Stream.AppendPage(8, i == 222 ? 1 : 8);
    EXPECT_GE(requestCount, kWalkedCount) << "each page made asks again";
    EXPECT_EQ(m_Stream.AllocateParticlesIFP(7, 0).OriginalPage(), m_Stream.Page(CGuid(222)));
    isRefused = false;
    requestCount = 0;
    m_Stream.AppendPage(8, 2);
    m_Stream.AppendPage(8, 8);
    EXPECT_EQ(requestCount, 1u);
    EXPECT_EQ(m_Stream.AllocateParticlesIFP(6, 0).FirstParticle(), 2u);
    EXPECT_EQ(LooksDuring(m_Stream, [&] { m_Stream.Cleanup(); }), Looks()) << "memory is freed outside the lock";
}

TEST_F(StreamMidst, PageIndexForgetsPagesThatLeaveTheStream)
{
    const std::vector<u32> counts(2 * CPageListIndex::kMaxWalkedPageCount, 3);
    CTestStream stream(8, m_Definition, counts), other(8, m_Definition, counts);
    stream._RecomputeParticleCount();
    other._RecomputeParticleCount(); // both have an index
    stream.Swap(other);              // and each builds its own again
    other.Page(CGuid(1))->AllocateParticles(1);
    stream._RecomputeParticleCount();
    other.RegisterBornCount(1);
    const PParticlePage page = stream.Page(CGuid(2));
    stream.Swap(other);
    other._RecomputeParticleCount();
    other.Clear();
    const u32 particleCount = stream.ParticleCount();
    page->AllocateParticles(1);
    EXPECT_EQ(page->ParticleCount(), 1u);
    EXPECT_EQ(stream._RecomputeParticleCount(), particleCount);
}

TEST_F(StreamMidst, PageListKeepsItsCapacity)
{
    CPageList list;
    for (u32 i = 0; i < 9; ++i)
        list.PushBack(PParticlePage(Mem::New<CParticlePage>(TZ_CALL_SITE, &m_Stream, i)));
    const u32 capacity = list.Capacity();
    for (u32 i = 0; i < 9; ++i)
        EXPECT_EQ(list.Take_KeepOrder(0)->Capacity(), i);
    list.MoveToBufferStart();
    EXPECT_EQ(list.Capacity(), capacity);
}
