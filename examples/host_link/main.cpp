// A host that replaces the memory services at link time: it defines the three functions, and the library calls them.
// All memory comes from one static buffer. Nothing is freed before the program ends.
#include <tz_kernel/include/kr_host.h>
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>
#include <tz_particles/include/ps_runtime.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace
{

using namespace Tessaly;

constexpr u64 kBufferBytes = 8 << 20;
alignas(64) u8 g_Buffer[kBufferBytes];
std::atomic<u64> g_UsedBytes{0};

constexpr u64 kHeaderBytes = 64; // before each block; holds the block's size

} // namespace

namespace Tessaly
{
namespace Mem
{

void *_RawAlloc(u64 size, u32 alignment, EAllocType, EOrigin, const char *, const char *, int, const char *)
{
    const u64 bytes = kHeaderBytes + Align<64>(size);
    u64 used = g_UsedBytes;
    do
    {
        if (alignment > 64 || bytes < size || bytes > kBufferBytes - used)
            return null;
    } while (!g_UsedBytes.compare_exchange_weak(used, used + bytes));
    std::memcpy(g_Buffer + used, &size, sizeof(size));
    return g_Buffer + used + kHeaderBytes;
}

void *_RawRealloc(void *ptr, u64 size, u32 alignment, EAllocType type, const char *tag, const char *file, int line,
                  const char *function)
{
    void *block = _RawAlloc(size, alignment, type, Origin_Alloc, tag, file, line, function);
    if (block != null && ptr != null)
    {
        u64 oldSize;
        std::memcpy(&oldSize, static_cast<u8 *>(ptr) - kHeaderBytes, sizeof(oldSize));
        std::memcpy(block, ptr, size_t(TZMin(size, oldSize)));
    }
    return block;
}

void _RawFree(void *, EAllocType, EOrigin, const char *, const char *, int, const char *) {}

} // namespace Mem
} // namespace Tessaly

int main()
{
    if (!Particles::Startup())
        return 1;
    SParticleStreamDef def;
    def.Add("age", BaseType_Float);
    CParticleStream_MainMemory stream(1024);
    stream.BindStreamDef(&def);
    const CParticlePageView born = stream.AllocateParticlesIFP(1000, 0);
    const u8 *column = born.RawStreamBegin(CGuid(0));
    const bool isInBuffer = column >= g_Buffer && column < g_Buffer + kBufferBytes;
    stream.Cleanup();
    Particles::Shutdown();
    std::printf("%u particles, %s the host's buffer, %llu bytes of it used\n", born.ParticleCount(),
                isInBuffer ? "in" : "outside", static_cast<unsigned long long>(g_UsedBytes.load()));
    return isInBuffer && born.ParticleCount() == 1000 && std::fflush(stdout) == 0 ? 0 : 1;
}
