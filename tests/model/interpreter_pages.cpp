// What happens inside pages: rows, views, readers, copies from page to page.
#include "interpreter.h"

#include <algorithm>
#include <cstring>

#include "naive_types.h"

namespace Tessaly
{
namespace Model
{

namespace
{

std::vector<u32> RemovalList(u32 count, u32 pattern)
{
    std::vector<u32> list;
    const u32 most = std::min(count, 3000u), half = count / 2;
    CRandom random(pattern);
    for (u32 i = 0; i < most; ++i)
    {
        const bool isRare = random.OneIn(20);
        const bool choices[] = {true,      true,     i < half || isRare, i == 0,          i + 1 == count,
                                i >= half, i < half, i % 2 == 0,         random.OneIn(2), isRare};
        if (choices[pattern % 10])
            list.push_back(i);
    }
    return list;
}

std::vector<u32> BadRemovalList(u32 count, u32 pattern)
{
    const std::vector<u32> lists[] = {{count}, {0, 0}, {1, 0}, {0, 0xFFFFFFFF}};
    return lists[pattern % 4];
}

// The rows that fill holes come from the end, which of them where is the library's choice: it is taken over when it is
// one of them, and the one that it tells. told: from hole to mover.
bool RemoveRows(CNaivePage &page, const CParticlePage &real, const std::vector<u32> &list, std::map<u32, u32> told)
{
    const u32 count = page.m_Count - u32(list.size());
    std::vector<u32> movers;
    for (u32 i = count; i < page.m_Count; ++i)
    {
        if (!std::binary_search(list.begin(), list.end(), i))
            movers.push_back(i);
    }
    const auto fits = [&](u32 hole, u32 mover)
    {
        if (told.count(hole) != 0 && told[hole] != mover)
            return false;
        for (u32 i = 0; i < page.m_Columns.size(); ++i)
        {
            const u32 size = page.m_Columns[i].m_Field.m_Size;
            const u8 *column = real.Stream(CGuid(i)).m_RawDataPtr;
            if (size != 0 && std::memcmp(column + size_t(size) * hole, page.Row(i, mover), size) != 0)
                return false;
        }
        return true;
    };
    for (u32 hole : list)
    {
        if (hole >= count)
            break;
        const auto mover =
            std::find_if(movers.begin(), movers.end(), [&](u32 candidate) { return fits(hole, candidate); });
        if (mover == movers.end())
            return false;
        for (u32 i = 0; i < page.m_Columns.size(); ++i)
            page.Overwrite(i, hole, std::vector<u8>(page.Row(i, *mover), page.Row(i, *mover + 1)).data(), 1);
        movers.erase(mover);
        told.erase(hole);
    }
    page.SetCount(count);
    return told.empty();
}

void MakeWords(CRandom &random, const SNaiveType &type, u8 *out, size_t bytes)
{
    for (size_t i = 0; i < bytes; i += 8)
    {
        const u32 words[] = {InterestingWord(random), InterestingWord(random)};
        float narrow;
        std::memcpy(&narrow, words, 4);
        const double wide = narrow;
        const bool isDouble = type.IsFp() && type.m_Width == 8 && random.OneIn(2);
        std::memcpy(out + i, isDouble ? static_cast<const void *>(&wide) : words, std::min(bytes - i, size_t(8)));
    }
}

// Long rows repeat their first bytes.
void MakeRow(CRandom &random, const SNaiveType &type, std::vector<u8> &row)
{
    const size_t drawn = std::min(row.size(), size_t(64));
    MakeWords(random, type, row.data(), drawn);
    for (size_t i = 0; type.m_Component == EComponent::Bool && i < drawn; ++i)
        row[i] &= 1;
    for (size_t i = drawn; i < row.size(); i += drawn)
        std::memcpy(&row[i], row.data(), std::min(row.size() - i, drawn));
}

} // namespace

CInterpreter::SPagePair CInterpreter::_Page(const SOperation &operation, u32 code)
{
    SPair &stream = _Stream(operation.m_Stream);
    const u32 listed = u32(stream.m_Naive->m_Pages.size()), held = u32(m_Views.size());
    if (listed + held == 0)
        return {};
    const bool isHeld = held != 0 && (listed == 0 || code % 4 == 3);
    const u32 index = code / 4 % (isHeld ? held : listed);
    if (!isHeld)
        return {stream.m_Real->_UnsafePage(CGuid(index)), stream.m_Naive->m_Pages[index], &stream, index};
    SHeldView &view = m_Views[index];
    for (SPair &lister : m_Streams)
    {
        const std::vector<PNaivePage> &pages = lister.m_Naive->m_Pages;
        const auto page = std::find(pages.begin(), pages.end(), view.m_Naive.m_Page);
        if (page != pages.end())
            return {view.m_Real.OriginalPage(), *page, &lister, u32(page - pages.begin())};
    }
    return {view.m_Real.OriginalPage(), view.m_Naive.m_Page, null, 0};
}

void CInterpreter::_DoInPage(const SOperation &operation, const SPagePair &page)
{
    switch (operation.m_Kind)
    {
    case EOperation::Fill:
        return _Fill(operation, page);
    case EOperation::AllocateInPage:
        return _AllocateInPage(operation, page);
    case EOperation::TakeView:
        return _TakeView(operation, page);
    case EOperation::BeginRead:
        return _BeginRead(operation, page);
    case EOperation::CopySubRange:
    case EOperation::CopyPage:
    case EOperation::Transfer:
        return _Copy(operation, page);
    default:
        return _Remove(operation, page);
    }
}

void CInterpreter::_Fill(const SOperation &operation, const SPagePair &page)
{
    CNaivePage &naive = *page.m_Naive;
    if (naive.m_Count == 0)
        return;
    const u32 first = operation.m_B % naive.m_Count;
    const u32 count =
        operation.m_C == 0 ? naive.m_Count - first : std::min(CountOf(operation.m_C), naive.m_Count - first);
    const CParticlePageView view(*page.m_Real, first, count);
    for (u32 i = 0; i < naive.m_Columns.size(); ++i)
    {
        const u32 size = naive.m_Columns[i].m_Field.m_Size;
        if (size == 0 || count == 0)
            continue;
        std::vector<u8> row(size);
        for (u32 j = first; j < first + count; ++j)
        {
            MakeRow(m_Values, NaiveType(naive.m_Columns[i].m_Field.m_Type), row);
            naive.Overwrite(i, j, row.data(), 1);
        }
        u8 *column = naive.IsWritable() ? view.RawStreamBeginForWriting(CGuid(i))
                                        : page.m_Real->Stream(CGuid(i)).m_RawDataPtr + size_t(size) * first;
        _Differ("a column to write", column != null, true);
        if (column != null)
            std::memcpy(column, naive.Row(i, first), size_t(size) * count);
    }
}

void CInterpreter::_Remove(const SOperation &operation, const SPagePair &page)
{
    CNaivePage &naive = *page.m_Naive;
    const bool isBad = operation.m_C % 8 == 1;
    const bool isOfStream = operation.m_Kind == EOperation::Remove && page.m_Lister != null;
    const std::vector<u32> list = (isBad ? BadRemovalList : RemovalList)(naive.m_Count, operation.m_B);
    if (list.empty())
        return;
    const u32 count = u32(list.size());
    const TMemoryView<const u32> view(list.data(), count);
    const bool isDone = !isBad && naive.IsWritable();
    m_NeedsReport = !isDone;
    m_World.m_AnyReports = isOfStream && page.m_Lister->m_Naive->RowSum() != page.m_Lister->m_Naive->m_Count;
    // Half of the time it has to tell where particles went, half of these in too little room.
    const u32 holeCount =
        isDone ? u32(std::lower_bound(list.begin(), list.end(), naive.m_Count - count) - list.begin()) : 0;
    std::vector<SParticleMove> room(operation.m_C % 4 == 3 ? holeCount / 2 : list.size());
    TMemoryView<SParticleMove> moves(room.data(), u32(room.size())), *outMoves = operation.m_C % 2 != 0 ? &moves : null;
    if (outMoves != null)
        m_World.Check(holeCount <= room.size(), "outMoves == null || holeCount <= capacity");
    const u32 removed = isOfStream ? page.m_Lister->m_Real->RemoveParticles(CGuid(page.m_Index), view, outMoves)
                                   : page.m_Real->RemoveParticles(view, outMoves);
    _Differ("removed", removed, isDone ? count : 0);
    std::map<u32, u32> told;
    for (u32 i = 0; outMoves != null && i < moves.Count(); ++i)
        told[moves[i].m_To] = moves[i].m_From;
    if (outMoves != null)
        _Differ("moves told", told.size(), std::min(size_t(holeCount), room.size()));
    if (!isDone || removed != count)
        return;
    _Differ("holes filled from the end", RemoveRows(naive, *page.m_Real, list, told), true);
    if (isOfStream)
        page.m_Lister->m_Naive->m_Count -= count;
    else if (page.m_Lister != null)
    {
        page.m_Lister->m_Real->RegisterDeadCount(count);
        page.m_Lister->m_Naive->RegisterDeadCount(count);
    }
}

void CInterpreter::_CountBirths(const SPagePair &page, u32 count)
{
    if (page.m_Lister == null)
        return;
    page.m_Lister->m_Real->RegisterBornCount_NoConsistencyCheck(count);
    page.m_Lister->m_Naive->m_Count += count;
}

void CInterpreter::_AllocateInPage(const SOperation &operation, const SPagePair &page)
{
    const u32 count = CountOf(operation.m_B);
    const bool fits = count <= page.m_Naive->Free();
    const CGuid first = page.m_Real->AllocateParticles(count);
    _Differ("first slot", first.Get(), fits ? page.m_Naive->m_Count : CGuid::INVALID.Get());
    if (!fits)
        return;
    page.m_Naive->Append(count);
    if (operation.m_C % 2 == 0 || page.m_Lister == null)
        return _CountBirths(page, count);
    page.m_Lister->m_Real->RegisterBornCount(count);
    page.m_Lister->m_Naive->RegisterBornCount(count);
}

void CInterpreter::_TakeView(const SOperation &operation, const SPagePair &page)
{
    if (m_Views.size() > 20)
        return;
    const u32 first = operation.m_C == 0 ? 0 : CountOf(operation.m_B) % 70000;
    const u32 count = operation.m_C == 0 ? page.m_Naive->m_Count : CountOf(operation.m_C);
    m_World.Check(first + count <= page.m_Naive->m_Count, "first + count <= page.ParticleCount()");
    m_Views.push_back({CParticlePageView(*page.m_Real, first, count), {page.m_Naive, first, count}});
}

void CInterpreter::_DropView(u32 code)
{
    if (!m_Views.empty())
        m_Views.erase(m_Views.begin() + s64(code % m_Views.size()));
}

// Half of the time of the page that a resize pass would fill first.
void CInterpreter::_BeginRead(const SOperation &operation, SPagePair page)
{
    if (m_Readers.size() > 5)
        return;
    const CNaiveStream *naive = page.m_Lister != null ? page.m_Lister->m_Naive.get() : null;
    for (u32 i = 0; naive != null && operation.m_B % 2 == 0 && i < naive->m_Pages.size(); ++i)
    {
        if (naive->m_Pages[i]->m_Capacity == naive->m_PageSize && naive->m_Pages[i]->Free() >= 64)
            page = {page.m_Lister->m_Real->_UnsafePage(CGuid(i)), naive->m_Pages[i], page.m_Lister, i};
    }
    ++page.m_Naive->m_ReaderCount;
    m_Readers.push_back({page.m_Real, std::make_unique<CScopedRawPageReader>(page.m_Real->RawPage()), page.m_Naive});
}

void CInterpreter::_EndRead(u32 code)
{
    if (m_Readers.empty())
        return;
    const auto reader = m_Readers.begin() + s64(code % m_Readers.size());
    --reader->m_Naive->m_ReaderCount;
    m_Readers.erase(reader);
}

CInterpreter::SHeldView CInterpreter::_CopySource(const SOperation &operation)
{
    if (operation.m_B % 4 == 0 && !m_Views.empty())
        return m_Views[operation.m_A / 16 % m_Views.size()];
    SOperation other = operation;
    other.m_Stream = u8(operation.m_B % 16 == 1 ? operation.m_Stream + 1 : operation.m_Stream);
    const SPagePair page = _Page(other, operation.m_A / 16);
    if (page.m_Naive == null)
        return {};
    const u32 first = page.m_Naive->m_Count == 0 ? 0 : operation.m_B / 16 % page.m_Naive->m_Count;
    const u32 count = page.m_Naive->m_Count - first;
    return {CParticlePageView(*page.m_Real, first, count), {page.m_Naive, first, count}};
}

void CInterpreter::_Copy(const SOperation &operation, const SPagePair &dst)
{
    using Stream = CParticleStream_MainMemory;
    SHeldView src = _CopySource(operation);
    const PNaivePage &srcPage = src.m_Naive.m_Page;
    const u32 first = src.m_Naive.m_First, countBefore = dst.m_Naive->m_Count, code = CountOf(operation.m_C);
    // Within one page only what is alive, so that source and destination never overlap.
    if (srcPage == null || (dst.m_Naive == srcPage && u64(first) + src.m_Naive.m_Count > countBefore))
        return;
    if (operation.m_Kind == EOperation::CopyPage)
        _Differ("copied", Stream::CopyPageToPage(*dst.m_Real, src.m_Real), CopyPage(*dst.m_Naive, src.m_Naive));
    else if (operation.m_Kind == EOperation::Transfer)
        _Differ("end of the transfer", Stream::TransferPageToPage(*dst.m_Real, src.m_Real, code),
                Transfer(*dst.m_Naive, src.m_Naive, code));
    else
    {
        const bool fits = operation.m_C % 4 == 0 || dst.m_Naive == srcPage;
        const u32 count = fits ? std::min(src.m_Naive.m_Count, dst.m_Naive->Free()) : code;
        _Differ("copied", Stream::CopySubRangeToPage(*dst.m_Real, *src.m_Real.OriginalPage(), first, count),
                CopySubRange(*dst.m_Naive, *srcPage, first, count));
    }
    _CountBirths(dst, dst.m_Naive->m_Count - countBefore);
}

} // namespace Model
} // namespace Tessaly
