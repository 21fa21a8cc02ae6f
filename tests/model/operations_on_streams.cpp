// The operations on streams, on views and on the page allocator.
#include <algorithm>
#include <map>

#include "interpreter.h"

namespace Tessaly::Model
{

static void Bind(SState &state, SStreamPair &stream, const SOperation &operation)
{
    CNaiveStream &naive = *stream.m_Naive;
    const PNaiveDefinition old = naive.m_Definition;
    const bool isAgain = operation.m_Kind == EOperation::BindAgain && old != null;
    const PNaiveDefinition made = std::make_shared<SNaiveDefinition>(isAgain ? old->m_Number : operation.m_A);
    PNaiveDefinition bound = made;
    if (isAgain && operation.m_A % 8 < 2)
        bound = operation.m_A % 8 == 0 ? old : null;
    u64 bytes = 0;
    for (u32 i = 0; bound != null && i < naive.m_Pages.size(); ++i)
        bytes += CNaiveStream::PageBytes(naive.m_Pages[i]->m_Capacity, *bound);
    if (!state.Affords(naive.m_Pages.size(), bytes))
        return;
    stream.m_Real->BindStreamDef(bound != null ? &bound->m_Def : null, made->ConstantData(), made->Slots(),
                                 SParticleImplementationCache());
    naive.BindStreamDef(bound, made);
    FollowIfRefused(state, stream, true);
}

static void Allocate(SState &state, SStreamPair &stream, const SOperation &operation)
{
    if (!state.Affords(1, stream.m_Naive->m_PageBytes))
        return;
    const u32 wished = CountOf(operation.m_A), hint = CountOf(operation.m_B);
    const CParticlePageView real = stream.m_Real->AllocateParticlesIFP(wished, hint);
    if (state.m_Refusal.WasMemoryRefused() && real.OriginalPage() == null)
        return; // and nothing has changed
    const SNaiveView naive = stream.m_Naive->AllocateParticlesIFP(wished, hint);
    state.CheckEqual("first particle", real.FirstParticle(), naive.m_First);
    state.CheckEqual("particles in the view", real.ParticleCount(), naive.m_Count);
    state.CheckEqual("a page", real.OriginalPage() != null, naive.m_Page != null);
    if (operation.m_C % 8 == 1 && naive.m_Page != null)
        state.m_Views.push_back({real, naive, null});
}

static void AllocateAll(SState &state, SStreamPair &stream, const SOperation &operation)
{
    const u32 count = CountOf(operation.m_A);
    const u64 pageCount = u64(count) / stream.m_Naive->m_PageSize + 1;
    if (!state.Affords(pageCount, pageCount * stream.m_Naive->m_PageBytes))
        return;
    TArray<CParticlePageView> views;
    const u32 served = stream.m_Real->AllocateParticles(count, views);
    u32 viewSum = 0, expected = 0, expectedViews = 0;
    for (const CParticlePageView &view : views.View())
        viewSum += view.ParticleCount();
    state.CheckEqual("particles in the views", viewSum, served);
    while (const u32 part = expected < count ? stream.m_Naive->AllocateParticlesIFP(count - expected, 1).m_Count : 0)
    {
        expected += part;
        ++expectedViews;
    }
    FollowIfRefused(state, stream, false);
    if (state.m_Refusal.WasMemoryRefused())
        return;
    state.CheckEqual("particles served", served, expected);
    state.CheckEqual("views", views.Count(), expectedViews);
}

static void Resize(SState &state, SStreamPair &stream, const SOperation &operation)
{
    const CNaiveStream &naive = *stream.m_Naive;
    u64 pageCount = 1;
    for (const PNaivePage &page : naive.m_Pages)
        pageCount += page->m_Capacity != naive.m_PageSize ? 1 + page->m_Count / naive.m_PageSize : 0;
    if (!state.Affords(pageCount, pageCount * naive.m_PageBytes))
        return;
    const u32 count = CountOf(operation.m_A), maxPageCount = operation.m_B % 2 == 0 ? count : 1 + count % 3;
    stream.OnBoth([maxPageCount](auto &side) { side.ResizePending(maxPageCount); });
    FollowIfRefused(state, stream, false);
}

static void Collect(SState &state, SStreamPair &stream, const SOperation &operation)
{
    const bool hasReindexer = operation.m_A % 4 != 0;
    const u32 pageCount = u32(stream.m_Naive->m_Pages.size());
    std::vector<u32> naive(operation.m_A % 16 == 1 ? operation.m_B % (pageCount * 2 + 2) : pageCount);
    std::vector<CGuid> real(naive.size() + 1, CGuid(77)); // the last one lies behind the view, and must stay
    TMemoryView<CGuid> view(real.data(), u32(naive.size()));
    stream.m_Real->GarbageCollectOldPages(hasReindexer ? &view : null);
    stream.m_Naive->GarbageCollectOldPages(hasReindexer ? &naive : null);
    state.CheckEqual("the reindexer", !hasReindexer || std::equal(naive.begin(), naive.end(), real.begin()), true);
    state.CheckEqual("the entry behind the reindexer", real.back().Get(), 77);
}

static void DeepCopy(SState &state, SStreamPair &stream, const SOperation &operation)
{
    const SStreamPair &other = state.Stream(operation.m_A);
    u64 bytes = 0;
    for (const PNaivePage &page : other.m_Naive->m_Pages)
        bytes += page->m_BlockBytes;
    if (!state.Affords(other.m_Naive->m_Pages.size(), bytes))
        return;
    stream.m_Real->DeepCopy(*other.m_Real);
    stream.m_Naive->DeepCopy(*other.m_Naive);
    FollowIfRefused(state, stream, true);
}

static void MakePage(SState &state, SStreamPair &stream, const SOperation &operation)
{
    CNaiveStream &naive = *stream.m_Naive;
    if (naive.m_Definition == null)
        return;
    const bool isListed = operation.m_B % 4 != 0;
    const u32 capacity = operation.m_B % 4 < 2 ? naive.m_PageSize : std::max(PageSizeOf(operation.m_A), 1u);
    const u32 bytes = CNaiveStream::PageBytes(capacity, *naive.m_Definition);
    if (!state.Affords(1, bytes))
        return;
    const CScopedPagesLock lock(*stream.m_Real);
    const PParticlePage real = capacity == naive.m_PageSize
                                   ? stream.m_Real->AllocNewPage_NoLock(isListed)
                                   : stream.m_Real->AllocNewPage_NoLock(capacity, bytes, isListed);
    if (state.m_Refusal.WasMemoryRefused() && real == null)
        return;
    const PNaivePage page = naive.AllocNewPage(capacity, isListed);
    state.CheckEqual("a page", real != null, page != null);
    if (page != null && real != null && !isListed)
        state.m_Views.push_back({CParticlePageView(*real), {page, 0, 0}, null});
}

static std::string Printed(const SParticleStreamStats &stats)
{
    char text[500];
    stats.PrintJson(text, sizeof(text));
    return text;
}

static void CompareStatistics(SState &state, SStreamPair &stream)
{
    const CNaiveStream &naive = *stream.m_Naive;
    SParticleStreamStats expected;
    u64 footprint = 0, slotBytes = 0, blockBytes = 0;
    for (const PNaivePage &page : naive.m_Pages)
    {
        footprint += sizeof(CParticlePage) + sizeof(CParticleRawPage_MainMemory) + page->m_BlockBytes +
                     page->m_Columns.size() * sizeof(SParticleStreamField);
        for (const SNaiveColumn &column : page->m_Columns)
        {
            slotBytes += u64(column.m_Field.m_StorageSize) * page->m_Capacity;
            expected.m_LiveBytes += u64(column.m_Field.m_StorageSize) * page->m_Count;
        }
        blockBytes += page->m_BlockBytes;
        expected.m_SlotCount += page->m_Capacity;
        expected.m_PageCount_OutOfSync += page->m_Capacity != naive.m_PageSize ? 1 : 0;
        ++expected.m_PagesByTenth[std::min(u64(page->m_Count) * 10 / page->m_Capacity, u64(9))];
    }
    expected.m_PageCount = u32(naive.m_Pages.size());
    expected.m_ParticleCount = naive.RowSum();
    expected.m_FreeBytes = slotBytes - expected.m_LiveBytes;
    expected.m_PaddingBytes = blockBytes - slotBytes;
    state.CheckEqual("statistics", Printed(stream.m_Real->ComputeStats()), Printed(expected));
    state.CheckEqual("memory report", stream.m_Real->ComputeMemoryUsage().m_ParticleBytes, footprint);
    state.CheckEqual("memory report in all", stream.m_Real->ComputeMemoryUsage().Total(), footprint);
}

static void Query(SState &state, SStreamPair &stream, const SOperation &operation)
{
    CNaiveStream &naive = *stream.m_Naive;
    const u32 name = operation.m_A % 12, pageSize = PageSizeOf(operation.m_B);
    state.CheckEqual("field of a name", stream.m_Real->StreamId(CStringId(name)).Get(), naive.StreamId(name));
    state.CheckEqual("recomputed count", stream.m_Real->_RecomputeParticleCount(), naive.RowSum());
    if (naive.m_Definition != null)
        state.CheckEqual("bytes of a page",
                         stream.m_Real->_ComputePageSizeInBytes(pageSize, &naive.m_Definition->m_Def),
                         CNaiveStream::PageBytes(pageSize, *naive.m_Definition));
    CompareStatistics(state, stream);
}

static void SetBudget(SState &state, SStreamPair &stream, const SOperation &operation)
{
    const u64 left = u64(operation.m_A % 4) * std::max(stream.m_Naive->m_PageBytes, 512u);
    state.m_Refusal.SetBudget(state.m_World.m_BlockBytes + 1 + left, 2 + operation.m_B % 4);
}

static void Update(SState &state, SStreamPair &, const SOperation &operation)
{
    CParticlePageAllocator &allocator = state.m_Runtime.Allocator();
    const bool cleans = operation.m_A % 2 == 0;
    cleans ? allocator.CleanAllFreePages() : allocator.Update();
    const u64 budget = state.m_World.m_Budget, spaceLeft = budget - std::min(budget, state.m_World.m_BlockBytes);
    state.CheckEqual("space left", allocator.SpaceLeft(), budget == 0 ? TNumericTraits<u64>::kMax : spaceLeft);
    CParticlePageAllocator_Stats stats;
    allocator.GetTotalStats(stats);
    state.CheckEqual("block bytes in the statistics", stats.m_BytesInUse, state.m_World.m_BlockBytes);
    state.CheckEqual("blocks in use", stats.m_BlocksInUse, state.m_World.m_Pages.size());
    state.CheckEqual("free block bytes", stats.m_BytesFree, allocator.TotalMemoryAvailable());
    if (cleans)
        state.CheckEqual("free blocks", stats.m_BlocksFree + stats.m_BytesFree, 0);
    if (state.m_Refusal.HasRefusedMemory())
        return;
    state.CheckEqual("requests served", stats.m_AllocCount, state.m_World.m_ServedCount);
    state.CheckEqual("requests refused", stats.m_RefusalCount, state.m_World.m_RefusedCount);
}

static void Drop(SState &state, SStreamPair &, const SOperation &operation)
{
    const bool isReader = operation.m_Kind == EOperation::EndRead;
    std::vector<SViewPair> &views = isReader ? state.m_Readers : state.m_Views;
    if (views.empty())
        return;
    const auto view = views.begin() + s64(operation.m_A % views.size());
    view->m_Naive.m_Page->m_ReaderCount -= isReader ? 1 : 0;
    views.erase(view);
}

static void Swap(SState &state, SStreamPair &stream, const SOperation &operation)
{
    const SStreamPair &other = state.Stream(operation.m_A);
    stream.m_Real->Swap(*other.m_Real);
    stream.m_Naive->Swap(*other.m_Naive);
}

static void RegisterCount(SState &, SStreamPair &stream, const SOperation &operation)
{
    const bool corrects = operation.m_Kind == EOperation::CorrectCount, isBorn = corrects || operation.m_C % 2 == 0;
    const u32 count = corrects ? stream.m_Naive->RowSum() - stream.m_Naive->m_Count : CountOf(operation.m_A);
    stream.OnBoth([=](auto &side) { isBorn ? side.RegisterBornCount(count) : side.RegisterDeadCount(count); });
}

static void Recount(SState &, SStreamPair &stream, const SOperation &)
{
    const CScopedPagesLock lock(*stream.m_Real);
    stream.OnBoth([](auto &side) { side.ComputePendingResizes_NoLock(); });
}

static void Replace(SState &state, SStreamPair &stream, const SOperation &operation)
{
    state.Replace(stream, PageSizeOf(operation.m_A));
}

static void SetPageSize(SState &, SStreamPair &stream, const SOperation &operation)
{
    stream.OnBoth([&](auto &side) { side.SetPageSize(PageSizeOf(operation.m_A)); });
}

static void Clear(SState &, SStreamPair &stream, const SOperation &operation)
{
    stream.OnBoth([&](auto &side) { operation.m_Kind == EOperation::Clear ? side.Clear() : side.Cleanup(); });
}

bool RunOnStream(SState &state, SStreamPair &stream, const SOperation &operation)
{
    static const std::map<EOperation, void (*)(SState &, SStreamPair &, const SOperation &)> kOperations = {
        {EOperation::Bind, &Bind},
        {EOperation::BindAgain, &Bind},
        {EOperation::Replace, &Replace},
        {EOperation::Allocate, &Allocate},
        {EOperation::AllocateAll, &AllocateAll},
        {EOperation::RegisterCount, &RegisterCount},
        {EOperation::CorrectCount, &RegisterCount},
        {EOperation::SetPageSize, &SetPageSize},
        {EOperation::Resize, &Resize},
        {EOperation::Recount, &Recount},
        {EOperation::Collect, &Collect},
        {EOperation::DeepCopy, &DeepCopy},
        {EOperation::Swap, &Swap},
        {EOperation::Clear, &Clear},
        {EOperation::Cleanup, &Clear},
        {EOperation::MakePage, &MakePage},
        {EOperation::DropView, &Drop},
        {EOperation::EndRead, &Drop},
        {EOperation::Query, &Query},
        {EOperation::SetBudget, &SetBudget},
        {EOperation::Update, &Update}};
    const auto found = kOperations.find(operation.m_Kind);
    if (found == kOperations.end())
        return false;
    found->second(state, stream, operation);
    return true;
}

} // namespace Tessaly::Model
