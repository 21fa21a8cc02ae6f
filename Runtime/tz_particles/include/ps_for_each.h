// Going over all particles of a stream: over its pages, over the values of some fields, with removal, on several
// threads.
//
//   ForEach<CFloat3, const CFloat3>(stream, position, velocity, [](CFloat3 &p, const CFloat3 &v) { ... });
//   RemoveIf<const float>(stream, age, [](float seconds) { return seconds > 2.0f; });
//
// All of it happens under the page lock. Between two pages it is let go when a thread waits in LockPagesToRender: who
// wants a render thread to see all of it or nothing, or has other threads change the stream, holds the lock around the
// call. Pages without particles are left out; on a stream without
// particles, bound or not, nothing is called and nothing reported. The functions are the caller's, taken by value as
// the standard library's algorithms do. They may write values, but not change the stream: whoever allocates, removes,
// collects, resizes, rebinds, clears or swaps in there is reported when the page is done, and that is the last one.
#pragma once

#include <utility>

#include "Storage/MainMemory/storage_ram_stream.h"

namespace Tessaly
{

namespace Internal
{

// A field is given by its index: one for each type of ForEach and RemoveIf.
template <typename _Type>
struct TFieldId
{
    using Type = CGuid;
};

} // namespace Internal

namespace Particles
{

// Calls fn(const CParticlePageView &) with a view on each whole page, in the order of the list.
// Lock: takes it, and holds it while fn runs; render threads come in between two pages.
template <typename _Fn>
void ForEachPage(const CParticleStream_MainMemory &stream, _Fn fn);

// Calls fn with a reference to the value of each of the fields, particle after particle: one type and one field index
// for each argument. A const type only reads, and is the one for constant fields. A type may be smaller than the
// field's value, which it then sees the first bytes of. Dense fields (types of the storage size) compile to a loop over
// pointers.
// Fails: a field that is not there, a type that is larger than the value or misaligned, a type that is not const on a
// constant field or while a page has readers: the first of them is reported, and fn is not called at all.
// Lock: takes it, and holds it while fn runs; render threads come in between two pages.
template <typename... _Types, typename _Fn>
void ForEach(CParticleStream_MainMemory &stream, typename Internal::TFieldId<_Types>::Type... fieldIds, _Fn fn);
// The same for a stream that is only read: all types are const.
template <typename... _Types, typename _Fn>
void ForEach(const CParticleStream_MainMemory &stream, typename Internal::TFieldId<_Types>::Type... fieldIds, _Fn fn);

// Removes the particles for which predicate, called as ForEach does, is true: each is asked once. The page's last
// particles fill the holes. Asks for no memory.
// Returns how many went.
// Fails: as ForEach, also where const types find a page with readers; then nothing is removed and 0 returned.
// Lock: takes it, and holds it while predicate runs; render threads come in between two pages.
// Invalidates views on the pages; emptied pages stay in the list.
template <typename... _Types, typename _Predicate>
u32 RemoveIf(CParticleStream_MainMemory &stream, typename Internal::TFieldId<_Types>::Type... fieldIds,
             _Predicate predicate);

// The same as ForEachPage on threads of the caller's: calls executor(pageCount, task) once, unless there is no page
// with particles. The executor calls task(index) once for each index from 0 to pageCount - 1, on any threads, and
// returns when all have returned. fn is called by several threads at once, and on those it must not take the stream's
// lock, which the calling thread holds.
// Fails: when memory for the list of pages is refused, which is reported, nothing is called.
// Lock: takes it, and holds it until the executor returns.
template <typename _Executor, typename _Fn>
void ForEachPageOn(_Executor &&executor, const CParticleStream_MainMemory &stream, _Fn fn);

} // namespace Particles
} // namespace Tessaly

#include "ps_for_each.inl"
