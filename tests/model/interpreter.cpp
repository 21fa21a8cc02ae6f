#include "interpreter.h"

#include <algorithm>

#include <tz_particles/include/ps_runtime.h>

#include "drivers.h"

namespace Tessaly
{
namespace Model
{

namespace
{

constexpr u64 kMostPageBytes = 6 << 20, kMostBytes = 24 << 20; // of a run, so that it stays quick
constexpr u64 kMostPages = 300;

const SParticleImplementationCache kCache;

} // namespace

CInterpreter::CInterpreter(FnWasRefused wasRefused)
    : m_WasRefused(std::move(wasRefused))
    , m_Streams(kStreamCount)
    , m_Values(1)
{
    for (u32 i = 0; i < kStreamCount; ++i)
        _Rebirth(m_Streams[i], i * 64);
}

CInterpreter::~CInterpreter()
{
    Finish();
    m_Recorder.Take();
}

void CInterpreter::RefuseBlocks(std::function<bool(u32 request)> refuses)
{
    m_RefusesBlock = std::move(refuses);
    m_World.m_AtPageMade = [this]
    {
        if (m_RefusesBlock)
            m_World.m_Budget = m_RefusesBlock(++m_NaiveBlockRequest) ? 1 : 0;
    };
    _BeginBlockRequest();
}

void CInterpreter::OnPageMade()
{
    if (m_RefusesBlock)
        Particles::PageAllocator()->SetMemoryBudget(m_RefusesBlock(++m_RealBlockRequest) ? 1 : 0);
}

// One that was refused is over with its operation.
void CInterpreter::_BeginBlockRequest()
{
    _Differ("blocks asked for", m_RealBlockRequest, m_NaiveBlockRequest);
    m_World.m_AtPageMade();
    OnPageMade();
}

std::string CInterpreter::Run(const SOperation &operation)
{
    if (m_RefusesBlock && m_World.m_RefusedCount != m_RefusedBefore)
        _BeginBlockRequest();
    m_RefusedBefore = m_World.m_RefusedCount;
    if (m_World.m_Budget != 0 && m_BudgetLife-- == 0)
    {
        m_World.m_Budget = 0;
        Particles::PageAllocator()->SetMemoryBudget(0);
    }
    _Do(operation, _Stream(operation.m_Stream));
    m_WasEverRefused = m_WasEverRefused || _WasRefused();
    if (g_Planted != EPlanted::None)
        _Plant(operation, _Stream(operation.m_Stream));
    return _Compare();
}

void CInterpreter::_Plant(const SOperation &operation, SPair &stream)
{
    CParticleStream_MainMemory &real = *stream.m_Real;
    if (g_Planted == EPlanted::Miscount && _WasRefused())
        real.RegisterBornCount_NoConsistencyCheck(1);
    if (g_Planted == EPlanted::ForgottenBlock && m_World.m_RefusedCount != m_RefusedBefore)
    {
        Particles::PageAllocator()->SetMemoryBudget(0);
        m_ForgottenBlock = Particles::PageAllocator()->AllocPage(1);
    }
    const PParticlePage page = real.PageCount() != 0 ? real.Page(CGuid(real.PageCount() - 1)) : null;
    if (page == null || page->Empty() || !page->ReadyToWrite())
        return;
    const u32 last = page->ParticleCount() - 1;
    if (g_Planted == EPlanted::LostRow && operation.m_Kind == EOperation::Resize)
        real.RemoveParticles(CGuid(real.PageCount() - 1), {&last, 1});
    const SParticleStreamField *field = page->StreamsCount() != 0 ? page->Streams().end() - 1 : null;
    if (g_Planted == EPlanted::FlippedBit && operation.m_Kind == EOperation::BindTwin && field != null &&
        !field->IsConstant())
        field->m_RawDataPtr[size_t(field->m_Definition.m_StorageSize) * last] ^= 1;
}

std::string CInterpreter::Finish()
{
    m_RefusesBlock = null;
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

void CInterpreter::_Do(const SOperation &operation, SPair &stream)
{
    const auto onBoth = [&](const auto &call)
    {
        call(*stream.m_Real);
        call(*stream.m_Naive);
    };
    const u32 count = CountOf(operation.m_A), pageSize = PageSizeOf(operation.m_A);
    SPair &other = _Stream(operation.m_A);
    switch (operation.m_Kind)
    {
    case EOperation::Bind:
    case EOperation::BindTwin:
        return _Bind(operation, stream);
    case EOperation::Rebirth:
        return _Rebirth(stream, pageSize);
    case EOperation::Allocate:
        return _Allocate(operation, stream);
    case EOperation::AllocateAll:
        return _AllocateAll(stream, count);
    case EOperation::Misregister:
        return onBoth([&](auto &side)
                      { operation.m_C % 2 == 0 ? side.RegisterBornCount(count) : side.RegisterDeadCount(count); });
    case EOperation::Repair:
        return onBoth([missing = stream.m_Naive->RowSum() - stream.m_Naive->m_Count](auto &side)
                      { side.RegisterBornCount(missing); });
    case EOperation::SetPageSize:
        return onBoth([&](auto &side) { side.SetPageSize(pageSize); });
    case EOperation::Resize:
        return _Resize(stream, operation.m_B % 2 == 0 ? count : 1 + count % 3);
    case EOperation::Recount:
        return _Recount(stream);
    case EOperation::Collect:
        return _Collect(operation, stream);
    case EOperation::DeepCopy:
        return _DeepCopy(stream, other);
    case EOperation::Swap:
        stream.m_Real->Swap(*other.m_Real);
        return stream.m_Naive->Swap(*other.m_Naive);
    case EOperation::Clear:
        return onBoth([](auto &side) { side.Clear(); });
    case EOperation::Cleanup:
        return onBoth([](auto &side) { side.Cleanup(); });
    case EOperation::MakePage:
        return _MakePage(operation, stream);
    case EOperation::Query:
        return _Query(operation, stream);
    case EOperation::SetBudget:
        return _SetBudget(operation, stream);
    case EOperation::Tend:
        return _Tend(operation.m_A % 2 == 0);
    case EOperation::DropView:
        return _DropView(operation.m_A);
    case EOperation::EndRead:
        return _EndRead(operation.m_A);
    default:
        break;
    }
    const SPagePair page = _Page(operation, operation.m_A);
    if (page.m_Naive != null)
        _DoInPage(operation, page);
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

void CInterpreter::_BindTo(SPair &stream, const PLoan &loan, const PLoan &constants)
{
    if (loan != null && !_AffordsRebuild(*stream.m_Naive, *loan))
        return;
    stream.m_Real->BindStreamDef(loan != null ? &loan->m_Def : null, constants->ConstantData(), constants->Slots(),
                                 kCache);
    stream.m_Naive->Bind(loan, constants);
    _AdoptIfRefused(EAdoption::Pages);
}

void CInterpreter::_Bind(const SOperation &operation, SPair &stream)
{
    const PLoan old = stream.m_Naive->m_Loan;
    const bool isTwin = operation.m_Kind == EOperation::BindTwin && old != null;
    const PLoan loan = std::make_shared<SLoan>(isTwin ? old->m_Number : operation.m_A);
    if (isTwin && operation.m_A % 8 < 2)
        _BindTo(stream, operation.m_A % 8 == 0 ? old : null, loan);
    else
        _BindTo(stream, loan, loan);
}

void CInterpreter::_Rebirth(SPair &stream, u32 pageSize)
{
    stream.m_Real.reset();
    stream.m_Naive.reset();
    stream.m_Real = std::make_unique<Tests::CTestStream>(pageSize);
    stream.m_Naive = std::make_unique<CNaiveStream>(m_World, stream.m_Real.get(), pageSize);
}

void CInterpreter::_Allocate(const SOperation &operation, SPair &stream)
{
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

void CInterpreter::_AllocateAll(SPair &stream, u32 count)
{
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
    u32 told = 0;
    for (const CParticlePageView &view : views.View())
        told += view.ParticleCount();
    _Differ("particles in the views", told, served);
    if (!_WasRefused())
    {
        _Differ("particles served", served, expected);
        _Differ("views", views.Count(), viewCount);
    }
}

void CInterpreter::_Resize(SPair &stream, u32 bound)
{
    const CNaiveStream &naive = *stream.m_Naive;
    u64 pageCount = 1;
    for (const PNaivePage &page : naive.m_Pages)
        pageCount += page->m_Capacity != naive.m_PageSize ? 1 + page->m_Count / naive.m_PageSize : 0;
    if (!_AffordsPages(naive, pageCount))
        return;
    stream.m_Real->ResizePending(bound);
    stream.m_Naive->ResizePending(bound);
    _AdoptIfRefused(EAdoption::Rows);
}

void CInterpreter::_Recount(SPair &stream)
{
    const CScopedPagesLock lock(*stream.m_Real);
    stream.m_Real->ComputePendingResizes_NoLock();
    stream.m_Naive->Recount();
}

void CInterpreter::_Collect(const SOperation &operation, SPair &stream)
{
    const bool hasReindexer = operation.m_A % 4 != 0;
    const u32 pageCount = u32(stream.m_Naive->m_Pages.size());
    std::vector<u32> naive(operation.m_A % 16 == 1 ? operation.m_B % (pageCount * 2 + 2) : pageCount);
    std::vector<CGuid> real(naive.size() + 1, CGuid(77)); // one past the view, that must stay
    TMemoryView<CGuid> view(real.data(), u32(naive.size()));
    stream.m_Real->GarbageCollectOldPages(hasReindexer ? &view : null);
    stream.m_Naive->Collect(hasReindexer ? &naive : null);
    for (size_t i = 0; hasReindexer && i < naive.size(); ++i)
        _Differ("reindexer entry", real[i].Get(), naive[i], s64(i));
    _Differ("the entry behind the reindexer", real.back().Get(), 77);
}

void CInterpreter::_DeepCopy(SPair &stream, SPair &other)
{
    u64 bytes = 0;
    for (const PNaivePage &page : other.m_Naive->m_Pages)
        bytes += page->m_BlockBytes;
    if (m_World.m_BlockBytes + bytes > kMostBytes)
        return;
    stream.m_Real->DeepCopy(*other.m_Real);
    stream.m_Naive->DeepCopy(*other.m_Naive);
    _AdoptIfRefused(EAdoption::Pages);
}

void CInterpreter::_MakePage(const SOperation &operation, SPair &stream)
{
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

void CInterpreter::_Query(const SOperation &operation, SPair &stream)
{
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

void CInterpreter::_SetBudget(const SOperation &operation, SPair &stream)
{
    m_World.m_Budget = m_World.m_BlockBytes + 1;
    m_World.m_Budget += u64(operation.m_A % 4) * std::max(stream.m_Naive->m_PageBytes, 512u);
    m_BudgetLife = 1 + operation.m_B % 4;
    Particles::PageAllocator()->SetMemoryBudget(m_World.m_Budget);
}

void CInterpreter::_Tend(bool cleansOut)
{
    CParticlePageAllocator &allocator = *Particles::PageAllocator();
    cleansOut ? allocator.CleanAllFreePages() : allocator.Update();
    CParticlePageAllocator_Stats stats;
    allocator.GetTotalStats(stats);
    _Differ("block bytes told", stats.m_BytesInUse, m_World.m_BlockBytes);
    _Differ("blocks told", stats.m_BlocksInUse, m_World.m_BlockCount);
    _Differ("free block bytes told", stats.m_BytesFree, allocator.TotalMemoryAvailable());
    const u64 spaceLeft = m_World.m_Budget - std::min(m_World.m_Budget, m_World.m_BlockBytes);
    _Differ("space left", allocator.SpaceLeft(), m_World.m_Budget == 0 ? TNumericTraits<u64>::kMax : spaceLeft);
    if (cleansOut)
        _Differ("free blocks", stats.m_BlocksFree + stats.m_BytesFree, 0);
    if (m_WasEverRefused)
        return;
    _Differ("requests served", stats.m_AllocCount, m_World.m_TakenCount);
    _Differ("requests refused", stats.m_RefusalCount, m_World.m_RefusedCount);
}

} // namespace Model
} // namespace Tessaly
