// A host outside the tree: checks the version, starts the runtime, binds a stream, allocates particles, writes and
// reads a column.
#include <tz_kernel/include/kr_refptr.h>
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>
#include <tz_particles/include/ps_runtime.h>

#include <cstdio>

using namespace Tessaly;

namespace
{

constexpr u32 kWishedCount = 1000;

bool PlayOneStream()
{
    const CStringId ageName(1);
    SParticleStreamDef def;
    if (!def.m_StreamDef.PushBack(SParticleStreamFieldDef(ageName, BaseType_Float, sizeof(float))).Valid())
        return false;
    const CGuid noSlots[] = {CGuid::INVALID};

    CParticleStream_MainMemory stream(0);
    stream.BindStreamDef(&def, TMemoryView<const S64Bytes>(),
                         TStridedMemoryView<const CGuid>(noSlots, 1, sizeof(CGuid)), SParticleImplementationCache());
    const CParticlePageView view = stream.AllocateParticlesIFP(kWishedCount, 0);
    const CGuid ageId = stream.StreamId(ageName);
    for (float &age : view.DenseColumnForWriting<float>(ageId))
        age = 1.0f;
    float sum = 0.0f;
    for (const float age : view.DenseColumn<float>(ageId))
        sum += age;
    return sum == float(kWishedCount) && stream.ParticleCount() == kWishedCount;
}

} // namespace

int main()
{
    if (!CheckVersion() || !Particles::Startup())
        return 1;
    const bool isPlayed = PlayOneStream();
    Particles::Shutdown();
    if (!isPlayed)
        std::fputs("the stream does not hold what was allocated\n", stderr);
    return isPlayed ? 0 : 1;
}
