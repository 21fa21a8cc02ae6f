// All that a host may provide itself, in one place. Everything works without: each service has a default.
//
// Set at run time
//
// hook                       | called on                        | may call back                | changed late
// ---------------------------|----------------------------------|------------------------------|-------------
// Assert::SetHandler         | the thread whose check failed    | see 1                        | see 2
// Mem::SetAllocator          | any thread, under page locks too | no; it may open a scope      | see 3
// Profiler::CProfiler::SetSink | the scope's thread             | no; it must open no scope    | see 4
// g_KRContainersConfig_MonitorTArrays | no one                  | -                            | see 5
//
// Several threads call at a time. Each hook may be set at any time from any thread; the flag by an atomic store.
//
// 1. A handler runs under the locks of the check that failed. It may fail checks itself, and is called again; it may
//    set another handler. It may look at a stream, not change it.
// 2. A report under way ends with the handler that it began with: keep that one's user data alive.
// 3. A block is freed by the allocator of that moment: set it before all else, or forward what is not yours.
// 4. A scope ends with the sink that it began with: keep it alive until none is open. Whatever takes a page lock opens
//    a scope: a sink that calls an operation of a stream calls itself without end.
// 5. The sum counts what arrays' buffers grow by from then on; freed ones stay in it.
//
// Replaced at link time
//
// A host defines the function itself, as it is declared, in one of its sources. The library then calls that one, linked
// statically or dynamically, from its first call on, on any thread and under any lock.
//
// - tz_assert.h: EvalAssert, EvalAssertFormat, VerifyAssertFalse_Breaks. SetHandler sets nothing for those.
// - kr_mem.h: _RawAlloc, _RawRealloc and _RawFree, together, and _RawDiscard where it wants to hear of it.
//   SetAllocator sets nothing then.
// - kr_mem_utils.h: Copy_Overlapped, FillIndices32.
// - kr_profiler.h: MainEngineProfiler. A null one keeps every scope from the sink.
// - kr_threads_basics.h: CCurrentThread::ThreadID (a number per thread, always the same one, never given again, never
//   all ones; locks ask each thread once); CThreadStats (RegisterCSUnlock is called by the holder right before each
//   release, and must take no critical section); CCriticalSection's construction, destruction and TryLock.
// - kr_containers_internals.h: CContainersMonitorTArrays. Told of each change of a buffer's size before it is made,
//   while the flag is set.
// - kr_refptr.h: CRefCountedObject::_DeleteObject.
#pragma once

#include <tz_assert.h>

#include "kr_containers_internals.h"
#include "kr_mem.h"
#include "kr_profiler.h"
#include "kr_profiler_trace.h"
#include "kr_refptr.h"
#include "kr_threads_basics.h"
