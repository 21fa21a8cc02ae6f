// A fountain: sparks rise, fall and are removed at the end of their lives, while a second thread draws them. At frame
// 80 the page size changes, at frame 120 the sparks get a new field, their heat.
#include <atomic>
#include <cstdio>
#include <random>
#include <thread>

#include <tz_particles/include/ps_for_each.h>
#include <tz_particles/include/ps_runtime.h>

#include "picture.h"
using namespace Tessaly;

constexpr float kTimeStep = 1.0f / 60.0f, kLifetime = 2.0f;

// Holds the lock until the new sparks are filled, so that the other thread never sees unwritten values.
void Emit(CParticleStream_MainMemory &stream, u32 count, std::minstd_rand &random)
{
    std::normal_distribution<float> spread(0.0f, 0.8f);
    const CScopedPagesLock lock(stream);
    const CParticlePageView born = stream.AllocateParticlesIFP(count, 0); // all in one page
    for (CFloat3 &position : born.ColumnForWriting<CFloat3>(born.StreamId("position")))
        position = CFloat3(0.0f, 0.0f, 0.0f);
    for (CFloat3 &velocity : born.ColumnForWriting<CFloat3>(born.StreamId("velocity")))
        velocity = CFloat3(spread(random), 9.0f + spread(random), spread(random));
    for (float &age : born.ColumnForWriting<float>(born.StreamId("age")))
        age = 0.0f;
}

void Draw(const CParticleStream_MainMemory &stream, SPicture &picture)
{
    const CScopedPagesRenderLock lock(stream); // also for StreamId: rebinding changes field indices
    const auto light = [&picture](const CFloat3 &position) { picture.Light(position.x, position.y); };
    Particles::ForEach<const CFloat3>(stream, stream.StreamId("position"), light);
}

int main(int argc, char **argv)
{
    if (!Particles::Startup())
        return 1;
    SParticleStreamDef cold, hot; // must outlive the stream
    const CGuid position = cold.Add("position", BaseType_Float3), velocity = cold.Add("velocity", BaseType_Float3);
    const CGuid age = cold.Add("age", BaseType_Float);
    hot.Copy(cold);
    const CGuid heat = hot.Add("heat", BaseType_Float);
    CParticleStream_MainMemory stream(1024); // particles a page
    stream.BindStreamDef(&cold);
    std::atomic<bool> isOver{false};
    const auto draw = [&stream, &isOver]
    {
        for (SPicture shown; !isOver; std::this_thread::sleep_for(std::chrono::milliseconds(1)))
            Draw(stream, shown);
    };
    std::thread renderer(draw);
    const auto fly = [](CFloat3 &p, CFloat3 &v, float &seconds)
    {
        v.y -= 9.81f * kTimeStep;
        p = CFloat3(p.x + v.x * kTimeStep, p.y + v.y * kTimeStep, p.z + v.z * kTimeStep);
        seconds += kTimeStep;
    };
    const auto cool = [](float seconds, float &warmth) { warmth = 1.0f - seconds / kLifetime; };
    std::minstd_rand random;
    u32 deadCount = 0;
    for (u32 frame = 0; frame < 240; ++frame)
    {
        Emit(stream, 100, random);
        Particles::ForEach<CFloat3, CFloat3, float>(stream, position, velocity, age, fly);
        deadCount += Particles::RemoveIf<const float>(stream, age, [](float seconds) { return seconds > kLifetime; });
        if (frame == 80)
            stream.SetPageSize(256);
        if (frame == 120)
            stream.BindStreamDef(&hot); // old fields keep their values and indices, the new one is zero
        if (frame >= 120)
            Particles::ForEach<const float, float>(stream, age, heat, cool);
        stream.ResizePending(2);
        stream.GarbageCollectOldPages(null);
    }
    isOver = true;
    renderer.join();
    SPicture picture;
    Draw(stream, picture);
    u32 faultCount = picture.Write(argc > 1 ? argv[1] : "out/fountain.png") ? 0 : 1;
    const auto check = [&](float a, float h) { faultCount += a > kLifetime || h != 1.0f - a / kLifetime ? 1 : 0; };
    Particles::ForEach<const float, const float>(stream, age, heat, check);
    faultCount += stream.ParticleCount() != 240 * 100 - deadCount ? 1 : 0;
    std::printf("%u sparks in %u pages of %u, %u dead, %u faults\n", stream.ParticleCount(), stream.PageCount(),
                stream.PageSize(), deadCount, faultCount);
    stream.Cleanup();
    Particles::Shutdown();
    return faultCount != 0;
}
