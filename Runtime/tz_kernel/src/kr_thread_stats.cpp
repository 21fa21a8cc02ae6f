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

// The first threads that come count in a slot of their own, all others together in slot 0.
SSlot g_Slots[kSlotCount];
u32 g_OwnedSlotCount = 0;
thread_local u64 *t_OwnUnlocks __attribute__((tls_model("initial-exec"))) = null; // null: not known, or none
thread_local bool t_HasAsked = false;

TZ_COLD void RegisterWithoutOwnSlot()
{
    if (!t_HasAsked)
    {
        t_HasAsked = true;
        const u32 slot = __atomic_add_fetch(&g_OwnedSlotCount, 1, __ATOMIC_RELAXED);
        t_OwnUnlocks = slot < kSlotCount ? &g_Slots[slot].m_Unlocks : null;
    }
    __atomic_fetch_add(t_OwnUnlocks != null ? t_OwnUnlocks : &g_Slots[0].m_Unlocks, 1, __ATOMIC_RELAXED);
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
