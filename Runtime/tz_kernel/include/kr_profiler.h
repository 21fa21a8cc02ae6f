// Profiler scopes. An operation opens one with TZ_PROFILE_SCOPE; a host listens with CProfiler::SetSink.
#pragma once

#include <tz_defs.h>

#include "kr_vectors.h"

namespace Tessaly
{
namespace Profiler
{

// The static description of one scope, built once per site.
struct TZ_API SNodeDescriptor
{
    // Bits of m_Flags.
    enum EFlags : u32
    {
        None = 0,
        Idle = 0x10000000,
        Update = 0x20000000,
        Frame = 0x40000000,
        Mask_User = 0xFFFF,
        Mask_Reserved = 0x0FFF0000,
    };

    CFloat4 m_Color;               // red, green, blue, alpha, 0 to 1
    u32 m_ColorRGBA8;              // red in the low byte
    u32 m_ColorBGRA8;              // blue in the low byte
    const char *m_Name;            // of the scope
    const char *m_FileAndFunction; // path of the source file
    u32 m_Flags;                   // EFlags

    // Keeps the two pointers: the texts must live as long. Without an alpha the colour is opaque.
    SNodeDescriptor(const char *name, const char *fileAndFunction, const CFloat4 &color, u32 flags);
    SNodeDescriptor(const char *name, const char *fileAndFunction, const CFloat3 &color, u32 flags);

    // A colour whose hue follows from the name alone: the same in every run.
    static CFloat4 AutogenColor(const char *name);
};

// Hears every scope of every thread. Called on the thread of the scope, under whatever locks it holds.
class TZ_API CSinkAbstract
{
public:
    virtual ~CSinkAbstract() = default;
    // node lives as long as the program.
    virtual void OnScopeBegin(const SNodeDescriptor &node) = 0;
    virtual void OnScopeEnd(const SNodeDescriptor &node) = 0;
};

// Where scopes report to: the sink that the host set.
class TZ_API CProfiler : public CNonCopyable
{
public:
    // Sets the sink of the process, which the caller keeps alive until no scope that began with it is open; null, the
    // default, makes a scope cost one load and one branch. A scope ends with the sink that it began with.
    static void SetSink(CSinkAbstract *sink) { __atomic_store_n(&m_Sink, sink, __ATOMIC_RELEASE); }
    static CSinkAbstract *Sink() { return __atomic_load_n(&m_Sink, __ATOMIC_ACQUIRE); }

private:
    static CSinkAbstract *m_Sink;
};

// The profiler that the runtime reports to. Asked only while somebody listens.
TZ_API CProfiler *MainEngineProfiler();

// One open scope: from construction to destruction.
class CScopedNode : public CNonCopyable
{
public:
    // Tells the sink of the beginning, when there is a profiler and a sink; the destructor tells it of the end.
    CScopedNode(CProfiler *profiler, const SNodeDescriptor *descriptor, bool)
        : m_Profiler(profiler)
        , m_NodeDescriptor(descriptor)
        , m_Sink(profiler != null ? CProfiler::Sink() : null)
    {
        if (m_Sink != null)
            m_Sink->OnScopeBegin(*m_NodeDescriptor);
    }

    ~CScopedNode()
    {
        if (m_Sink != null)
            m_Sink->OnScopeEnd(*m_NodeDescriptor);
    }

    CProfiler *m_Profiler;                   // null when nobody listens
    const SNodeDescriptor *m_NodeDescriptor; // of the scope
    CSinkAbstract *m_Sink;                   // that heard the beginning, and hears the end
};

} // namespace Profiler
} // namespace Tessaly

// Opens a scope until the end of the enclosing block, in a colour of its own (a CFloat3 or CFloat4 expression).
#define TZ_PROFILE_SCOPE_COLORED(name, color)                                                                          \
    static const ::Tessaly::Profiler::SNodeDescriptor _profilerDescriptor(name, __FILE__, color, 0u);                  \
    const ::Tessaly::Profiler::CScopedNode _profilerNode(::Tessaly::Profiler::CProfiler::Sink() != ::Tessaly::null     \
                                                             ? ::Tessaly::Profiler::MainEngineProfiler()               \
                                                             : ::Tessaly::null,                                        \
                                                         &_profilerDescriptor, true)

// The same in the colour that follows from the name.
#define TZ_PROFILE_SCOPE(name) TZ_PROFILE_SCOPE_COLORED(name, ::Tessaly::Profiler::SNodeDescriptor::AutogenColor(name))
