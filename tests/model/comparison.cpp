// What is compared after each operation, and what the model takes over from the library when memory was refused.
#include <algorithm>
#include <cstring>

#include "interpreter.h"

namespace Tessaly::Model
{

static std::string Join(const std::vector<std::string> &texts)
{
    std::string all;
    for (const std::string &text : texts)
        all += "\n    " + text;
    return all.empty() ? " none" : all;
}

static void CompareReports(SState &state)
{
    std::vector<std::string> real;
    for (const Tests::SSeenReport &report : state.m_Reports.Take())
        real.push_back(report.m_Text);
    if (!state.m_Refusal.WasMemoryRefused())
        state.CheckEqual("reports", Join(real), Join(state.m_World.m_Reports));
    state.m_World.m_Reports.clear();
}

static void CompareColumn(SState &state, const SNaiveColumn &column, u32 index, const u8 *real)
{
    if (std::memcmp(real, column.m_Bytes.data(), column.m_Bytes.size()) == 0)
        return;
    const auto [expected, seen] = std::mismatch(column.m_Bytes.begin(), column.m_Bytes.end(), real);
    const u64 byte = u64(expected - column.m_Bytes.begin()), size = column.m_Field.m_StorageSize;
    const std::string where = "column " + std::to_string(index) + ", row " + std::to_string(byte / size) + ", byte " +
                              std::to_string(byte % size);
    state.CheckEqual(where.c_str(), *seen, *expected);
}

static void ComparePage(SState &state, CNaivePage &naive, const CParticlePage &real)
{
    naive.m_Real = naive.m_Real != null ? naive.m_Real : &real;
    state.CheckEqual("the page object at its place", naive.m_Real == &real, true);
    state.CheckEqual("capacity", real.Capacity(), naive.m_Capacity);
    state.CheckEqual("particles in a page", real.ParticleCount(), naive.m_Count);
    state.CheckEqual("fields in a page", real.StreamsCount(), naive.m_Columns.size());
    state.CheckEqual("parent", real.ParentStream() == naive.m_Parent, true);
    state.CheckEqual("readers", real.RawPage()->ReadersCount(), naive.m_ReaderCount);
    state.CheckEqual("readiness to be written", real.ReadyToWrite(), naive.IsWritable());
    state.CheckEqual("block size", real.RawPage()->Size(), naive.m_BlockBytes);
    if (!state.m_Difference.empty())
        return;
    const u8 *block = real.RawPage()->BeginRead();
    real.RawPage()->EndRead();
    state.CheckEqual("alignment of a block", ureg(block) % 64, 0);
    u64 offset = 0;
    for (u32 i = 0; i < naive.m_Columns.size() && state.m_Difference.empty(); ++i)
    {
        const SParticleStreamField &field = real.Stream(CGuid(i));
        const SNaiveColumn &column = naive.m_Columns[i];
        const bool isStored = column.m_Field.m_StorageSize != 0;
        state.CheckEqual("place of a column", field.m_RawDataPtr == (isStored ? block + offset : column.m_Constant),
                         true);
        state.CheckEqual("field record", field.m_Definition == column.m_Field, true);
        state.CheckEqual("particles of a field", field.m_ParticleCount, naive.m_Count);
        if (isStored && state.m_Difference.empty())
            CompareColumn(state, column, i, field.m_RawDataPtr);
        offset += column.m_Bytes.size();
    }
}

static void CompareStream(SState &state, const SStreamPair &stream)
{
    const CParticleStream_MainMemory &real = *stream.m_Real;
    const CNaiveStream &naive = *stream.m_Naive;
    const PNaiveDefinition &definition = naive.m_Definition;
    state.CheckEqual("particle count", real.ParticleCount(), naive.m_Count);
    state.CheckEqual("emptiness", real.Empty(), naive.m_Count == 0);
    state.CheckEqual("page size", real.PageSize(), naive.m_PageSize);
    state.CheckEqual("pending resizes", real.HasPendingResizes(), naive.m_OutOfSync != 0);
    state.CheckEqual("a held lock", real.LockedByCurrentThread(), false);
    state.CheckEqual("the definition", real.GetStreamDef() == (definition != null ? &definition->m_Def : null), true);
    state.CheckEqual("field count", real.StreamsCount(), definition != null ? definition->m_Fields.size() : 0);
    const SStridedMemoryViewRawStorage slots = real.ConstantDataFieldSlot().m_Storage,
                                       expected = naive.m_Constants->Slots().m_Storage;
    state.CheckEqual("constants", real.ConstantData().Count(), naive.m_Constants->m_Constants.size());
    state.CheckEqual("slots", slots.m_Count, expected.m_Count);
    state.CheckEqual("the slot table",
                     slots.m_RawDataPtr == expected.m_RawDataPtr && slots.m_Stride == expected.m_Stride, true);
    state.CheckEqual("page count", real.PageCount(), naive.m_Pages.size());
    for (u32 i = 0; i < naive.m_Pages.size() && state.m_Difference.empty(); ++i)
        ComparePage(state, *naive.m_Pages[i], *real._UnsafePage(CGuid(i)));
}

void Compare(SState &state)
{
    CompareReports(state);
    for (const SStreamPair &stream : state.m_Streams)
        CompareStream(state, stream);
    for (const std::vector<SViewPair> *views : {&state.m_Views, &state.m_Readers})
    {
        for (const SViewPair &view : *views)
            ComparePage(state, *view.m_Naive.m_Page, *view.m_Real.OriginalPage());
    }
    state.CheckEqual("block bytes in use", state.m_Runtime.Allocator().TotalMemoryAllocated(),
                     state.m_World.m_BlockBytes);
    state.CheckEqual("both sides have asked for as many blocks", state.m_Refusal.RequestsAgree(), true);
    for (const Tests::SSeenReport &report : state.m_Reports.Take())
        state.CheckEqual(("reports while comparing, as " + report.m_Text).c_str(), 1, 0);
}

// Whether a page of the library is what the model has, as far as its particles go.
static bool IsPredicted(CNaivePage &naive, const CParticlePage &real)
{
    bool isSame = naive.m_Capacity == real.Capacity() && naive.m_Count == real.ParticleCount() &&
                  naive.m_Columns.size() == real.StreamsCount();
    for (u32 i = 0; isSame && i < naive.m_Columns.size(); ++i)
        isSame = std::equal(naive.Row(i, 0), naive.Row(i, naive.m_Count), real.Stream(CGuid(i)).m_RawDataPtr);
    return isSame;
}

// The model's page for one of the library, made when it has none yet.
static PNaivePage NaivePageOf(SNaiveWorld &world, const CNaiveStream &naive, const CParticlePage &real)
{
    for (CNaivePage *page : world.m_Pages)
    {
        if (page->m_Real == &real)
            return page->shared_from_this();
    }
    PNaivePage page = std::make_shared<CNaivePage>(world, real.Capacity(), real.RawPage()->Size());
    page->m_Parent = naive.m_Real;
    page->m_Constants = naive.m_Constants;
    for (u32 i = 0; i < real.StreamsCount(); ++i)
        page->AddColumn(naive.m_Definition->m_Fields[i], real.Stream(CGuid(i)).m_RawDataPtr);
    return page;
}

void FollowIfRefused(SState &state, SStreamPair &stream, bool isPredicted)
{
    if (!state.m_Refusal.WasMemoryRefused())
        return;
    CNaiveStream &naive = *stream.m_Naive;
    std::vector<PNaivePage> pages;
    for (u32 i = 0; i < stream.m_Real->PageCount(); ++i)
    {
        const CParticlePage &real = *stream.m_Real->_UnsafePage(CGuid(i));
        const bool isKnown = std::any_of(naive.m_Pages.begin(), naive.m_Pages.end(),
                                         [&](const PNaivePage &page) { return IsPredicted(*page, real); });
        state.CheckEqual("a page that survived a refusal", isKnown || !isPredicted, true);
        CNaivePage &page = *pages.emplace_back(NaivePageOf(state.m_World, naive, real));
        page.m_Count = real.ParticleCount();
        for (u32 j = 0; j < page.m_Columns.size(); ++j)
            std::copy_n(real.Stream(CGuid(j)).m_RawDataPtr, page.m_Columns[j].m_Bytes.size(),
                        page.m_Columns[j].m_Bytes.begin());
    }
    naive.m_Pages.swap(pages);
    naive.m_Count = naive.RowSum();
    const CScopedPagesLock lock(*stream.m_Real);
    stream.OnBoth([](auto &side) { side.ComputePendingResizes_NoLock(); });
}

} // namespace Tessaly::Model
