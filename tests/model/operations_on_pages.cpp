// The operations on a page: rows, views, readers, copies from page to page.
#include <algorithm>
#include <cstring>
#include <map>

#include "interpreter.h"

namespace Tessaly::Model
{

// Long rows repeat their first bytes.
static void MakeRow(CRandom &random, const CBaseTypeTraits &type, u8 *row, size_t bytes)
{
    for (size_t i = 0; i < std::min(bytes, size_t(64)); i += 8)
    {
        u32 words[] = {SpecialWord(random), SpecialWord(random)};
        for (u32 &word : words)
            word &= type.ScalarType == BaseType_Bool ? 0x01010101 : 0xFFFFFFFF;
        float narrow;
        std::memcpy(&narrow, words, 4);
        const double wide = narrow;
        const bool isWide = type.Self == BaseType_Double && random.OneIn(2);
        std::memcpy(row + i, isWide ? static_cast<const void *>(&wide) : words, std::min(bytes - i, size_t(8)));
    }
    for (size_t i = 64; i < bytes; ++i)
        row[i] = row[i - 64];
}

static void Fill(SState &state, const SPagePair &page, const SOperation &operation)
{
    CNaivePage &naive = *page.m_Naive;
    if (naive.m_Count == 0)
        return;
    const u32 first = operation.m_B % naive.m_Count, rest = naive.m_Count - first;
    const u32 count = operation.m_C == 0 ? rest : std::min(CountOf(operation.m_C), rest);
    const CParticlePageView view(*page.m_Real, first, count);
    for (u32 i = 0; i < naive.m_Columns.size(); ++i)
    {
        const size_t size = naive.m_Columns[i].m_Field.m_StorageSize;
        if (size == 0 || count == 0)
            continue;
        for (u32 j = first; j < first + count; ++j)
            MakeRow(state.m_Values, CBaseTypeTraits::Traits(naive.m_Columns[i].m_Field.m_Type), naive.Row(i, j), size);
        u8 *column = naive.IsWritable() ? view.RawStreamBeginForWriting(CGuid(i))
                                        : page.m_Real->Stream(CGuid(i)).m_RawDataPtr + size * first;
        state.CheckEqual("a column to write", column != null, true);
        if (column != null)
            std::memcpy(column, naive.Row(i, first), size * count);
    }
}

static std::vector<u32> RemovalList(u32 count, u32 pattern, bool isWrong)
{
    const std::vector<u32> wrong[] = {{count}, {0, 0}, {1, 0}, {0, 0xFFFFFFFF}};
    if (isWrong)
        return wrong[pattern % 4];
    std::vector<u32> list;
    const u32 half = count / 2;
    CRandom random(pattern);
    for (u32 i = 0; i < std::min(count, 3000u); ++i)
    {
        const bool isRare = random.OneIn(20);
        const bool choices[] = {true,      true,     i < half || isRare, i == 0,          i + 1 == count,
                                i >= half, i < half, i % 2 == 0,         random.OneIn(2), isRare};
        if (choices[pattern % 10])
            list.push_back(i);
    }
    return list;
}

static bool IsSameMove(const SParticleMove &a, const SParticleMove &b)
{
    return a.m_From == b.m_From && a.m_To == b.m_To;
}

// Of the removed rows the last rows that stay fill those in front of them. Which fills which is not documented: the
// model does as the library, the first one the first.
static std::vector<SParticleMove> RemoveRows(CNaivePage &page, const std::vector<u32> &list)
{
    const u32 newCount = page.m_Count - u32(list.size());
    std::vector<SParticleMove> moves;
    for (u32 from = newCount; from < page.m_Count; ++from)
    {
        if (!std::binary_search(list.begin(), list.end(), from))
            moves.push_back({from, list[moves.size()]});
    }
    for (const SParticleMove &move : moves)
    {
        for (u32 i = 0; i < page.m_Columns.size(); ++i)
            std::copy_n(page.Row(i, move.m_From), page.RowBytes(i), page.Row(i, move.m_To));
    }
    page.m_Count = newCount;
    return moves;
}

static void Remove(SState &state, const SPagePair &page, const SOperation &operation)
{
    CNaivePage &naive = *page.m_Naive;
    CNaiveStream *stream = page.m_Stream != null ? page.m_Stream->m_Naive.get() : null;
    const bool isWrong = operation.m_C % 8 == 1, isRefused = isWrong || !naive.IsWritable();
    const bool isOfStream = operation.m_Kind == EOperation::Remove && stream != null;
    const std::vector<u32> list = RemovalList(naive.m_Count, operation.m_B, isWrong);
    if (list.empty())
        return;
    const u32 count = u32(list.size());
    if (state.m_World.Check(!isWrong, "AreAscendingIndices(indices, oldCount)"))
        state.m_World.Check(naive.IsWritable(), "PrepareForWriting()");
    const std::vector<SParticleMove> expected = isRefused ? std::vector<SParticleMove>() : RemoveRows(naive, list);
    // Half of the time the library is asked for the moves, half of these with too few entries for them.
    std::vector<SParticleMove> entries(operation.m_C % 4 == 3 ? expected.size() / 2 : list.size());
    TMemoryView<SParticleMove> moves(entries.data(), u32(entries.size()));
    TMemoryView<SParticleMove> *outMoves = operation.m_C % 2 != 0 ? &moves : null;
    if (outMoves != null)
        state.m_World.Check(expected.size() <= entries.size(), "outMoves == null || holeCount <= capacity");
    const TMemoryView<const u32> view(list.data(), count);
    const u32 removed = isOfStream ? page.m_Stream->m_Real->RemoveParticles(CGuid(page.m_Index), view, outMoves)
                                   : page.m_Real->RemoveParticles(view, outMoves);
    state.CheckEqual("removed", removed, isRefused ? 0 : count);
    const size_t moveCount = std::min(expected.size(), entries.size());
    if (outMoves != null)
        state.CheckEqual(
            "the moves",
            moves.Count() == moveCount && std::equal(moves.begin(), moves.end(), expected.begin(), IsSameMove), true);
    if (isRefused)
        return;
    if (isOfStream)
        stream->m_Count -= count;
    else if (stream != null)
        page.m_Stream->OnBoth([count](auto &side) { side.RegisterDeadCount(count); });
}

// Unchecked.
static void CountBirths(const SPagePair &page, u32 count)
{
    if (page.m_Stream == null)
        return;
    page.m_Stream->m_Real->RegisterBornCount_NoConsistencyCheck(count);
    page.m_Stream->m_Naive->m_Count += count;
}

static void AllocateInPage(SState &state, const SPagePair &page, const SOperation &operation)
{
    const u32 count = CountOf(operation.m_B);
    const bool fits = count <= page.m_Naive->Free();
    const CGuid first = page.m_Real->AllocateParticles(count);
    state.CheckEqual("first slot", first.Get(), fits ? page.m_Naive->m_Count : CGuid::INVALID.Get());
    if (!fits)
        return;
    page.m_Naive->m_Count += count;
    CountBirths(page, count);
}

static void TakeView(SState &state, const SPagePair &page, const SOperation &operation)
{
    if (state.m_Views.size() > 20)
        return;
    const u32 first = operation.m_C == 0 ? 0 : CountOf(operation.m_B) % 70000;
    const u32 count = operation.m_C == 0 ? page.m_Naive->m_Count : CountOf(operation.m_C);
    state.m_World.Check(first + count <= page.m_Naive->m_Count, "first + count <= page.ParticleCount()");
    state.m_Views.push_back({CParticlePageView(*page.m_Real, first, count), {page.m_Naive, first, count}, null});
}

// Half of the time on the page that a resize would fill first.
static void BeginRead(SState &state, const SPagePair &page, const SOperation &operation)
{
    if (state.m_Readers.size() > 5)
        return;
    SPagePair read = page;
    const CNaiveStream *stream = page.m_Stream != null ? page.m_Stream->m_Naive.get() : null;
    for (u32 i = 0; stream != null && operation.m_B % 2 == 0 && i < stream->m_Pages.size(); ++i)
    {
        if (stream->m_Pages[i]->m_Capacity == stream->m_PageSize && stream->m_Pages[i]->Free() >= 64)
            read = {page.m_Stream->m_Real->_UnsafePage(CGuid(i)), stream->m_Pages[i], null, 0};
    }
    ++read.m_Naive->m_ReaderCount;
    SViewPair &reader = state.m_Readers.emplace_back();
    reader.m_Real = CParticlePageView(read.m_Real);
    reader.m_Naive.m_Page = read.m_Naive;
    reader.m_Reader = std::make_unique<CScopedRawPageReader>(read.m_Real->RawPage());
}

// A held view, or the last rows of a page.
static SViewPair CopySource(SState &state, const SOperation &operation)
{
    if (operation.m_B % 4 == 0 && !state.m_Views.empty())
    {
        const SViewPair &view = state.m_Views[operation.m_A / 16 % state.m_Views.size()];
        return {view.m_Real, view.m_Naive, null};
    }
    const SPagePair page =
        state.Page(state.Stream(operation.m_Stream + (operation.m_B % 16 == 1 ? 1 : 0)), operation.m_A / 16);
    if (page.m_Naive == null)
        return {};
    const u32 first = page.m_Naive->m_Count == 0 ? 0 : operation.m_B / 16 % page.m_Naive->m_Count;
    const u32 count = page.m_Naive->m_Count - first;
    return {CParticlePageView(*page.m_Real, first, count), {page.m_Naive, first, count}, null};
}

static void Copy(SState &state, const SPagePair &dst, const SOperation &operation)
{
    using Real = CParticleStream_MainMemory;
    const SViewPair src = CopySource(state, operation);
    const PNaivePage &srcPage = src.m_Naive.m_Page;
    const u32 first = src.m_Naive.m_First, countBefore = dst.m_Naive->m_Count;
    u32 argument = CountOf(operation.m_C);
    // Within one page only live rows, so that source and destination never overlap.
    if (srcPage == null || (dst.m_Naive == srcPage && u64(first) + src.m_Naive.m_Count > countBefore))
        return;
    if (operation.m_Kind == EOperation::CopyPage)
        state.CheckEqual("copied", Real::CopyPageToPage(*dst.m_Real, src.m_Real),
                         CNaiveStream::CopyPageToPage(*dst.m_Naive, src.m_Naive));
    else if (operation.m_Kind == EOperation::Transfer)
        state.CheckEqual("end of the transfer", Real::TransferPageToPage(*dst.m_Real, src.m_Real, argument),
                         CNaiveStream::TransferPageToPage(*dst.m_Naive, src.m_Naive, argument));
    else
    {
        if (operation.m_C % 4 == 0 || dst.m_Naive == srcPage)
            argument = std::min(src.m_Naive.m_Count, dst.m_Naive->Free());
        state.CheckEqual("copied", Real::CopySubRangeToPage(*dst.m_Real, *src.m_Real.OriginalPage(), first, argument),
                         CNaiveStream::CopySubRangeToPage(*dst.m_Naive, *srcPage, first, argument));
    }
    CountBirths(dst, dst.m_Naive->m_Count - countBefore);
}

void RunOnPage(SState &state, const SPagePair &page, const SOperation &operation)
{
    static const std::map<EOperation, void (*)(SState &, const SPagePair &, const SOperation &)> kOperations = {
        {EOperation::Fill, &Fill},           {EOperation::Remove, &Remove},
        {EOperation::RemoveInPage, &Remove}, {EOperation::AllocateInPage, &AllocateInPage},
        {EOperation::TakeView, &TakeView},   {EOperation::BeginRead, &BeginRead},
        {EOperation::CopySubRange, &Copy},   {EOperation::CopyPage, &Copy},
        {EOperation::Transfer, &Copy}};
    if (page.m_Naive != null)
        kOperations.at(operation.m_Kind)(state, page, operation);
}

} // namespace Tessaly::Model
