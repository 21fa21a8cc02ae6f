// All that a host may provide itself. Each service has a default, and none has to be provided.
//
// Set at run time
//
// hook                       | called on                        | may call back                | changed late
// ---------------------------|----------------------------------|------------------------------|-------------
// Assert::SetHandler         | the thread whose check failed    | see 1                        | see 2
// Mem::SetAllocator          | any thread, under page locks too | no; it may open a scope      | see 3
// Profiler::CProfiler::SetSink | the scope's thread             | no; it must open no scope    | see 4
// g_KRContainersConfig_MonitorTArrays | not called              | -                            | see 5
//
// Several threads may call a hook at a time. Any thread may set one at any time; set the flag by an atomic store.
//
// 1. A handler is called under the locks that the failed check holds. It may fail checks itself, and is then called
//    again; it may set another handler. It may read a stream but must not change it.
// 2. A report that has begun ends with the same handler: keep its user data alive until then.
// 3. A block is freed by the allocator that is set at that time: set yours before any other call of the library, or
//    forward blocks that are not yours.
// 4. A scope ends with the sink that it began with: keep the sink alive until no scope is open. Taking a page lock
//    opens a scope: a sink that calls operations of a stream recurses without end.
// 5. The total counts what the buffers of arrays grow by while the flag is set. Freed buffers are not subtracted.
//
// Replaced at link time
//
// A host defines the function with the same declaration in one of its sources. The library, linked statically or
// dynamically, then calls that one from its first call on, on any thread and under any lock.
//
// - tz_assert.h: EvalAssert, EvalAssertFormat, VerifyAssertFalse_Breaks. SetHandler then has no effect.
// - kr_mem.h: _RawAlloc, _RawRealloc and _RawFree, all three, and _RawDiscard, which is optional. SetAllocator then has
//   no effect.
// - kr_mem_utils.h: Copy_Overlapped, FillIndices32.
// - kr_profiler.h: MainEngineProfiler. If it returns null, no sink is notified.
// - kr_threads_basics.h: CCurrentThread::ThreadID (one number per thread, never reused, never all ones; locks call it
//   once per thread); CThreadStats (the holder calls RegisterCSUnlock right before each release; it must take no
//   critical section); the constructor, the destructor and TryLock of CCriticalSection.
// - kr_containers_internals.h: CContainersMonitorTArrays. While the flag is set, it is called before each growth of a
//   buffer.
// - kr_refptr.h: CRefCountedObject::_DeleteObject.
#pragma once

#include <tz_assert.h>

#include "kr_containers_internals.h"
#include "kr_mem.h"
#include "kr_profiler.h"
#include "kr_profiler_trace.h"
#include "kr_refptr.h"
#include "kr_threads_basics.h"
