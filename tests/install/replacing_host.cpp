// A host that replaces services at link time, one of a file's several too: the libraries must call its own.
#include <tz_kernel/include/kr_threads_basics.h>
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>
#include <tz_particles/include/ps_runtime.h>

#include <cstdio>
#include <cstdlib>

namespace
{

int g_AllocCount = 0;
int g_AssertCount = 0;
int g_UnlockCount = 0;
int g_DeathCount = 0;

} // namespace

namespace Tessaly
{

void *Mem::_RawAlloc(u64 size, u32 alignment, EAllocType, EOrigin, const char *, const char *, int, const char *)
{
    ++g_AllocCount;
    return std::aligned_alloc(alignment != 0 ? alignment : 16, (size_t(size) + 63) / 64 * 64);
}

int Assert::EvalAssert(const char *, const char *, int, const char *, const char *, const char *)
{
    ++g_AssertCount;
    return Result_Continue;
}

void CRefCountedObject::_DeleteObject(CRefCountedObject *object, void *memory)
{
    ++g_DeathCount;
    object->~CRefCountedObject();
    Mem::_RawFree(memory, Mem::AllocType_Generic, Mem::Origin_New, Mem::kDefaultTag, "", 0, "");
}

void CThreadStats::RegisterCSUnlock() { ++g_UnlockCount; }

} // namespace Tessaly

int main()
{
    using namespace Tessaly;
    if (!Particles::Startup())
        return 1;
    {
        CParticleStream_MainMemory stream(0);
        stream.Clear();
        stream.UnlockPages(); // reported: nobody holds the lock
        Particles::PageAllocator()->AllocPage(1000);
    }
    const bool isFreed = Particles::PageAllocator()->TotalMemoryAllocated() == 0;
    Particles::Shutdown();
    std::printf("%d blocks, %d reports, %d unlocks, %d deaths\n", g_AllocCount, g_AssertCount, g_UnlockCount,
                g_DeathCount);
    const bool areUnlocksItsOwn = g_UnlockCount > 1 && CThreadStats::CSUnlockCount() == 0;
    return g_AllocCount != 0 && g_AssertCount != 0 && areUnlocksItsOwn && g_DeathCount == 1 && isFreed ? 0 : 1;
}
