// Profiler scopes. An operation opens one with TZ_PROFILE_SCOPE; a host receives them through CProfiler::SetSink.
#pragma once

#include <tz_defs.h>

#include "kr_vectors.h"

namespace Tessaly::Profiler
{

// The static description of a scope, built once per site.
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

    CFloat4 m_Color;  // red, green, blue, alpha, from 0 to 1
    u32 m_ColorRGBA8; // red in the low byte
    u32 m_ColorBGRA8; // blue in the low byte
    const char *m_Name;
    const char *m_FileAndFunction; // path of the source file
    u32 m_Flags;                   // EFlags

    // Keeps the pointers: the texts must outlive the descriptor. A colour without alpha is opaque.
    SNodeDescriptor(const char *name, const char *fileAndFunction, const CFloat4 &color, u32 flags);
    SNodeDescriptor(const char *name, const char *fileAndFunction, const CFloat3 &color, u32 flags);

    // A colour whose hue is a hash of the name: the same in every run.
    static CFloat4 AutogenColor(const char *name);
};

// Is notified of every scope, on the scope's thread, which keeps all locks that it holds.
class TZ_API CSinkAbstract
{
public:
    virtual ~CSinkAbstract() = default;
    // node is valid until the end of the program.
    virtual void OnScopeBegin(const SNodeDescriptor &node) = 0;
    virtual void OnScopeEnd(const SNodeDescriptor &node) = 0;
};

// Holds the sink that the host set.
class TZ_API CProfiler : public CNonCopyable
{
public:
    // Set and read the sink of the process. Null, the default, is none: a scope then costs one load and one branch. A
    // scope ends with the sink that it began with: keep a sink alive until no such scope is open.
    static void SetSink(CSinkAbstract *sink) { __atomic_store_n(&m_Sink, sink, __ATOMIC_RELEASE); }
    static CSinkAbstract *Sink() { return __atomic_load_n(&m_Sink, __ATOMIC_ACQUIRE); }

private:
    static CSinkAbstract *m_Sink;
};

// The profiler of the runtime. Called only while a sink is set.
TZ_API CProfiler *MainEngineProfiler();

// An open scope: from construction to destruction.
class CScopedNode : public CNonCopyable
{
public:
    // Notifies the sink of the beginning, if there is a profiler and a sink; the destructor notifies it of the end.
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

    CProfiler *m_Profiler; // null: no sink is notified
    const SNodeDescriptor *m_NodeDescriptor;
    CSinkAbstract *m_Sink; // the one that was notified of the beginning
};

} // namespace Tessaly::Profiler

// Opens a scope until the end of the enclosing block, with the given colour (a CFloat3 or CFloat4 expression).
#define TZ_PROFILE_SCOPE_COLORED(name, color)                                                                          \
    static const ::Tessaly::Profiler::SNodeDescriptor _profilerDescriptor(name, __FILE__, color, 0u);                  \
    const ::Tessaly::Profiler::CScopedNode _profilerNode(::Tessaly::Profiler::CProfiler::Sink() != ::Tessaly::null     \
                                                             ? ::Tessaly::Profiler::MainEngineProfiler()               \
                                                             : ::Tessaly::null,                                        \
                                                         &_profilerDescriptor, true)

// The same with the colour that AutogenColor gives for the name.
#define TZ_PROFILE_SCOPE(name) TZ_PROFILE_SCOPE_COLORED(name, ::Tessaly::Profiler::SNodeDescriptor::AutogenColor(name))
