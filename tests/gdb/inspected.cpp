// A program for a debugger to look at: a stream with a field of each type, two constant fields, views, references.
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>
#include <tz_particles/include/ps_runtime.h>

using namespace Tessaly;

alignas(64) unsigned char g_Garbage[1024];
SParticleStreamDef g_Def;
TArray<u32> g_Numbers;
CFloat3 g_Vector(1.5f, 2.0f, -3.0f);
CGuid g_Guids[] = {CGuid(7), CGuid::INVALID};
CStringId g_Names[] = {CStringId(7), CStringId(), CStringId("spin"), CStringId("unregistered")};
CParticleStream_MainMemory *g_Stream = null;
CParticlePageView g_Views[2];
PParticlePage g_Pages[2];

extern "C" __attribute__((noinline)) void Look(const CParticleStream_MainMemory &stream, const CParticlePageView view,
                                               const TStridedMemoryView<const CGuid> &slots)
{
    __asm__ volatile("" : : "r"(&stream), "r"(&view), "r"(&slots) : "memory");
}

namespace
{

constexpr u32 kConstantFieldId = __MaxBaseTypes - 1; // behind the fields of a type each, which begin with BaseType_Bool

void FillDefinition()
{
    for (int type = BaseType_Bool; type < __MaxBaseTypes; ++type)
    {
        const u32 size = CBaseTypeTraits::Traits(EBaseTypeID(type)).Size;
        g_Def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId(u32(type)), EBaseTypeID(type), size));
    }
    g_Def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId(100), BaseType_Float4, 0));
    g_Def.m_StreamDef.PushBack(SParticleStreamFieldDef(CStringId("glow"), BaseType_I32, 0));
}

// Component k of particle i becomes i + 10 k, negative where the type is signed.
void FillParticles(const CParticlePageView &view)
{
    for (u32 id = 0; id < kConstantFieldId; ++id)
    {
        const CBaseTypeTraits &traits = CBaseTypeTraits::Traits(g_Def.m_StreamDef[id].m_Type);
        const u32 size = traits.Size / traits.VectorDimension;
        u8 *bytes = view.RawStreamBeginForWriting(CGuid(id));
        for (u32 i = 0; i < view.ParticleCount(); ++i)
        {
            for (u32 k = 0; k < traits.VectorDimension; ++k, bytes += size)
            {
                const s64 number = traits.IsSigned ? -s64(i + 10 * k) : s64(i + 10 * k);
                const s64 value = traits.ScalarType == BaseType_Bool ? number != 0 : number;
                const float asFloat = float(value);
                const double asDouble = double(value);
                if (traits.IsFp)
                    std::memcpy(bytes, size == 4 ? static_cast<const void *>(&asFloat) : &asDouble, size);
                else
                    std::memcpy(bytes, &value, size); // its low bytes
            }
        }
    }
}

} // namespace

int main()
{
    if (!Particles::Startup())
        return 1;
    {
        FillDefinition();
        CStringId::Register("spin");
        CStringId::Register("glow");
        const float constants[16] = {1.5f, 2.5f, 3.5f, 4.5f};
        S64Bytes blocks[1];
        std::memcpy(blocks, constants, sizeof(constants));
        CGuid slots[kConstantFieldId + 2];
        slots[kConstantFieldId] = CGuid(0);

        CParticleStream_MainMemory stream(8);
        stream.BindStreamDef(&g_Def, {blocks, 1}, {slots, kConstantFieldId + 2}, {});
        g_Stream = &stream;
        g_Views[0] = stream.AllocateParticlesIFP(5, 0);
        FillParticles(g_Views[0]);
        stream.AllocateParticlesIFP(2, 0);
        g_Pages[0] = stream.AllocateParticlesIFP(6, 0).OriginalPage();
        for (u32 i = 0; i < 3; ++i)
            g_Numbers.PushBack(100 + i);

        const CScopedPagesLock lock(stream);
        Look(stream, g_Views[0], stream.ConstantDataFieldSlot());
        g_Views[0].Clear();
        g_Pages[0] = null;
    }
    Particles::Shutdown();
    return 0;
}
