// Columns as a host's own vector types: glm's vectors and a plain struct. Such a type has at most the size of the
// field's value, and its alignment divides the storage size. The library copies values as bytes.
#include <cstdio>

#include <glm/glm.hpp>
#include <tz_particles/include/ps_for_each.h>
#include <tz_particles/include/ps_runtime.h>
using namespace Tessaly;

struct SColour
{
    float r, g, b;
};

int main()
{
    if (!Particles::Startup())
        return 1;
    u32 faultCount = 0;
    {
        SParticleStreamDef def;
        const CGuid position = def.Add("position", BaseType_Float3);
        const CGuid velocity = def.Add("velocity", BaseType_Float4);
        const CGuid colour = def.Add("colour", BaseType_Float3);
        CParticleStream_MainMemory stream(64); // particles a page
        stream.BindStreamDef(&def);
        const CParticlePageView born = stream.AllocateParticlesIFP(50, 0);
        for (glm::vec3 &p : born.DenseColumnForWriting<glm::vec3>(position))
            p = glm::vec3(1.0f, 2.0f, 3.0f);
        Particles::ForEach<glm::vec4, SColour>(stream, velocity, colour,
                                               [](glm::vec4 &v, SColour &c)
                                               {
                                                   v = glm::vec4(0.0f, 4.0f, 0.0f, 1.0f);
                                                   c = {1.0f, 0.5f, 0.25f};
                                               });
        Particles::ForEach<glm::vec3, const glm::vec4>(
            stream, position, velocity, [](glm::vec3 &p, const glm::vec4 &v) { p += 0.5f * glm::vec3(v); });
        Particles::ForEach<const glm::vec3, const SColour>(
            stream, position, colour,
            [&](const glm::vec3 &p, const SColour &c)
            { faultCount += p != glm::vec3(1.0f, 4.0f, 3.0f) || c.g != 0.5f ? 1 : 0; });
        std::printf("%u particles moved, %u faults\n", stream.ParticleCount(), faultCount);
    }
    Particles::Shutdown();
    return faultCount != 0;
}
