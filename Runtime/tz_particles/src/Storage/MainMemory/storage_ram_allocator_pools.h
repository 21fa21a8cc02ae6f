// The inside of the page allocator: constants of the size classes, a pool's lock, a thread's front. The library's own;
// not installed.
#pragma once

#include <sched.h>

#include <tz_kernel/include/kr_address_sanitizer.h>
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

constexpr u32 kBlockAlignment = 64;
constexpr u32 kMaxBatchSize = 62; // what a smallest block can list, and 1 KiB for two in a front

// _SizeToSlotId of every size up to kMaxAllocSize; no class ends between two multiples of the step.
struct SSlotIds
{
    static constexpr u32 kStep = CParticlePageAllocator::kMinAllocSize / kStepsPerDoubling;

    u8 m_SlotIds[CParticlePageAllocator::kMaxAllocSize / kStep + 1];

    constexpr SSlotIds()
        : m_SlotIds()
    {
        u32 size = 0;
        for (u8 &slotId : m_SlotIds)
        {
            slotId = u8(CParticlePageAllocator::_SizeToSlotId(size));
            size += kStep;
        }
    }
};

inline constexpr SSlotIds kSlotIds;

// Requires a size of up to kMaxAllocSize.
inline u32 SlotIdOf(u32 sizeInBytes)
{
    return kSlotIds.m_SlotIds[(sizeInBytes + SSlotIds::kStep - 1) / SSlotIds::kStep];
}

} // namespace PageClasses

// A header takes the 64 bytes in front of its block.
inline CParticlePageAllocator::SBlockHeader *CParticlePageAllocator::_Header(u8 *block)
{
    return reinterpret_cast<SBlockHeader *>(block - PageClasses::kBlockAlignment);
}

inline u8 *CParticlePageAllocator::_Block(SBlockHeader *header)
{
    return reinterpret_cast<u8 *>(header) + PageClasses::kBlockAlignment;
}

// As many as there may be up to 32 KiB, from there on half as many for each doubling: 2 of 1 MiB.
inline u32 CParticlePageAllocator::_BatchSize(u32 slotId)
{
    constexpr u32 kFirstLargeDoubling = 6;
    const u32 doubling = TZMax(slotId / PageClasses::kStepsPerDoubling, kFirstLargeDoubling);
    return TZMin(64u >> (doubling - kFirstLargeDoubling), PageClasses::kMaxBatchSize);
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

// A block that waits: by its raw page when that was let go, by its address and a mark when it was let go bare, so that
// who asks for the same again touches neither the header nor what else it does not need.
struct CParticlePageAllocator::SWaiting
{
    explicit SWaiting(CParticleRawPage_MainMemory *rawPage)
        : m_Address(reinterpret_cast<ureg>(rawPage))
    {
    }
    explicit SWaiting(u8 *block)
        : m_Address(reinterpret_cast<ureg>(block) | kBareMark)
    {
    }
    SWaiting() = default;

    u8 *Block() const
    {
        if (TZ_LIKELY(_IsBare()))
            return _BareBlock();
        return reinterpret_cast<CParticleRawPage_MainMemory *>(m_Address)->m_Data;
    }
    CParticleRawPage_MainMemory *RawPage() const
    {
        if (TZ_UNLIKELY(_IsBare()))
            return _Header(_BareBlock())->m_RawPage;
        return reinterpret_cast<CParticleRawPage_MainMemory *>(m_Address);
    }

private:
    static constexpr ureg kBareMark = 1;

    bool _IsBare() const { return (m_Address & kBareMark) != 0; }
    u8 *_BareBlock() const { return reinterpret_cast<u8 *>(m_Address - kBareMark); }

    ureg m_Address;
};

// One class of a front: up to two batches of blocks, the oldest first. In use by its account, since it was emptied
// last: m_MovedInCount - m_Count, which may be below 0. Both change under the pool's lock when blocks move.
struct CParticlePageAllocator::SFrontClass
{
    TSharedField<u64> m_Count;        // blocks that wait here
    TSharedField<u64> m_MovedInCount; // from the pool, less those moved there
    TSharedField<u64> m_TakeCount;    // blocks handed out
    u64 m_Capacity;                   // two batches; 0 until something comes
    SWaiting m_Waiting[2 * PageClasses::kMaxBatchSize];

    SFrontClass()
        : m_Capacity(0)
    {
    }
};

// What one thread has let go and not asked for again. Only its thread touches it while it is open, but for the counts,
// which anybody may read under the lock of all fronts.
struct CParticlePageAllocator::SThreadFront
{
    // Written under the lock of all fronts.
    TSharedField<bool, __ATOMIC_ACQUIRE, __ATOMIC_RELEASE> m_IsOpen;
    u32 m_IsInUse;                       // by its thread, and written by no one else
    CParticlePageAllocator *m_Allocator; // whose blocks wait here; this and the next ones under the lock of all fronts
    const SThread *m_Thread;             // whose front it is; it may have ended
    SThreadFront *m_Next;                // among the fronts of all allocators
    void *m_Memory;                      // from the memory services
    // The last one, of blocks that are not pooled, stays empty.
    alignas(PageClasses::kBlockAlignment) SFrontClass m_Classes[PageClasses::kUsedSlotCount + 1];

    explicit SThreadFront(void *memory)
        : m_IsOpen(false)
        , m_IsInUse(0)
        , m_Allocator(null)
        , m_Thread(null)
        , m_Next(null)
        , m_Memory(memory)
    {
    }

    // m_Classes[slotId], by an address that is computed once.
    SFrontClass &Class(u32 slotId)
    {
        static_assert(sizeof(SFrontClass) == 1024, "a shift finds it");
        return *reinterpret_cast<SFrontClass *>(reinterpret_cast<ureg>(m_Classes) + ureg(slotId) * sizeof(SFrontClass));
    }
};

// What a thread knows of its front. The front itself may be gone, and nobody looks into it but by its allocator's id:
// then the allocator is alive, and with it the front.
struct CParticlePageAllocator::SThread
{
    u64 m_AllocatorId; // 0: there is no front
    SThreadFront *m_Front;
    bool m_BindsNone; // it is about to bind one, or at its end

    // Words that cost no call, in a shared library either.
    static SThread &This()
    {
        static thread_local SThread thread __attribute__((tls_model("initial-exec"))) = {0, null, false};
        return thread;
    }
};

// The use of a thread's own front for a scope.
class CParticlePageAllocator::CFrontUse : public CNonCopyable
{
public:
    explicit CFrontUse(SThreadFront &front)
        : m_Front(front)
    {
        __atomic_store_n(&m_Front.m_IsInUse, 1u, __ATOMIC_RELAXED);
        __atomic_signal_fence(__ATOMIC_SEQ_CST); // the processor's own order is what the other side's barrier is for
        m_IsGranted = m_Front.m_IsOpen;
    }
    ~CFrontUse() { __atomic_store_n(&m_Front.m_IsInUse, 0u, __ATOMIC_RELEASE); }

    bool IsGranted() const { return m_IsGranted; }

private:
    SThreadFront &m_Front;
    bool m_IsGranted;
};

// The block that was let go last. False when there is none, and when the front is not the thread's to use.
inline bool CParticlePageAllocator::_TakeFromFront(u32 slotId, SWaiting &outWaiting)
{
    const SThread &thread = SThread::This();
    if (TZ_UNLIKELY(thread.m_AllocatorId != m_Id))
        return false;
    SThreadFront &front = *thread.m_Front;
    const CFrontUse use(front);
    if (TZ_UNLIKELY(!use.IsGranted()))
        return false;
    SFrontClass &frontClass = front.Class(slotId);
    const u64 count = frontClass.m_Count;
    if (TZ_UNLIKELY(count == 0))
        return false;
    outWaiting = frontClass.m_Waiting[count - 1];
    frontClass.m_Count = count - 1;
    ++frontClass.m_TakeCount;
    if (Mem::kIsAddressSanitized)
        Mem::Unpoison(outWaiting.Block(), _SlotIdToSize(slotId));
    return true;
}

// False when there is no room, and when the front is not the thread's to use.
inline bool CParticlePageAllocator::_GiveToFront(SWaiting waiting, u32 slotId)
{
    const SThread &thread = SThread::This();
    if (TZ_UNLIKELY(thread.m_AllocatorId != m_Id))
        return false;
    SThreadFront &front = *thread.m_Front;
    const CFrontUse use(front);
    if (TZ_UNLIKELY(!use.IsGranted()))
        return false;
    SFrontClass &frontClass = front.Class(slotId);
    const u64 count = frontClass.m_Count;
    if (TZ_UNLIKELY(count >= frontClass.m_Capacity))
        return false;
    if (Mem::kIsAddressSanitized)
        Mem::Poison(waiting.Block(), _SlotIdToSize(slotId));
    frontClass.m_Waiting[count] = waiting;
    frontClass.m_Count = count + 1;
    return true;
}

} // namespace Tessaly
