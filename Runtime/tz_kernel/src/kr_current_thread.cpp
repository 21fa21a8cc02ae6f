// Thread ids: numbers from a counter, given at a thread's first call.
#include "../include/kr_threads_basics.h"

namespace Tessaly
{

namespace
{

u32 g_LastThreadID = 0;
// 0: not given yet. Read at every lock: in a shared library the model spares a call.
thread_local u32 t_ThreadID __attribute__((tls_model("initial-exec"))) = 0;

TZ_COLD u32 GiveThreadID()
{
    t_ThreadID = __atomic_add_fetch(&g_LastThreadID, 1, __ATOMIC_RELAXED);
    return t_ThreadID;
}

} // namespace

TZ_REPLACEABLE u32 CCurrentThread::ThreadID() { return t_ThreadID != 0 ? t_ThreadID : GiveThreadID(); }

} // namespace Tessaly
