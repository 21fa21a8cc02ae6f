// Replaces the memory services while it lives: refuses the requests that the test chooses, and fails the test when a
// block is never freed, is freed with another origin, or has an unusual type or tag. Blocks that are older than the
// hook may be freed while it lives. Discarded bytes are overwritten. One hook at a time.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string_view>
#include <unordered_map>

#include <tz_kernel/include/kr_mem.h>

namespace Tessaly::Tests
{

struct SMemoryCall
{
    enum EKind
    {
        Alloc,
        Realloc,
        Free,
        Discard
    };

    EKind m_Kind;
    void *m_Ptr; // of Realloc, Free and Discard
    u64 m_Size;  // bytes; of Alloc, Realloc and Discard
    u32 m_Origin;
    std::string_view m_Function;
};

class CAllocatorHook : public CNonCopyable
{
public:
    using FnRefuses = std::function<bool(const SMemoryCall &)>;
    using FnAtCall = std::function<void(const SMemoryCall &)>;

    CAllocatorHook();
    ~CAllocatorHook(); // fails the test when blocks are still live

    // Requests (Alloc and Realloc) are counted from 1 on, anew at each of these.
    void RefuseIf(FnRefuses predicate);
    void RefuseNone() { RefuseIf({}); }
    void RefuseAt(u32 n) // the n-th request alone
    {
        RefuseIf([this, n](const SMemoryCall &) { return m_RequestCount == n; });
    }
    void RefuseFrom(u32 n) // the n-th and all that follow
    {
        RefuseIf([this, n](const SMemoryCall &) { return m_RequestCount >= n; });
    }
    u32 RequestCount() const { return m_RequestCount; } // since then
    u32 RefusalCount() const { return m_RefusalCount; } // since then

    // Is told of every call before it is served, under the locks of the caller.
    void AtEachCall(FnAtCall callback);

    // A larger Alloc gets a block of these bytes only: to test the accounting of sizes that no machine has. 0: no
    // limit.
    void ServeAtMost(u64 bytes) { m_ServeAtMost = bytes; }

    u32 LiveBlockCount() const;
    void *LastServed() const { return m_LastServed; } // the block of the last Alloc that was not refused

private:
    friend struct SHookedServices;

    struct SLiveBlock
    {
        u64 m_Size;
        u32 m_Origin;
        const char *m_Where;
    };

    bool _Begins(const SMemoryCall &call, Mem::EAllocType type, const char *tag); // false: refuse it

    mutable std::mutex m_Lock;
    std::unordered_map<void *, SLiveBlock> m_Live;
    std::atomic<void *> m_LastServed{null};
    FnRefuses m_Refuses;
    FnAtCall m_AtCall;
    std::atomic<u32> m_RequestCount{0};
    std::atomic<u32> m_RefusalCount{0};
    std::atomic<u64> m_ServeAtMost{0};
};

} // namespace Tessaly::Tests
