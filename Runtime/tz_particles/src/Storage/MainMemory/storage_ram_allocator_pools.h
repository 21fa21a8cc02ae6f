// The inside of the page allocator: constants of the size classes, a pool's lock, a thread's front. The library's own;
// not installed.
#pragma once

#include <sched.h>

#include <tz_particles/include/Storage/MainMemory/storage_ram_allocator.h>

namespace Tessaly
{
namespace PageClasses
{

constexpr u32 kStepsPerDoubling = CParticlePageAllocator::kSlotsPerDoubling;
constexpr u32 kMinAllocSizeLog2 = 9;
constexpr u32 kUsedSlotCount = 11 * kStepsPerDoubling + 1; // 512 bytes to 1 MiB: eleven doublings
static_assert(CParticlePageAllocator::kMinAllocSize == 1u << kMinAllocSizeLog2, "the first class");
static_assert(CParticlePageAllocator::kMaxAllocSize == CParticlePageAllocator::kMinAllocSize << 11, "the last class");
static_assert(kUsedSlotCount <= CParticlePageAllocator::kPoolSlotCount, "every class has a slot");

} // namespace PageClasses

// 32 up to 64 KiB, then half as many for each doubling.
inline u32 CParticlePageAllocator::_BatchSize(u32 slotId)
{
    constexpr u32 kFirstLargeDoubling = 7;
    return 32u >> (TZMax(slotId / PageClasses::kStepsPerDoubling, kFirstLargeDoubling) - kFirstLargeDoubling);
}

// Holds the lock of one class for a scope. Spins, since the holder is a few instructions from its end; yields in case
// it was preempted there.
class CParticlePageAllocator::CPoolLock : public CNonCopyable
{
public:
    explicit CPoolLock(SBlockPool &pool)
        : m_Pool(pool)
    {
        while (__atomic_exchange_n(&m_Pool.m_IsLocked, 1u, __ATOMIC_ACQUIRE) != 0)
            sched_yield();
    }
    ~CPoolLock() { __atomic_store_n(&m_Pool.m_IsLocked, 0u, __ATOMIC_RELEASE); }

private:
    SBlockPool &m_Pool;
};

// One class of a front: up to two batches. Waiting in it: m_GiveCount - m_TakeCount + m_MovedInCount.
struct alignas(64) CParticlePageAllocator::SFrontClass
{
    CParticleRawPage_MainMemory *m_First = null; // the batch in use
    CParticleRawPage_MainMemory *m_Spare = null; // another one, or null
    u32 m_Room = 0;                              // raw pages that the batch in use may grow by
    u32 m_SpareCount = 0;
    // Since the front was emptied last.
    TSharedField<u64> m_GiveCount;
    TSharedField<u64> m_TakeCount;
    TSharedField<u64> m_MovedInCount; // from the pool, less those moved there

    u64 WaitingCount() const { return m_GiveCount - m_TakeCount + m_MovedInCount; }
    u64 UsedCount() const { return m_TakeCount - m_GiveCount; } // in use by its account; may be below 0
};

// What one thread has let go and not asked for again. Only its thread touches it while the fronts are open, but for the
// counts, which anybody may read under the lock of all fronts.
struct CParticlePageAllocator::SThreadFront
{
    u64 m_Serial = 0;        // of the allocator that it was bound to last, which may be gone; its thread's own
    u32 m_IsInUse = 0;       // by its thread, and written by no one else
    bool m_IsClosed = false; // its thread is at its end
    CParticlePageAllocator *m_Allocator = null; // that it is bound to; under the lock of all fronts
    SThreadFront *m_Next = null;                // among all that are bound; likewise
    SFrontClass m_Classes[PageClasses::kUsedSlotCount];

    static SThreadFront &OfThisThread()
    {
        static thread_local SThreadFront front;
        return front;
    }
};

// The use of a thread's own front for a scope.
class CParticlePageAllocator::CFrontUse : public CNonCopyable
{
public:
    CFrontUse(SThreadFront &front, const CParticlePageAllocator &allocator)
        : m_Front(front)
    {
        __atomic_store_n(&m_Front.m_IsInUse, 1u, __ATOMIC_RELAXED);
        __atomic_signal_fence(__ATOMIC_SEQ_CST); // the processor's own order is what the other side's barrier is for
        m_IsGranted = allocator.m_FrontsAreOpen;
    }
    ~CFrontUse() { __atomic_store_n(&m_Front.m_IsInUse, 0u, __ATOMIC_RELEASE); }

    bool IsGranted() const { return m_IsGranted; }

private:
    SThreadFront &m_Front;
    bool m_IsGranted;
};

// A raw page of the batch at hand. Null when there is none, and when the front is not the thread's to use.
inline CParticleRawPage_MainMemory *CParticlePageAllocator::_TakeFromFront(u32 slotId)
{
    SThreadFront &front = SThreadFront::OfThisThread();
    if (front.m_Serial != m_Serial)
        return null;
    const CFrontUse use(front, *this);
    SFrontClass &frontClass = front.m_Classes[slotId];
    CParticleRawPage_MainMemory *rawPage = use.IsGranted() ? frontClass.m_First : null;
    if (rawPage != null)
    {
        frontClass.m_First = rawPage->m_Next;
        ++frontClass.m_Room;
        ++frontClass.m_TakeCount;
    }
    return rawPage;
}

// False when the batch at hand has no room, and when the front is not the thread's to use.
inline bool CParticlePageAllocator::_GiveToFront(CParticleRawPage_MainMemory &rawPage)
{
    SThreadFront &front = SThreadFront::OfThisThread();
    if (front.m_Serial != m_Serial)
        return false;
    const CFrontUse use(front, *this);
    SFrontClass &frontClass = front.m_Classes[rawPage.m_SlotId];
    if (!use.IsGranted() || frontClass.m_Room == 0)
        return false;
    rawPage.m_Next = frontClass.m_First;
    frontClass.m_First = &rawPage;
    --frontClass.m_Room;
    ++frontClass.m_GiveCount;
    return true;
}

} // namespace Tessaly
