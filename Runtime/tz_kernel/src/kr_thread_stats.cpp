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

SSlot g_Slots[kSlotCount]; // a thread counts in the slot of its id

} // namespace

void CThreadStats::RegisterCSUnlock()
{
    __atomic_fetch_add(&g_Slots[CCurrentThread::ThreadID() % kSlotCount].m_Unlocks, 1, __ATOMIC_RELAXED);
}

u64 CThreadStats::CSUnlockCount()
{
    u64 count = 0;
    for (const SSlot &slot : g_Slots)
        count += __atomic_load_n(&slot.m_Unlocks, __ATOMIC_RELAXED);
    return count;
}

} // namespace Tessaly
