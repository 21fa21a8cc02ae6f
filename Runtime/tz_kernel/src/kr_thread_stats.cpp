// Thread statistics: counters spread over cache lines, so that threads do not slow each other down.
#include "../include/kr_threads_basics.h"

namespace Tessaly
{

namespace
{

constexpr u32 kSlotCount = 64;

struct alignas(64) SSlot
{
    u64 m_Unlocks;
};

// The threads with the first ids count in a slot of their own, all others together in slot 0, which is nobody's id.
SSlot g_Slots[kSlotCount];
thread_local u64 *t_OwnUnlocks __attribute__((tls_model("initial-exec"))) = null; // null: not known, or none

TZ_COLD void RegisterWithoutOwnSlot()
{
    const u32 threadId = CCurrentThread::ThreadID();
    const bool hasOwnSlot = threadId != 0 && threadId < kSlotCount;
    u64 *unlocks = &g_Slots[hasOwnSlot ? threadId : 0].m_Unlocks;
    __atomic_fetch_add(unlocks, 1, __ATOMIC_RELAXED);
    t_OwnUnlocks = hasOwnSlot ? unlocks : null;
}

} // namespace

TZ_REPLACEABLE void CThreadStats::RegisterCSUnlock()
{
    u64 *unlocks = t_OwnUnlocks;
    if (unlocks == null)
        return RegisterWithoutOwnSlot();
    __atomic_store_n(unlocks, __atomic_load_n(unlocks, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
}

TZ_REPLACEABLE u64 CThreadStats::CSUnlockCount()
{
    u64 count = 0;
    for (const SSlot &slot : g_Slots)
        count += __atomic_load_n(&slot.m_Unlocks, __ATOMIC_RELAXED);
    return count;
}

} // namespace Tessaly
