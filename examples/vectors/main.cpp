// A host's own vector types on columns: glm's and a plain struct. Any type does that has the size of the field's value,
// or less, and no more alignment than its storage size allows; particles are copied as bytes.
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
        const CGuid turn = def.Add("turn", BaseType_Float4);
        const CGuid colour = def.Add("colour", BaseType_Float3);
        CParticleStream_MainMemory stream(64); // particles a page
        stream.BindStreamDef(&def);
        const CParticlePageView born = stream.AllocateParticlesIFP(50, 0);
        float x = 0.0f;
        for (glm::vec3 &value : born.DenseColumnForWriting<glm::vec3>(position))
            value = glm::vec3(++x, 0.0f, 0.0f);
        Particles::ForEach<glm::vec4, SColour>(stream, turn, colour,
                                               [](glm::vec4 &quarter, SColour &c)
                                               {
                                                   quarter = glm::vec4(0.0f, 1.0f, 0.0f, 0.0f);
                                                   c = {1.0f, 0.5f, 0.25f};
                                               });
        Particles::ForEach<glm::vec3, const glm::vec4>(stream, position, turn,
                                                       [](glm::vec3 &p, const glm::vec4 &quarter)
                                                       { p = glm::cross(glm::vec3(0.0f, 0.0f, 1.0f), p) * quarter.y; });
        float y = 0.0f;
        Particles::ForEach<const glm::vec3, const SColour>(
            stream, position, colour,
            [&](const glm::vec3 &p, SColour c)
            { faultCount += p != glm::vec3(0.0f, ++y, 0.0f) || c.g != 0.5f ? 1 : 0; });
        std::printf("%u particles turned, %u faults\n", stream.ParticleCount(), faultCount);
    }
    Particles::Shutdown();
    return faultCount != 0;
}
