// Iteration over the particles of a stream: by pages, by the values of some fields, with removal, on several threads.
//
//   ForEach<CFloat3, const CFloat3>(stream, position, velocity, [](CFloat3 &p, const CFloat3 &v) { ... });
//   RemoveIf<const float>(stream, age, [](float seconds) { return seconds > 2.0f; });
//
// All operations hold the page lock. Between two pages all but ForEachPageOn give it to a thread that waits in
// LockPagesToRender, unless the caller holds the lock around the call. Pages without particles are skipped; on a stream
// without particles nothing is called or reported. Functions are taken by value. They may write values, but not change
// the stream: after a page in which they allocated, removed, collected, resized, rebound, cleared or swapped, the
// change is reported and the iteration ends.
#pragma once

#include <utility>

#include "Storage/MainMemory/storage_ram_stream.h"

namespace Tessaly
{

namespace Internal
{

// The type of a field's index, once for each type of ForEach and RemoveIf.
template <typename _Type>
struct TFieldId
{
    using Type = CGuid;
};

} // namespace Internal

namespace Particles
{

// Calls fn(const CParticlePageView &) with a view on each whole page, in the order of the list.
// Lock: takes it, and holds it while fn runs.
template <typename _Fn>
void ForEachPage(const CParticleStream_MainMemory &stream, _Fn fn);

// Calls fn for each particle, with a reference to the value of each field: one type and one field index for each
// argument of fn. Constant fields need a const type. A type that is smaller than the value refers to its first bytes.
// Fails: fn is not called, after a report, for a field that is not there or has no data, for a type that is larger than
//        the value or misaligned, and for a type that is not const on a constant field or while a page has readers.
// Lock:  takes it, and holds it while fn runs.
// Cost:  a loop over pointers when all types have their field's storage size.
template <typename... _Types, typename _Fn>
void ForEach(CParticleStream_MainMemory &stream, typename Internal::TFieldId<_Types>::Type... fieldIds, _Fn fn);
// The same for a const stream. All types are const.
template <typename... _Types, typename _Fn>
void ForEach(const CParticleStream_MainMemory &stream, typename Internal::TFieldId<_Types>::Type... fieldIds, _Fn fn);

// Calls predicate once for each particle, as ForEach does, and removes those for which it returns true, as
// CParticlePage::RemoveParticles does. Requests no memory; emptied pages stay in the list.
// Returns the number of removed particles.
// Fails: 0, after a report, as ForEach, and for a page with readers whatever the types.
// Lock:  takes it, and holds it while predicate runs.
// Invalidates: views on the pages.
template <typename... _Types, typename _Predicate>
u32 RemoveIf(CParticleStream_MainMemory &stream, typename Internal::TFieldId<_Types>::Type... fieldIds,
             _Predicate predicate);

// ForEachPage on the caller's threads: calls executor(pageCount, task) once, unless no page has particles. The executor
// calls task(index) once for each index from 0 to pageCount - 1, on any threads, and returns when all of them have
// returned. Several threads call fn at a time; fn must not take the stream's lock, which the calling thread holds.
// Fails: nothing is called, after a report, when memory for the list of pages is refused.
// Lock:  takes it, and holds it until the executor returns.
template <typename _Executor, typename _Fn>
void ForEachPageOn(_Executor &&executor, const CParticleStream_MainMemory &stream, _Fn fn);

} // namespace Particles
} // namespace Tessaly

#include "ps_for_each.inl"
