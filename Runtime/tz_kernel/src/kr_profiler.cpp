// Profiler service: descriptors, their colours, and the sink.
#include "../include/kr_profiler.h"

#include <algorithm>

#include "../include/kr_string_id.h"

namespace Tessaly::Profiler
{

namespace
{

u32 ToByte(float component) { return u32(std::clamp(component, 0.0f, 1.0f) * 255.0f + 0.5f); }

u32 Pack(float first, float second, float third, float alpha)
{
    return ToByte(first) | ToByte(second) << 8 | ToByte(third) << 16 | ToByte(alpha) << 24;
}

// One component of a colour of the given hue (in sixths of a turn), saturation 0.6, value 0.9.
float HueComponent(float hue, float offset)
{
    const float position = hue + offset >= 6.0f ? hue + offset - 6.0f : hue + offset;
    const float distance = position < 3.0f ? position : 6.0f - position; // 0 at the component's own hue
    return 0.9f * (1.0f - 0.6f * (1.0f - std::clamp(2.0f - distance, 0.0f, 1.0f)));
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
    const u32 hash = CStringId::FromText(name, TNumericTraits<u32>::kMax).m_Id;
    const float hue = float(hash % 3600u) / 600.0f;
    return CFloat4(HueComponent(hue, 0.0f), HueComponent(hue, 4.0f), HueComponent(hue, 2.0f), 1.0f);
}

} // namespace Tessaly::Profiler
