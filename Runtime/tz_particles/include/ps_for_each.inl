// Bodies of ps_for_each.h.
#pragma once

#include "ps_for_each.h"

namespace Tessaly
{

namespace Internal
{

// The type that a field is accessed by.
struct SColumnRequest
{
    CGuid m_FieldId;
    u32 m_TypeSize;      // bytes
    u32 m_TypeAlignment; // bytes
    bool m_IsWritten;
};

using TColumnRequests = TMemoryView<const SColumnRequest>;

// Whether the page has a fitting column for each request. Reports the first one without.
TZ_API bool HasColumns(const CParticlePage &page, const TColumnRequests &requests);
// Whether the first page with particles has the columns, and no page that will be written has readers. Reports the
// first that fails. Expects the lock.
TZ_API bool CanServe(const CParticleStream_MainMemory &stream, const TColumnRequests &requests, bool removesParticles);

// Iterates over the pages with particles, and detects changes of the stream. Expects the lock.
class TZ_API CPageWalk : public CNonCopyable
{
public:
    explicit CPageWalk(const CParticleStream_MainMemory &stream);

    bool Next();        // goes to the next page; false when there is none, or the stream has changed
    bool CheckIntact(); // false when the stream has changed, which is reported once
    void CountRemoved(u32 count);

    CGuid PageId() const { return m_PageId; }
    const CParticlePage &Page() const { return *m_Page.Get(); }

private:
    const CParticleStream_MainMemory &m_Stream;
    PParticlePage m_Page;
    CGuid m_PageId;
    bool m_IsIntact;
    u32 m_PageCount;
    u32 m_StreamParticleCount;
    u32 m_PageParticleCount;
};

// A list of the pages with particles, for tasks on several threads. Expects the lock.
class TZ_API CPageTasks : public CNonCopyable
{
public:
    explicit CPageTasks(const CParticleStream_MainMemory &stream);

    u32 Count() const { return m_Pages.Count(); }
    const CParticlePageView *Find(u32 index) const; // null, after a report, for an index out of range
    void CheckIntact() const;                       // reports that the stream has changed

private:
    const CParticleStream_MainMemory &m_Stream;
    u32 m_PageCount;
    TArray<CParticlePageView> m_Pages;
};

// A column with a stride; 0 for a constant field.
template <typename _Type>
struct TStridedColumn
{
    u8 *m_Start;
    size_t m_Stride;

    _Type &operator[](size_t row) const { return *reinterpret_cast<_Type *>(m_Start + row * m_Stride); }
};

// Not inlined, and with a copy of fn if that is equivalent: then the compiler can keep the members of fn in registers
// over all rows. Three columns of floats in the cache take 0.7 of the time.
template <typename _Fn, typename... _Columns>
TZ_NOINLINE void VisitRows(u32 first, u32 end, _Fn &fn, _Columns... columns)
{
    constexpr bool isCopied =
        std::is_trivially_copyable<_Fn>::value && std::is_invocable<const _Fn &, decltype(columns[0])...>::value;
    std::conditional_t<isCopied, const _Fn, _Fn &> called = fn;
    for (size_t row = first; row < end; ++row)
        called(columns[row]...);
}

// Calls fn with the values of rows first to end - 1 of the page. Returns false, after a report, without the columns.
template <typename... _Types, typename _Fn, size_t... _Indices>
TZ_FORCEINLINE bool VisitColumns(const CParticlePage &page, const SColumnRequest *requests, u32 first, u32 end, _Fn &fn,
                                 std::index_sequence<_Indices...>)
{
    const SParticleStreamField *fields = page.Streams().Data();
    const SParticleStreamField *const columns[] = {fields + requests[_Indices].m_FieldId.Get()...};
    const auto isDense = [](const SParticleStreamField &field, size_t typeSize)
    { return field.m_Definition.m_StorageSize == typeSize && field.m_RawDataPtr != null; };
    if (TZ_LIKELY((isDense(*columns[_Indices], sizeof(_Types)) && ...)))
        VisitRows(first, end, fn, reinterpret_cast<_Types *>(columns[_Indices]->m_RawDataPtr)...);
    else if (HasColumns(page, {requests, sizeof...(_Types)}))
        VisitRows(
            first, end, fn,
            TStridedColumn<_Types>{columns[_Indices]->m_RawDataPtr, columns[_Indices]->m_Definition.m_StorageSize}...);
    else
        return false;
    return true;
}

template <typename... _Types, typename _Fn>
TZ_FORCEINLINE void ForEach(const CParticleStream_MainMemory &stream,
                            const SColumnRequest (&requests)[sizeof...(_Types)], _Fn &fn)
{
    const CScopedPagesLock lock(stream);
    if (!CanServe(stream, {requests, sizeof...(_Types)}, false))
        return;
    for (CPageWalk walk(stream); walk.Next();)
    {
        if (!VisitColumns<_Types...>(walk.Page(), requests, 0, walk.Page().ParticleCount(), fn,
                                     std::index_sequence_for<_Types...>()))
            return;
    }
}

template <typename _Type>
SColumnRequest RequestColumn(CGuid fieldId)
{
    static_assert(std::is_object<_Type>::value, "types of values, const where they are only read");
    return {fieldId, sizeof(_Type), alignof(_Type), !std::is_const<_Type>::value};
}

} // namespace Internal

namespace Particles
{

template <typename _Fn>
void ForEachPage(const CParticleStream_MainMemory &stream, _Fn fn)
{
    const CScopedPagesLock lock(stream);
    for (Internal::CPageWalk walk(stream); walk.Next();)
        fn(CParticlePageView(walk.Page()));
}

template <typename... _Types, typename _Fn>
void ForEach(CParticleStream_MainMemory &stream, typename Internal::TFieldId<_Types>::Type... fieldIds, _Fn fn)
{
    Internal::ForEach<_Types...>(stream, {Internal::RequestColumn<_Types>(fieldIds)...}, fn);
}

template <typename... _Types, typename _Fn>
void ForEach(const CParticleStream_MainMemory &stream, typename Internal::TFieldId<_Types>::Type... fieldIds, _Fn fn)
{
    static_assert((std::is_const<_Types>::value && ...), "a const stream is only read: all types are const");
    Internal::ForEach<_Types...>(stream, {Internal::RequestColumn<_Types>(fieldIds)...}, fn);
}

template <typename... _Types, typename _Predicate>
u32 RemoveIf(CParticleStream_MainMemory &stream, typename Internal::TFieldId<_Types>::Type... fieldIds,
             _Predicate predicate)
{
    const Internal::SColumnRequest requests[] = {Internal::RequestColumn<_Types>(fieldIds)...};
    const CScopedPagesLock lock(stream);
    if (!Internal::CanServe(stream, {requests, sizeof...(_Types)}, true))
        return 0;
    constexpr u32 kRowsAtATime = 1024;
    u32 rows[kRowsAtATime];
    u32 removedCount = 0;
    for (Internal::CPageWalk walk(stream); walk.Next();)
    {
        // From the page's end to its start: a removal moves only particles that predicate has seen.
        for (u32 first, end = walk.Page().ParticleCount(); end != 0 && walk.CheckIntact(); end = first)
        {
            first = end - TZMin(end, kRowsAtATime);
            u32 row = first;
            u32 count = 0;
            auto collect = [&](_Types &...values)
            {
                rows[count] = row++;
                count += predicate(values...) ? 1 : 0;
            };
            if (!Internal::VisitColumns<_Types...>(walk.Page(), requests, first, end, collect,
                                                   std::index_sequence_for<_Types...>()))
                return removedCount;
            if (count == 0 || !walk.CheckIntact())
                continue;
            count = stream.RemoveParticles(walk.PageId(), {rows, count});
            walk.CountRemoved(count);
            removedCount += count;
        }
    }
    return removedCount;
}

template <typename _Executor, typename _Fn>
void ForEachPageOn(_Executor &&executor, const CParticleStream_MainMemory &stream, _Fn fn)
{
    const CScopedPagesLock lock(stream);
    const Internal::CPageTasks tasks(stream);
    if (tasks.Count() == 0)
        return;
    executor(tasks.Count(),
             [&tasks, &fn](u32 index)
             {
                 if (const CParticlePageView *view = tasks.Find(index))
                     fn(*view);
             });
    tasks.CheckIntact();
}

} // namespace Particles
} // namespace Tessaly
