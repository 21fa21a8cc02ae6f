// The threads' fronts: what a thread lets go and asks for again goes by no lock and no atomic read-modify-write.
//
// A front is its thread's own while the fronts are open. Who empties it from outside shuts the fronts first, makes
// every processor see that (membarrier), and waits for the one in use: from then on their threads go to the pools. So
// the owner pays two plain stores and a load, and the seldom stranger a call to the system. Where the system lacks it,
// the fronts stay shut and the pools serve alone.
#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "storage_ram_allocator_pools.h"

namespace Tessaly
{

namespace
{

// Guards what is bound to what, and the emptying of fronts. Not a critical section of ours: those count their releases,
// and requests come from under the page lock.
std::mutex g_FrontsLock;
bool g_FrontsAreOver = false; // the library is at its end

bool CallBarrier(int command) { return syscall(SYS_membarrier, command, 0, 0) == 0; }

bool HasBarrier()
{
    static const bool isThere = CallBarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED);
    return isThere;
}

} // namespace

// Makes threads' fronts, and lets each go at its thread's end: by a key of POSIX, whose destructors are called again
// for what the destructors of other keys bound. At the end of the library, or of the process, all fronts are let go.
class CParticlePageAllocator::CThreadExit : public CNonCopyable
{
public:
    // A front for the calling thread, bound to no allocator. Null in want of memory. Under the lock of all fronts.
    static SThreadFront *NewFront()
    {
        static CThreadExit threadExit;
        if (!threadExit.m_IsMade)
            return null;
        // The system's own memory: at the end of its thread no memory service may be called any more. It is all zero.
        void *place = mmap(null, sizeof(SThreadFront), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (place == MAP_FAILED)
            return null;
        SThreadFront *front = static_cast<SThreadFront *>(place);
        if (pthread_setspecific(threadExit.m_Key, front) != 0)
        {
            munmap(place, sizeof(SThreadFront));
            return null;
        }
        SThreadFront::OfThisThread() = front;
        return front;
    }

private:
    CThreadExit()
        : m_IsMade(pthread_key_create(&m_Key, &OnThreadEnd) == 0)
    {
    }
    ~CThreadExit()
    {
        const std::lock_guard<std::mutex> lock(g_FrontsLock);
        g_FrontsAreOver = true;
        while (m_Fronts != null)
            m_Fronts->m_Allocator->_UnbindAllFronts_NoLock();
        if (m_IsMade)
            pthread_key_delete(m_Key);
    }

    static void OnThreadEnd(void *threadFront)
    {
        SThreadFront::OfThisThread() = null;
        {
            const std::lock_guard<std::mutex> lock(g_FrontsLock);
            _UnbindFront(*static_cast<SThreadFront *>(threadFront));
        }
        munmap(threadFront, sizeof(SThreadFront));
    }

    pthread_key_t m_Key;
    bool m_IsMade;
};

CParticlePageAllocator::SThreadFront *CParticlePageAllocator::m_Fronts = null;

// For a class that is empty: takes a batch over from the pool. False when there is none, or the front is shut.
bool CParticlePageAllocator::_HasRefilled(u32 slotId)
{
    _BindFrontIFN();
    SThreadFront *front = SThreadFront::OfThisThread();
    if (front == null)
        return false;
    const CFrontUse use(*front, *this);
    if (!use.IsGranted())
        return false;
    SFrontClass &frontClass = front->m_Classes[slotId];
    SBlockPool &pool = _Pool(slotId);
    SBlockHeader *first;
    {
        const CPoolLock lock(pool);
        first = pool.m_NewestBatch;
        if (first == null)
            return false;
        _UnlinkBatch(pool, *first);
        frontClass.m_Count = first->m_BatchCount;
        frontClass.m_MovedInCount += first->m_BatchCount;
    }
    _ReadBatch(*first, frontClass.m_Waiting);
    frontClass.m_Capacity = 2 * _BatchSize(slotId);
    return true;
}

// For a class that is full: makes room. False when the front is shut.
bool CParticlePageAllocator::_HasRoom(u32 slotId)
{
    _BindFrontIFN();
    SThreadFront *front = SThreadFront::OfThisThread();
    if (front == null)
        return false;
    const CFrontUse use(*front, *this);
    if (!use.IsGranted())
        return false;
    SFrontClass &frontClass = front->m_Classes[slotId];
    frontClass.m_Capacity = 2 * _BatchSize(slotId);
    if (frontClass.m_Count == frontClass.m_Capacity)
        _MoveOldestToPool(frontClass, slotId, _BatchSize(slotId));
    return true;
}

void CParticlePageAllocator::_MoveOldestToPool(SFrontClass &frontClass, u32 slotId, u32 count)
{
    const u64 restCount = frontClass.m_Count - count;
    SBlockHeader &batch = _MakeBatch(frontClass.m_Waiting, count);
    std::memmove(frontClass.m_Waiting, frontClass.m_Waiting + count, restCount * sizeof(SWaiting));
    SBlockPool &pool = _Pool(slotId);
    const CPoolLock lock(pool);
    _LinkBatch(pool, batch, _Date());
    frontClass.m_Count = restCount;
    frontClass.m_MovedInCount -= count;
}

// Makes the calling thread's front one of this allocator's, unless the fronts are shut.
void CParticlePageAllocator::_BindFrontIFN()
{
    SThreadFront *front = SThreadFront::OfThisThread();
    if ((front != null && front->m_OpenTo == this) || !m_FrontsAreOpen)
        return;
    const std::lock_guard<std::mutex> lock(g_FrontsLock);
    if (!m_FrontsAreOpen || g_FrontsAreOver)
        return;
    if (front == null)
        front = CThreadExit::NewFront();
    if (front == null || front->m_Allocator == this)
        return;
    _UnbindFront(*front);
    front->m_Next = m_Fronts;
    m_Fronts = front;
    front->m_Allocator = this;
    front->m_OpenTo = this;
}

// Under the lock of all fronts, on the front's own thread.
void CParticlePageAllocator::_UnbindFront(SThreadFront &front)
{
    if (front.m_Allocator == null)
        return;
    front.m_Allocator->_EmptyFront(front);
    front.m_Allocator = null;
    SThreadFront **place = &m_Fronts;
    while (*place != &front)
        place = &(*place)->m_Next;
    *place = front.m_Next;
}

void CParticlePageAllocator::_UnbindAllFronts()
{
    const std::lock_guard<std::mutex> lock(g_FrontsLock);
    _UnbindAllFronts_NoLock();
}

void CParticlePageAllocator::_UnbindAllFronts_NoLock()
{
    _ShutFronts_NoLock();
    for (SThreadFront **place = &m_Fronts; *place != null;)
    {
        SThreadFront &front = **place;
        if (front.m_Allocator == this)
        {
            front.m_Allocator = null;
            *place = front.m_Next;
        }
        else
            place = &front.m_Next;
    }
}

void CParticlePageAllocator::_EmptyFronts()
{
    const std::lock_guard<std::mutex> lock(g_FrontsLock);
    _ShutFronts_NoLock();
    _OpenFronts_NoLock();
}

void CParticlePageAllocator::_ShutFronts_NoLock()
{
    m_FrontsAreOpen = false;
    for (SThreadFront *front = m_Fronts; front != null; front = front->m_Next)
    {
        if (front->m_Allocator == this)
            front->m_OpenTo = null;
    }
    if (m_Fronts != null && !CallBarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED))
        CallBarrier(MEMBARRIER_CMD_GLOBAL); // slower, but asks for no registration
    for (SThreadFront *front = m_Fronts; front != null; front = front->m_Next)
    {
        if (front->m_Allocator != this)
            continue;
        while (__atomic_load_n(&front->m_IsInUse, __ATOMIC_ACQUIRE) != 0)
            sched_yield();
        _EmptyFront(*front);
    }
}

void CParticlePageAllocator::_OpenFronts_NoLock()
{
    m_FrontsAreOpen = __atomic_load_n(&m_MemoryBudget, __ATOMIC_RELAXED) == 0 && !m_IsLeftToBlocks &&
                      !g_FrontsAreOver && HasBarrier();
    for (SThreadFront *front = m_Fronts; m_FrontsAreOpen && front != null; front = front->m_Next)
    {
        if (front->m_Allocator == this)
            front->m_OpenTo = this;
    }
}

void CParticlePageAllocator::SetMemoryBudget(u64 bytes)
{
    // Between the two, so that from the first request that is held against the budget every byte is counted.
    const std::lock_guard<std::mutex> lock(g_FrontsLock);
    _ShutFronts_NoLock();
    __atomic_store_n(&m_MemoryBudget, bytes, __ATOMIC_RELAXED);
    _OpenFronts_NoLock();
}

void CParticlePageAllocator::_EmptyFront(SThreadFront &front)
{
    for (u32 slotId = 0; slotId < m_Blocks.Count(); ++slotId)
    {
        SFrontClass &frontClass = front.m_Classes[slotId];
        while (const u64 count = frontClass.m_Count)
            _MoveOldestToPool(frontClass, slotId, u32(TZMin(count, u64(_BatchSize(slotId)))));
        if (frontClass.m_MovedInCount == 0 && frontClass.m_TakeCount == 0)
            continue;
        {
            SBlockPool &pool = _Pool(slotId);
            const CPoolLock lock(pool);
            pool.m_AllocCount += frontClass.m_TakeCount;
            pool.m_RecycleCount += frontClass.m_TakeCount;
            pool.m_RetireCount += frontClass.m_TakeCount - frontClass.m_MovedInCount;
        }
        __atomic_fetch_add(&m_TotalMemoryUsed, frontClass.m_MovedInCount * _SlotIdToSize(slotId), __ATOMIC_RELAXED);
        frontClass.m_MovedInCount = 0;
        frontClass.m_TakeCount = 0;
    }
}

u64 CParticlePageAllocator::_BytesInUse() const
{
    const std::lock_guard<std::mutex> lock(g_FrontsLock);
    u64 bytes = __atomic_load_n(&m_TotalMemoryUsed, __ATOMIC_RELAXED);
    for (u32 slotId = 0; m_Fronts != null && slotId < m_Blocks.Count(); ++slotId)
        bytes += _CountInFronts(slotId).m_UsedCount * _SlotIdToSize(slotId);
    return _WithoutOwnerShare(bytes);
}

// What the fronts of this allocator count beside the pool. Under the lock of all fronts.
CParticlePageAllocator::SFrontCounts CParticlePageAllocator::_CountInFronts(u32 slotId) const
{
    SFrontCounts counts = {0, 0, 0};
    const CPoolLock lock(const_cast<SBlockPool &>(m_Blocks.RawDataPointer()[slotId])); // no blocks move meanwhile
    for (const SThreadFront *front = m_Fronts; front != null; front = front->m_Next)
    {
        if (front->m_Allocator != this)
            continue;
        const SFrontClass &frontClass = front->m_Classes[slotId];
        const u64 count = frontClass.m_Count;
        counts.m_WaitingCount += count;
        counts.m_UsedCount += frontClass.m_MovedInCount - count;
        counts.m_TakeCount += frontClass.m_TakeCount;
    }
    return counts;
}

void CParticlePageAllocator::_AddStatsOfClass(u32 slotId, CParticlePageAllocator_Stats &stats) const
{
    const std::lock_guard<std::mutex> frontsLock(g_FrontsLock);
    const SFrontCounts inFronts = _CountInFronts(slotId);
    SBlockPool &pool = const_cast<SBlockPool &>(m_Blocks.RawDataPointer()[slotId]);
    const CPoolLock lock(pool);
    const u64 waitingCount = pool.m_WaitingCount + inFronts.m_WaitingCount;
    stats.m_BytesFree += waitingCount * _SlotIdToSize(slotId);
    stats.m_BlocksFree += waitingCount;
    stats.m_BlocksInUse += pool.m_AllocCount - pool.m_RetireCount + inFronts.m_UsedCount;
    stats.m_AllocCount += pool.m_AllocCount + inFronts.m_TakeCount;
    stats.m_RecycleCount += pool.m_RecycleCount + inFronts.m_TakeCount;
}

} // namespace Tessaly
