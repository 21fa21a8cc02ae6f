#include "interpreter.h"

#include <algorithm>
#include <cstring>

#include <tz_particles/include/ps_runtime.h>

#include "naive_types.h"

namespace Tessaly
{
namespace Model
{

namespace
{

constexpr u64 kMostPageBytes = 6 << 20, kMostBytes = 24 << 20; // of a run, so that it stays quick
constexpr u64 kMostPages = 300;

std::vector<u32> RemovalList(u32 count, u32 pattern)
{
    std::vector<u32> list;
    const u32 most = std::min(count, 3000u), half = count / 2;
    CRandom random(pattern);
    for (u32 i = 0; i < most; ++i)
    {
        const bool choices[] = {true,      i == 0,   i + 1 == count,  i % 2 == 0,
                                i >= half, i < half, random.OneIn(2), random.OneIn(20)};
        if (choices[pattern % 8])
            list.push_back(i);
    }
    return list;
}

std::vector<u32> BadRemovalList(u32 count, u32 pattern)
{
    const std::vector<u32> lists[] = {{count}, {0, 0}, {1, 0}, {0, 0xFFFFFFFF}};
    return lists[pattern % 4];
}

// The rows that fill holes come from the end, which of them where is not told: what the library chose is taken over
// when it is one of them.
bool RemoveRows(CNaivePage &page, const CParticlePage &real, const std::vector<u32> &list)
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
    }
    page.SetCount(count);
    return true;
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

const SParticleImplementationCache kCache;

} // namespace

const CInterpreter::FnHandler CInterpreter::kHandlers[] = {
    &CInterpreter::_Bind,           &CInterpreter::_BindTwin,    &CInterpreter::_Rebirth,   &CInterpreter::_Allocate,
    &CInterpreter::_AllocateAll,    &CInterpreter::_Fill,        &CInterpreter::_Remove,    &CInterpreter::_Remove,
    &CInterpreter::_AllocateInPage, &CInterpreter::_Misregister, &CInterpreter::_Repair,    &CInterpreter::_SetPageSize,
    &CInterpreter::_Resize,         &CInterpreter::_Recount,     &CInterpreter::_Collect,   &CInterpreter::_DeepCopy,
    &CInterpreter::_Swap,           &CInterpreter::_Clear,       &CInterpreter::_Cleanup,   &CInterpreter::_MakePage,
    &CInterpreter::_TakeView,       &CInterpreter::_DropView,    &CInterpreter::_BeginRead, &CInterpreter::_EndRead,
    &CInterpreter::_CopySubRange,   &CInterpreter::_CopyPage,    &CInterpreter::_Transfer,  &CInterpreter::_Query,
    &CInterpreter::_SetBudget};

CInterpreter::CInterpreter(FnWasRefused wasRefused)
    : m_WasRefused(std::move(wasRefused))
    , m_Values(1)
{
    for (u32 i = 0; i < kStreamCount; ++i)
    {
        SPair pair;
        pair.m_Real = std::make_unique<Tests::CTestStream>(i * 64);
        pair.m_Naive = std::make_unique<CNaiveStream>(m_World, pair.m_Real.get(), i * 64);
        m_Streams.push_back(std::move(pair));
    }
}

CInterpreter::~CInterpreter()
{
    Finish();
    m_Recorder.Take();
}

std::string CInterpreter::Run(const SOperation &operation)
{
    if (m_World.m_Budget != 0 && m_BudgetLife-- == 0)
    {
        m_World.m_Budget = 0;
        Particles::PageAllocator()->SetMemoryBudget(0);
    }
    (this->*kHandlers[u32(operation.m_Kind)])(operation);
    return _Compare();
}

std::string CInterpreter::RunAll(const Script &script)
{
    CInterpreter interpreter;
    for (const SOperation &operation : script)
    {
        const std::string difference = interpreter.Run(operation);
        if (!difference.empty())
            return difference;
    }
    return interpreter.Finish();
}

std::string CInterpreter::Finish()
{
    Particles::PageAllocator()->SetMemoryBudget(0);
    m_World.m_Budget = 0;
    m_Views.clear();
    m_Readers.clear();
    for (SPair &stream : m_Streams)
    {
        stream.m_Real.reset();
        stream.m_Naive.reset();
    }
    m_Streams.clear();
    return _Compare();
}

bool CInterpreter::_Affords(u64 pageBytes, u64 pageCount)
{
    pageBytes = std::max(pageBytes, u64(512));
    return pageBytes <= kMostPageBytes && pageCount <= kMostPages &&
           m_World.m_BlockBytes + pageBytes * pageCount <= kMostBytes;
}

bool CInterpreter::_AffordsPages(const CNaiveStream &stream, u64 pageCount)
{
    return _Affords(stream.m_PageBytes, pageCount) && stream.m_Pages.size() + pageCount <= kMostPages;
}

bool CInterpreter::_AffordsRebuild(const CNaiveStream &stream, const SLoan &loan)
{
    u64 sum = 0;
    for (const PNaivePage &page : stream.m_Pages)
    {
        const u64 bytes = CNaiveStream::PageBytes(page->m_Capacity, loan);
        if (bytes > kMostPageBytes)
            return false;
        sum += bytes;
    }
    return _Affords(0, sum / 512 < kMostPages ? 1 : 0) && m_World.m_BlockBytes + sum <= kMostBytes;
}

CInterpreter::SPagePair CInterpreter::_Page(const SOperation &operation, u32 code)
{
    SPair &stream = _Stream(operation.m_Stream);
    const u32 listed = u32(stream.m_Naive->m_Pages.size()), all = listed + u32(m_Views.size());
    if (all == 0)
        return {};
    const u32 index = code % all;
    if (index < listed)
        return {stream.m_Real->_UnsafePage(CGuid(index)), stream.m_Naive->m_Pages[index], index, true};
    return {m_Views[index - listed].m_Real.OriginalPage(), m_Views[index - listed].m_Naive.m_Page, index, false};
}

void CInterpreter::_CountBirths(const PNaivePage &page, u32 count)
{
    for (SPair &stream : m_Streams)
    {
        const std::vector<PNaivePage> &pages = stream.m_Naive->m_Pages;
        if (std::find(pages.begin(), pages.end(), page) == pages.end())
            continue;
        stream.m_Real->RegisterBornCount_NoConsistencyCheck(count);
        stream.m_Naive->m_Count += count;
    }
}

void CInterpreter::_BindTo(SPair &stream, const PLoan &loan, const PLoan &constants)
{
    if (loan != null && !_AffordsRebuild(*stream.m_Naive, *loan))
        return;
    stream.m_Real->BindStreamDef(loan != null ? &loan->m_Def : null, constants->ConstantData(), constants->Slots(),
                                 kCache);
    stream.m_Naive->Bind(loan, constants);
    _AdoptIfRefused(EAdoption::Pages);
}

void CInterpreter::_Bind(const SOperation &operation)
{
    const PLoan loan = std::make_shared<SLoan>(operation.m_A);
    _BindTo(_Stream(operation.m_Stream), loan, loan);
}

void CInterpreter::_BindTwin(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const PLoan loan = stream.m_Naive->m_Loan;
    const PLoan twin = std::make_shared<SLoan>(loan != null ? loan->m_Number : operation.m_B);
    _BindTo(stream, operation.m_A % 8 == 0 ? loan : operation.m_A % 8 == 1 ? null : twin, twin);
}

void CInterpreter::_Rebirth(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const u32 pageSize = PageSizeOf(operation.m_A);
    stream.m_Real.reset();
    stream.m_Naive.reset();
    stream.m_Real = std::make_unique<Tests::CTestStream>(pageSize);
    stream.m_Naive = std::make_unique<CNaiveStream>(m_World, stream.m_Real.get(), pageSize);
}

void CInterpreter::_Allocate(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    if (!_AffordsPages(*stream.m_Naive, 1))
        return;
    const u32 wished = CountOf(operation.m_A), hint = CountOf(operation.m_B);
    CParticlePageView real = stream.m_Real->AllocateParticlesIFP(wished, hint);
    if (_WasRefused() && real.OriginalPage() == null)
        return; // and nothing has changed
    const SNaiveView naive = stream.m_Naive->AllocateIfPossible(wished, hint);
    _Differ("first particle", real.FirstParticle(), naive.m_First);
    _Differ("particles in the view", real.ParticleCount(), naive.m_Count);
    _Differ("a page", real.OriginalPage() != null, naive.m_Page != null);
    if (operation.m_C % 8 == 1 && naive.m_Page != null)
        m_Views.push_back({real, naive});
}

void CInterpreter::_AllocateAll(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const u32 count = CountOf(operation.m_A);
    if (!_AffordsPages(*stream.m_Naive, u64(count) / stream.m_Naive->m_PageSize + 1))
        return;
    TArray<CParticlePageView> views;
    const u32 served = stream.m_Real->AllocateParticles(count, views);
    u32 expected = 0, viewCount = 0;
    while (expected < count)
    {
        const SNaiveView naive = stream.m_Naive->AllocateIfPossible(count - expected, 1);
        if (naive.m_Count == 0)
            break;
        expected += naive.m_Count;
        ++viewCount;
    }
    _AdoptIfRefused(EAdoption::Rows);
    if (!_WasRefused())
    {
        _Differ("particles served", served, expected);
        _Differ("views", views.Count(), viewCount);
    }
}

void CInterpreter::_Fill(const SOperation &operation)
{
    const SPagePair page = _Page(operation, operation.m_A);
    if (page.m_Naive == null || page.m_Naive->m_Count == 0)
        return;
    CNaivePage &naive = *page.m_Naive;
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

void CInterpreter::_Remove(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const SPagePair page = _Page(operation, operation.m_A);
    const bool isOfStream = operation.m_Kind == EOperation::Remove && page.m_IsListed;
    if (page.m_Naive == null)
        return;
    CNaivePage &naive = *page.m_Naive;
    const bool isBad = operation.m_C % 8 == 1;
    const std::vector<u32> list =
        isBad ? BadRemovalList(naive.m_Count, operation.m_B) : RemovalList(naive.m_Count, operation.m_B);
    if (list.empty())
        return;
    const TMemoryView<const u32> view(list.data(), u32(list.size()));
    m_World.m_AnyReports = stream.m_Naive->RowSum() != stream.m_Naive->m_Count;
    const u32 removed =
        isOfStream ? stream.m_Real->RemoveParticles(CGuid(page.m_Index), view) : page.m_Real->RemoveParticles(view);
    const bool isDone = !isBad && naive.IsWritable();
    m_NeedsReport = !isDone;
    _Differ("removed", removed, isDone ? list.size() : 0);
    if (isDone && removed == list.size() && !RemoveRows(naive, *page.m_Real, list))
        _Differ("a hole filled from the end", 0, 1);
    if (isDone && isOfStream)
        stream.m_Naive->m_Count -= u32(list.size());
    else if (isDone && page.m_IsListed)
    {
        stream.m_Real->RegisterDeadCount(u32(list.size()));
        stream.m_Naive->RegisterDead(u32(list.size()));
    }
}

void CInterpreter::_AllocateInPage(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const SPagePair page = _Page(operation, operation.m_A);
    if (page.m_Naive == null)
        return;
    const u32 count = CountOf(operation.m_B);
    const bool fits = count <= page.m_Naive->Free();
    const CGuid first = page.m_Real->AllocateParticles(count);
    _Differ("first slot", first.Get(), fits ? page.m_Naive->m_Count : CGuid::INVALID.Get());
    if (!fits)
        return;
    page.m_Naive->Append(count);
    if (operation.m_C % 2 == 0 || !page.m_IsListed)
        return page.m_IsListed ? _CountBirths(page.m_Naive, count) : void();
    stream.m_Real->RegisterBornCount(count);
    stream.m_Naive->RegisterBorn(count);
}

void CInterpreter::_Misregister(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const u32 count = CountOf(operation.m_A);
    if (operation.m_C % 2 == 0)
    {
        stream.m_Real->RegisterBornCount(count);
        stream.m_Naive->RegisterBorn(count);
    }
    else
    {
        stream.m_Real->RegisterDeadCount(count);
        stream.m_Naive->RegisterDead(count);
    }
}

void CInterpreter::_Repair(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const u32 missing = stream.m_Naive->RowSum() - stream.m_Naive->m_Count;
    stream.m_Real->RegisterBornCount(missing);
    stream.m_Naive->RegisterBorn(missing);
}

void CInterpreter::_SetPageSize(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    stream.m_Real->SetPageSize(PageSizeOf(operation.m_A));
    stream.m_Naive->SetPageSize(PageSizeOf(operation.m_A));
}

void CInterpreter::_Resize(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const CNaiveStream &naive = *stream.m_Naive;
    u64 pageCount = 1;
    for (const PNaivePage &page : naive.m_Pages)
        pageCount += page->m_Capacity != naive.m_PageSize ? 1 + page->m_Count / naive.m_PageSize : 0;
    if (!_AffordsPages(naive, pageCount))
        return;
    const u32 bound = operation.m_B % 2 == 0 ? CountOf(operation.m_A) : 1 + operation.m_A % 3;
    stream.m_Real->ResizePending(bound);
    stream.m_Naive->ResizePending(bound);
    _AdoptIfRefused(EAdoption::Rows);
}

void CInterpreter::_Recount(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const CScopedPagesLock lock(*stream.m_Real);
    stream.m_Real->ComputePendingResizes_NoLock();
    stream.m_Naive->Recount();
}

void CInterpreter::_Collect(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    const bool hasReindexer = operation.m_A % 4 != 0;
    const u32 pageCount = u32(stream.m_Naive->m_Pages.size());
    std::vector<u32> naive(operation.m_A % 16 == 1 ? operation.m_B % (pageCount * 2 + 2) : pageCount);
    std::vector<CGuid> real(naive.size() + 1, CGuid(77)); // one past the view, that must stay
    TMemoryView<CGuid> view(real.data(), u32(naive.size()));
    stream.m_Real->GarbageCollectOldPages(hasReindexer ? &view : null);
    stream.m_Naive->Collect(hasReindexer ? &naive : null);
    for (size_t i = 0; hasReindexer && i < naive.size(); ++i)
        _Differ("reindexer entry " + std::to_string(i), real[i].Get(), naive[i]);
    _Differ("the entry behind the reindexer", real.back().Get(), 77);
}

void CInterpreter::_DeepCopy(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream), &other = _Stream(operation.m_A);
    u64 bytes = 0;
    for (const PNaivePage &page : other.m_Naive->m_Pages)
        bytes += page->m_BlockBytes;
    if (m_World.m_BlockBytes + bytes > kMostBytes)
        return;
    stream.m_Real->DeepCopy(*other.m_Real);
    stream.m_Naive->DeepCopy(*other.m_Naive);
    _AdoptIfRefused(EAdoption::Pages);
}

void CInterpreter::_Swap(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream), &other = _Stream(operation.m_A);
    stream.m_Real->Swap(*other.m_Real);
    stream.m_Naive->Swap(*other.m_Naive);
}

void CInterpreter::_Clear(const SOperation &operation)
{
    _Stream(operation.m_Stream).m_Real->Clear();
    _Stream(operation.m_Stream).m_Naive->Clear();
}

void CInterpreter::_Cleanup(const SOperation &operation)
{
    _Stream(operation.m_Stream).m_Real->Cleanup();
    _Stream(operation.m_Stream).m_Naive->Cleanup();
}

void CInterpreter::_MakePage(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    CNaiveStream &naive = *stream.m_Naive;
    if (naive.m_Loan == null || !_AffordsPages(naive, 1))
        return;
    const bool isListed = operation.m_B % 4 != 0;
    const u32 capacity = operation.m_B % 4 < 2 ? naive.m_PageSize : std::max(PageSizeOf(operation.m_A), 1u);
    const u32 bytes = CNaiveStream::PageBytes(capacity, *naive.m_Loan);
    if (!_Affords(bytes, 1))
        return;
    const CScopedPagesLock lock(*stream.m_Real);
    const PParticlePage real = capacity == naive.m_PageSize
                                   ? stream.m_Real->AllocNewPage_NoLock(isListed)
                                   : stream.m_Real->AllocNewPage_NoLock(capacity, bytes, isListed);
    if (_WasRefused() && real == null)
        return;
    const PNaivePage page = naive.AllocNewPage(capacity, bytes, isListed);
    _Differ("a page", real != null, page != null);
    if (page != null && real != null && !isListed)
        m_Views.push_back({CParticlePageView(*real), {page, 0, 0}});
}

void CInterpreter::_TakeView(const SOperation &operation)
{
    const SPagePair page = _Page(operation, operation.m_A);
    if (page.m_Naive == null || m_Views.size() > 20)
        return;
    const u32 first = operation.m_C == 0 ? 0 : CountOf(operation.m_B) % 70000;
    const u32 count = operation.m_C == 0 ? page.m_Naive->m_Count : CountOf(operation.m_C);
    m_World.Check(first + count <= page.m_Naive->m_Count, "first + count <= page.ParticleCount()");
    m_Views.push_back({CParticlePageView(*page.m_Real, first, count), {page.m_Naive, first, count}});
}

void CInterpreter::_DropView(const SOperation &operation)
{
    if (!m_Views.empty())
        m_Views.erase(m_Views.begin() + operation.m_A % s32(m_Views.size()));
}

void CInterpreter::_BeginRead(const SOperation &operation)
{
    const SPagePair page = _Page(operation, operation.m_A);
    if (page.m_Naive == null || m_Readers.size() > 5)
        return;
    ++page.m_Naive->m_ReaderCount;
    m_Readers.push_back({page.m_Real, std::make_unique<CScopedRawPageReader>(page.m_Real->RawPage()), page.m_Naive});
}

void CInterpreter::_EndRead(const SOperation &operation)
{
    if (m_Readers.empty())
        return;
    const auto reader = m_Readers.begin() + operation.m_A % s32(m_Readers.size());
    --reader->m_Naive->m_ReaderCount;
    m_Readers.erase(reader);
}

bool CInterpreter::_CopyPair(const SOperation &operation, SPagePair &dst, SHeldView &src)
{
    dst = _Page(operation, operation.m_A);
    if (operation.m_B % 4 == 0 && !m_Views.empty())
        src = m_Views[operation.m_A / 16 % m_Views.size()];
    else
    {
        SOperation other = operation;
        other.m_Stream = u8(operation.m_B % 16 == 1 ? operation.m_Stream + 1 : operation.m_Stream);
        const SPagePair page = _Page(other, operation.m_A / 16);
        if (page.m_Naive == null)
            return false;
        const u32 first = page.m_Naive->m_Count == 0 ? 0 : operation.m_B / 16 % page.m_Naive->m_Count;
        const u32 count = page.m_Naive->m_Count - first;
        src = {CParticlePageView(*page.m_Real, first, count), {page.m_Naive, first, count}};
    }
    // Within one page only what is alive, so that source and destination never overlap.
    return dst.m_Naive != null &&
           (dst.m_Naive != src.m_Naive.m_Page || src.m_Naive.m_First + src.m_Naive.m_Count <= dst.m_Naive->m_Count);
}

void CInterpreter::_CopySubRange(const SOperation &operation)
{
    SPagePair dst;
    SHeldView src;
    if (!_CopyPair(operation, dst, src))
        return;
    const u32 start = src.m_Naive.m_First, countBefore = dst.m_Naive->m_Count;
    const u32 count = operation.m_C % 4 == 0 || dst.m_Naive == src.m_Naive.m_Page
                          ? std::min(src.m_Naive.m_Count, dst.m_Naive->Free())
                          : CountOf(operation.m_C);
    const bool real =
        CParticleStream_MainMemory::CopySubRangeToPage(*dst.m_Real, *src.m_Real.OriginalPage(), start, count);
    _Differ("copied", real, CopySubRange(*dst.m_Naive, *src.m_Naive.m_Page, start, count));
    _CountBirths(dst.m_Naive, dst.m_Naive->m_Count - countBefore);
}

void CInterpreter::_CopyPage(const SOperation &operation)
{
    SPagePair dst;
    SHeldView src;
    if (!_CopyPair(operation, dst, src))
        return;
    const u32 countBefore = dst.m_Naive->m_Count;
    const bool real = CParticleStream_MainMemory::CopyPageToPage(*dst.m_Real, src.m_Real);
    _Differ("copied", real, CopyPage(*dst.m_Naive, src.m_Naive));
    _CountBirths(dst.m_Naive, dst.m_Naive->m_Count - countBefore);
}

void CInterpreter::_Transfer(const SOperation &operation)
{
    SPagePair dst;
    SHeldView src;
    if (!_CopyPair(operation, dst, src))
        return;
    const u32 countBefore = dst.m_Naive->m_Count, start = CountOf(operation.m_C);
    const u32 real = CParticleStream_MainMemory::TransferPageToPage(*dst.m_Real, src.m_Real, start);
    _Differ("end of the transfer", real, Transfer(*dst.m_Naive, src.m_Naive, start));
    _CountBirths(dst.m_Naive, dst.m_Naive->m_Count - countBefore);
}

void CInterpreter::_Query(const SOperation &operation)
{
    SPair &stream = _Stream(operation.m_Stream);
    CNaiveStream &naive = *stream.m_Naive;
    const u32 name = operation.m_A % 12;
    _Differ("field of a name", stream.m_Real->StreamId(CStringId(name)).Get(), naive.StreamId(name));
    _Differ("recomputed count", stream.m_Real->_RecomputeParticleCount(), naive.RowSum());
    const u32 pageSize = PageSizeOf(operation.m_B);
    if (naive.m_Loan != null)
        _Differ("bytes of a page", stream.m_Real->_ComputePageSizeInBytes(pageSize, &naive.m_Loan->m_Def),
                CNaiveStream::PageBytes(pageSize, *naive.m_Loan));
    _CompareSums(stream);
}

void CInterpreter::_SetBudget(const SOperation &operation)
{
    m_World.m_Budget = m_World.m_BlockBytes + 1;
    m_World.m_Budget += u64(operation.m_A % 4) * std::max(_Stream(operation.m_Stream).m_Naive->m_PageBytes, 512u);
    m_BudgetLife = 1 + operation.m_B % 4;
    Particles::PageAllocator()->SetMemoryBudget(m_World.m_Budget);
}

} // namespace Model
} // namespace Tessaly
