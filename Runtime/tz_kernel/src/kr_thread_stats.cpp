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
thread_local bool t_HasAsked = false;

} // namespace

TZ_REPLACEABLE void CThreadStats::RegisterCSUnlock()
{
    u64 *&unlocks = _OwnUnlocks();
    if (!t_HasAsked)
    {
        t_HasAsked = true;
        const u32 slot = __atomic_add_fetch(&g_OwnedSlotCount, 1, __ATOMIC_RELAXED);
        unlocks = slot < kSlotCount ? &g_Slots[slot].m_Unlocks : null;
    }
    __atomic_fetch_add(unlocks != null ? unlocks : &g_Slots[0].m_Unlocks, 1, __ATOMIC_RELAXED);
}

TZ_REPLACEABLE u64 CThreadStats::CSUnlockCount()
{
    u64 count = 0;
    for (const SSlot &slot : g_Slots)
        count += __atomic_load_n(&slot.m_Unlocks, __ATOMIC_RELAXED);
    return count;
}

} // namespace Tessaly
