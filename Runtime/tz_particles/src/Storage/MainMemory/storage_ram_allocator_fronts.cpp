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

// Lets the front of a thread go at the thread's end: by a key of POSIX, whose destructors are called again for what the
// destructors of other keys bound. At the end of the library, or of the process, all fronts go.
class CParticlePageAllocator::CThreadExit : public CNonCopyable
{
public:
    // False: the front would not be let go.
    static bool Awaits(SThreadFront &front)
    {
        static CThreadExit threadExit;
        return threadExit.m_IsMade && pthread_setspecific(threadExit.m_Key, &front) == 0;
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
        SThreadFront &front = *static_cast<SThreadFront *>(threadFront);
        front.m_IsClosed = true;
        front.m_Serial = 0;
        const std::lock_guard<std::mutex> lock(g_FrontsLock);
        _UnbindFront(front);
    }

    pthread_key_t m_Key;
    bool m_IsMade;
};

CParticlePageAllocator::SThreadFront *CParticlePageAllocator::m_Fronts = null;

// For a class whose batch is used up: its spare one, or one from the pool. False when there is none, or the fronts are
// shut.
bool CParticlePageAllocator::_HasRefilled(u32 slotId)
{
    _BindFrontIFN();
    SThreadFront &front = SThreadFront::OfThisThread();
    const CFrontUse use(front, *this);
    if (!use.IsGranted() || front.m_Serial != m_Serial)
        return false;
    SFrontClass &frontClass = front.m_Classes[slotId];
    if (frontClass.m_Spare == null)
    {
        SBlockPool &pool = _Pool(slotId);
        const CPoolLock lock(pool);
        frontClass.m_Spare = _PopBatch(pool);
        if (frontClass.m_Spare == null)
            return false;
        frontClass.m_SpareCount = frontClass.m_Spare->m_BatchCount;
        frontClass.m_MovedInCount += frontClass.m_SpareCount;
    }
    frontClass.m_First = frontClass.m_Spare;
    frontClass.m_Room = _BatchSize(slotId) - frontClass.m_SpareCount;
    frontClass.m_Spare = null;
    frontClass.m_SpareCount = 0;
    return true;
}

// For a class whose batch is full: begins another. False when the fronts are shut.
bool CParticlePageAllocator::_HasRoom(u32 slotId)
{
    _BindFrontIFN();
    SThreadFront &front = SThreadFront::OfThisThread();
    const CFrontUse use(front, *this);
    if (!use.IsGranted() || front.m_Serial != m_Serial)
        return false;
    SFrontClass &frontClass = front.m_Classes[slotId];
    if (frontClass.m_Room == 0)
        _BeginBatch(frontClass, slotId);
    return true;
}

// For a class without room: the batch in use becomes the spare one, which goes to the pool.
void CParticlePageAllocator::_BeginBatch(SFrontClass &frontClass, u32 slotId)
{
    if (frontClass.m_First != null)
    {
        _MoveSpareToPool(frontClass, slotId);
        frontClass.m_Spare = frontClass.m_First;
        frontClass.m_SpareCount = _BatchSize(slotId) - frontClass.m_Room;
        frontClass.m_First = null;
    }
    frontClass.m_Room = _BatchSize(slotId);
}

void CParticlePageAllocator::_MoveSpareToPool(SFrontClass &frontClass, u32 slotId)
{
    if (frontClass.m_Spare == null)
        return;
    SBlockPool &pool = _Pool(slotId);
    const CPoolLock lock(pool);
    _PushBatch(pool, frontClass.m_Spare, frontClass.m_SpareCount, _Date());
    frontClass.m_MovedInCount -= frontClass.m_SpareCount;
    frontClass.m_Spare = null;
    frontClass.m_SpareCount = 0;
}

// Makes the calling thread's front one of this allocator's, unless the fronts are shut or the thread is at its end.
void CParticlePageAllocator::_BindFrontIFN()
{
    SThreadFront &front = SThreadFront::OfThisThread();
    if (front.m_Serial == m_Serial || !m_FrontsAreOpen || front.m_IsClosed || !CThreadExit::Awaits(front))
        return;
    const std::lock_guard<std::mutex> lock(g_FrontsLock);
    if (g_FrontsAreOver)
        return;
    _UnbindFront(front);
    front.m_Next = m_Fronts;
    m_Fronts = &front;
    front.m_Allocator = this;
    front.m_Serial = m_Serial;
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
        if ((frontClass.m_GiveCount | frontClass.m_TakeCount | frontClass.m_MovedInCount) == 0)
            continue;
        _MoveSpareToPool(frontClass, slotId);
        _BeginBatch(frontClass, slotId); // what was in use is the spare one now
        _MoveSpareToPool(frontClass, slotId);
        {
            SBlockPool &pool = _Pool(slotId);
            const CPoolLock lock(pool);
            pool.m_AllocCount += frontClass.m_TakeCount;
            pool.m_RecycleCount += frontClass.m_TakeCount;
            pool.m_RetireCount += frontClass.m_GiveCount;
        }
        __atomic_fetch_add(&m_TotalMemoryUsed, frontClass.UsedCount() * _SlotIdToSize(slotId), __ATOMIC_RELAXED);
        frontClass = SFrontClass();
    }
}

u64 CParticlePageAllocator::_BytesInUse() const
{
    const std::lock_guard<std::mutex> lock(g_FrontsLock);
    u64 bytes = __atomic_load_n(&m_TotalMemoryUsed, __ATOMIC_RELAXED);
    for (const SThreadFront *front = m_Fronts; front != null; front = front->m_Next)
    {
        for (u32 slotId = 0; front->m_Allocator == this && slotId < m_Blocks.Count(); ++slotId)
            bytes += front->m_Classes[slotId].UsedCount() * _SlotIdToSize(slotId);
    }
    return _WithoutOwnerShare(bytes);
}

void CParticlePageAllocator::_AddStatsOfClass(u32 slotId, CParticlePageAllocator_Stats &stats) const
{
    u64 waitingCount = 0, recycleCount = 0, retireCount = 0;
    const std::lock_guard<std::mutex> frontsLock(g_FrontsLock);
    for (const SThreadFront *front = m_Fronts; front != null; front = front->m_Next)
    {
        if (front->m_Allocator != this)
            continue;
        const SFrontClass &frontClass = front->m_Classes[slotId];
        waitingCount += frontClass.WaitingCount();
        recycleCount += frontClass.m_TakeCount;
        retireCount += frontClass.m_GiveCount;
    }
    u64 allocCount = recycleCount;
    {
        SBlockPool &pool = const_cast<SBlockPool &>(m_Blocks.RawDataPointer()[slotId]);
        const CPoolLock lock(pool);
        waitingCount += pool.m_WaitingCount;
        allocCount += pool.m_AllocCount;
        recycleCount += pool.m_RecycleCount;
        retireCount += pool.m_RetireCount;
    }
    stats.m_BytesFree += waitingCount * _SlotIdToSize(slotId);
    stats.m_BlocksFree += waitingCount;
    stats.m_BlocksInUse += allocCount - retireCount;
    stats.m_AllocCount += allocCount;
    stats.m_RecycleCount += recycleCount;
}

} // namespace Tessaly
