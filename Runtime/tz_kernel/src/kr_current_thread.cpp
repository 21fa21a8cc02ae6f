// Thread ids: numbers from a counter, assigned at a thread's first call.
#include "../include/kr_threads_basics.h"

namespace Tessaly
{

TZ_REPLACEABLE u32 CCurrentThread::ThreadID()
{
    static u32 lastId = 0;
    // The model avoids a call in a shared library.
    static thread_local u32 id __attribute__((tls_model("initial-exec"))) = 0;
    if (TZ_UNLIKELY(id == 0))
        id = __atomic_add_fetch(&lastId, 1, __ATOMIC_RELAXED);
    return id;
}

} // namespace Tessaly
