// All that a host may provide itself, in one place. Everything works without: each service has a default.
//
// set at run time                    | called on              | may it call back?            | changed late
// -----------------------------------|------------------------|------------------------------|-------------------------
// Assert::SetHandler                 | the thread whose check | It may fail a check (and be  | A report under way ends
//   answers a failed check           | failed, under the      | called again) and set        | with the handler that it
//                                    | locks it holds         | another handler. It may look | began with: keep its user
//                                    |                        | at a stream, not change it.  | data alive.
// Mem::SetAllocator                  | any thread, under the  | No. It may fail a check and  | A block is freed by the
//   every byte of the library        | page lock, too         | open a profiler scope.       | allocator of that moment:
//                                    |                        |                              | set it before all else.
// Profiler::CProfiler::SetSink       | the thread of the      | No: it must open no scope,   | A scope ends with the
//   hears every scope begin and end  | scope, under the locks | and so call no operation of  | sink that it began with:
//                                    | it holds               | a stream. It may allocate,   | keep that alive until no
//                                    |                        | when the allocator opens no  | scope of it is open.
//                                    |                        | scope.                       |
// g_KRContainersConfig_MonitorTArrays| -                      | -                            | The sum counts what
//   arrays add up what they grow by  |                        |                              | buffers grow from then
//                                    |                        |                              | on; freed ones stay in.
//
// All of them are called by several threads at a time. Each may be set at any time from any thread (the flag by an
// atomic store, or before a second thread runs).
//
// replaced at link time: a host defines the function itself, as it is declared, in one of its sources. The library then
// calls that one, linked statically or dynamically. Each may be replaced alone, but what belongs together should be:
//
//   tz_assert.h                EvalAssert, EvalAssertFormat, VerifyAssertFalse_Breaks; SetHandler sets nothing then
//   kr_mem.h                   _RawAlloc, _RawRealloc, _RawFree; SetAllocator sets nothing then
//   kr_mem_utils.h             Copy_Overlapped, FillIndices32
//   kr_profiler.h              MainEngineProfiler; null keeps every scope from the sink
//   kr_threads_basics.h        CCurrentThread::ThreadID: a number per thread, never given again, never all ones;
//                              CThreadStats: RegisterCSUnlock is called by the holder right before each release, and must
//                              take no critical section; CCriticalSection's construction, destruction and TryLock
//   kr_containers_internals.h  CContainersMonitorTArrays: told of each change of a buffer before it is made, while the
//                              flag is set
//   kr_refptr.h                CRefCountedObject::_DeleteObject: must ask _KeepForReuse as the default one does
//
// Those are called where the ones above are, on any thread and under any lock, from the first call of the library on.
#pragma once

#include <tz_assert.h>

#include "kr_containers_internals.h"
#include "kr_mem.h"
#include "kr_profiler.h"
#include "kr_profiler_trace.h"
#include "kr_refptr.h"
#include "kr_threads_basics.h"
