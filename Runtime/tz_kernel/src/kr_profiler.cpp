// Profiler service: descriptors, their colours, and the sink.
#include "../include/kr_profiler.h"

namespace Tessaly
{
namespace Profiler
{

namespace
{

u32 ToByte(float component)
{
    const float clamped = component < 0.0f ? 0.0f : (component > 1.0f ? 1.0f : component);
    return u32(clamped * 255.0f + 0.5f);
}

u32 Pack(float first, float second, float third, float alpha)
{
    return ToByte(first) | ToByte(second) << 8 | ToByte(third) << 16 | ToByte(alpha) << 24;
}

// FNV-1a, 32 bits.
u32 HashName(const char *name)
{
    u32 hash = 2166136261u;
    for (; *name != '\0'; ++name)
        hash = (hash ^ static_cast<u8>(*name)) * 16777619u;
    return hash;
}

// One component of a colour of the given hue (in sixths of a turn), saturation 0.6, value 0.9.
float HueComponent(float hue, float offset)
{
    float position = hue + offset;
    position = position >= 6.0f ? position - 6.0f : position;
    const float distance = position < 3.0f ? position : 6.0f - position; // 0 at the component's own hue
    const float ramp = 2.0f - distance;
    return 0.9f * (1.0f - 0.6f * (1.0f - (ramp < 0.0f ? 0.0f : (ramp > 1.0f ? 1.0f : ramp))));
}

CProfiler g_MainEngineProfiler;

} // namespace

TZ_REPLACEABLE CSinkAbstract *CProfiler::m_Sink = null;

TZ_REPLACEABLE CProfiler *MainEngineProfiler() { return &g_MainEngineProfiler; }

TZ_REPLACEABLE SNodeDescriptor::SNodeDescriptor(const char *name, const char *fileAndFunction, const CFloat4 &color,
                                                u32 flags)
    : m_Color(color)
    , m_ColorRGBA8(Pack(color.m_X, color.m_Y, color.m_Z, color.m_W))
    , m_ColorBGRA8(Pack(color.m_Z, color.m_Y, color.m_X, color.m_W))
    , m_Name(name)
    , m_FileAndFunction(fileAndFunction)
    , m_Flags(flags)
{
}

TZ_REPLACEABLE SNodeDescriptor::SNodeDescriptor(const char *name, const char *fileAndFunction, const CFloat3 &color,
                                                u32 flags)
    : SNodeDescriptor(name, fileAndFunction, CFloat4(color.m_X, color.m_Y, color.m_Z, 1.0f), flags)
{
}

TZ_REPLACEABLE CFloat4 SNodeDescriptor::AutogenColor(const char *name)
{
    const float hue = float(HashName(name) % 3600u) / 600.0f;
    return CFloat4(HueComponent(hue, 0.0f), HueComponent(hue, 4.0f), HueComponent(hue, 2.0f), 1.0f);
}

} // namespace Profiler
} // namespace Tessaly
