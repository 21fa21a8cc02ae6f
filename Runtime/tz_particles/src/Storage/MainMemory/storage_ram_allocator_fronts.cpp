// The threads' fronts: what a thread lets go and asks for again goes by no lock and no atomic read-modify-write.
//
// A front is its thread's own while the fronts are open. Who empties it from outside shuts the fronts first, makes
// every processor see that (membarrier), and waits for the one in use: from then on their threads go to the pools. So
// the owner pays two plain stores and a load, and the seldom stranger a call to the system. Where the system lacks it,
// the fronts stay shut and the pools serve alone.
#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include <tz_kernel/include/kr_mem.h>
#include <tz_memory.h>

#include "storage_ram_allocator_pools.h"

namespace Tessaly
{

namespace
{

// Guards what is bound to what, and the emptying of fronts. Not a critical section of ours: those count their releases,
// and requests come from under the page lock.
std::mutex g_FrontsLock;
bool g_FrontsAreOver = false; // the library is at its end
u64 g_LastAllocatorId = 0;

bool CallBarrier(int command) { return syscall(SYS_membarrier, command, 0, 0) == 0; }

bool HasBarrier()
{
    static const bool isThere = CallBarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED);
    return isThere;
}

} // namespace

// Lets a thread's front go at the thread's end: by a key of POSIX, whose destructors are called again for what the
// destructors of other keys bound. At the end of the library, or of the process, all fronts are shut for good.
class CParticlePageAllocator::CThreadExit : public CNonCopyable
{
public:
    // False: the thread's end would not be heard of. Under the lock of all fronts.
    static bool IsHeard(SThread &thread)
    {
        static CThreadExit threadExit;
        return threadExit.m_IsMade && pthread_setspecific(threadExit.m_Key, &thread) == 0;
    }

private:
    CThreadExit()
        : m_IsMade(pthread_key_create(&m_Key, &OnThreadEnd) == 0)
    {
    }
    // What is in the fronts goes to the pools. Their memory stays with their allocators, for threads may still run.
    ~CThreadExit()
    {
        const std::lock_guard<std::mutex> lock(g_FrontsLock);
        g_FrontsAreOver = true;
        for (SThreadFront *front = m_Fronts; front != null; front = front->m_Next)
            front->m_Allocator->_ShutFronts_NoLock();
        if (m_IsMade)
            pthread_key_delete(m_Key);
    }

    static void OnThreadEnd(void *endingThread)
    {
        SThread &thread = *static_cast<SThread *>(endingThread);
        thread.m_AllocatorId = 0;
        thread.m_BindsNone = true; // the destructors of other keys, and the memory service, use the pools
        SThreadFront *front;
        {
            const std::lock_guard<std::mutex> lock(g_FrontsLock);
            front = _TakeFrontOf(thread);
        }
        _FreeFront(front);
    }

    pthread_key_t m_Key;
    bool m_IsMade;
};

CParticlePageAllocator::SThreadFront *CParticlePageAllocator::m_Fronts = null;

u64 CParticlePageAllocator::_NextId() { return __atomic_add_fetch(&g_LastAllocatorId, 1, __ATOMIC_RELAXED); }

// For a class that is empty: takes a batch over from the pool. False when there is none, or the front is shut.
bool CParticlePageAllocator::_HasRefilled(u32 slotId)
{
    _BindFrontIFN();
    const SThread &thread = SThread::This();
    if (thread.m_AllocatorId != m_Id)
        return false;
    const CFrontUse use(*thread.m_Front);
    if (!use.IsGranted())
        return false;
    SFrontClass &frontClass = thread.m_Front->m_Classes[slotId];
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
    const SThread &thread = SThread::This();
    if (thread.m_AllocatorId != m_Id)
        return false;
    const CFrontUse use(*thread.m_Front);
    if (!use.IsGranted())
        return false;
    SFrontClass &frontClass = thread.m_Front->m_Classes[slotId];
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
    SThread &thread = SThread::This();
    if (thread.m_AllocatorId == m_Id || thread.m_BindsNone || !m_FrontsAreOpen)
        return;
    thread.m_BindsNone = true; // the memory service may use blocks itself
    if (!_HasBoundFront(thread, null))
    {
        SThreadFront *front = _NewFront();
        if (front != null && !_HasBoundFront(thread, front))
            _FreeFront(front);
    }
    thread.m_BindsNone = false;
}

// Binds the new front, or with null the one that the thread has with another allocator. False when there is none to
// bind, and when the fronts are shut.
bool CParticlePageAllocator::_HasBoundFront(SThread &thread, SThreadFront *newFront)
{
    const std::lock_guard<std::mutex> lock(g_FrontsLock);
    if (!m_FrontsAreOpen || g_FrontsAreOver || !CThreadExit::IsHeard(thread))
        return false;
    SThreadFront *front = newFront != null ? newFront : _TakeFrontOf(thread);
    if (front == null)
        return false;
    front->m_Allocator = this;
    front->m_Thread = &thread;
    front->m_Next = m_Fronts;
    m_Fronts = front;
    front->m_IsOpen = true;
    thread.m_AllocatorId = m_Id;
    thread.m_Front = front;
    return true;
}

// The thread's front, emptied, from the allocator that has it. Null: none has. Under the lock of all fronts.
CParticlePageAllocator::SThreadFront *CParticlePageAllocator::_TakeFrontOf(const SThread &thread)
{
    SThreadFront **place = &m_Fronts;
    while (*place != null && (*place)->m_Thread != &thread)
        place = &(*place)->m_Next;
    SThreadFront *front = *place;
    if (front == null)
        return null;
    *place = front->m_Next;
    front->m_Allocator->_EmptyFront(*front);
    return front;
}

// A front that is bound to no allocator. Null in want of memory.
CParticlePageAllocator::SThreadFront *CParticlePageAllocator::_NewFront()
{
    constexpr u32 kAlignment = alignof(SThreadFront);
    void *memory = Mem::_RawAlloc(sizeof(SThreadFront) + kAlignment, 0, Mem::AllocType_Generic, Mem::Origin_Alloc,
                                  Mem::kDefaultTag, __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE);
    if (memory == null)
        return null;
    return Mem::Construct<SThreadFront>(reinterpret_cast<void *>(Mem::Align<kAlignment>(ureg(memory))), memory);
}

// Null is allowed.
void CParticlePageAllocator::_FreeFront(SThreadFront *front)
{
    if (front != null)
        Mem::_RawFree(front->m_Memory, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                      TZ_FUNCTION_SIGNATURE);
}

// With the allocator's end: no thread has a block of its any more, so that none is about to look into its front.
void CParticlePageAllocator::_FreeFronts()
{
    SThreadFront *freed = null;
    {
        const std::lock_guard<std::mutex> lock(g_FrontsLock);
        _ShutFronts_NoLock();
        for (SThreadFront **place = &m_Fronts; *place != null;)
        {
            SThreadFront *front = *place;
            if (front->m_Allocator == this)
            {
                *place = front->m_Next;
                front->m_Next = freed;
                freed = front;
            }
            else
                place = &front->m_Next;
        }
    }
    while (freed != null)
    {
        SThreadFront *front = freed;
        freed = front->m_Next;
        _FreeFront(front);
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
            front->m_IsOpen = false;
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
            front->m_IsOpen = true;
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
