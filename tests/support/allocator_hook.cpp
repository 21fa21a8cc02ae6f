#include "allocator_hook.h"

#include <cstring>

#include <gtest/gtest.h>

#include <tz_kernel/include/kr_address_sanitizer.h>

namespace Tessaly::Tests
{

static CAllocatorHook *g_Hook = null;
static constexpr u64 kMaxFilledBytes = 1 << 18; // of a block; more would take too long

// The memory services while a hook lives.
struct SHookedServices
{
    static void *OnAlloc(u64 size, u32 alignment, Mem::EAllocType type, Mem::EOrigin origin, const char *tag,
                         const char *file, int line, const char *function)
    {
        CAllocatorHook &self = *g_Hook;
        EXPECT_EQ(alignment, 0u) << function;
        if (!self._Begins({SMemoryCall::Alloc, null, size, origin, function}, type, tag))
            return null;
        const u64 served = self.m_ServeAtMost != 0 ? TZMin(size, self.m_ServeAtMost.load()) : size;
        void *block = Mem::DefaultAllocator().m_Alloc(served, alignment, type, origin, tag, file, line, function);
        if (block == null)
            return null;
        std::memset(block, 0x5A,
                    size_t(TZMin(served, kMaxFilledBytes))); // new memory is neither zero nor the byte of fresh slots
        const std::lock_guard<std::mutex> lock(self.m_Lock);
        self.m_Live[block] = {size, origin, function};
        return self.m_LastServed = block;
    }

    static void *OnRealloc(void *ptr, u64 size, u32 alignment, Mem::EAllocType type, const char *tag, const char *file,
                           int line, const char *function)
    {
        CAllocatorHook &self = *g_Hook;
        EXPECT_EQ(alignment, 0u) << function;
        if (!self._Begins({SMemoryCall::Realloc, ptr, size, Mem::Origin_Alloc, function}, type, tag))
            return null;
        const std::lock_guard<std::mutex> lock(self.m_Lock);
        self.m_Live.erase(ptr);
        void *block = Mem::DefaultAllocator().m_Realloc(ptr, size, alignment, type, tag, file, line, function);
        if (block != null)
            self.m_Live[block] = {size, Mem::Origin_Alloc, function};
        return block;
    }

    static void OnFree(void *ptr, Mem::EAllocType type, Mem::EOrigin origin, const char *tag, const char *file,
                       int line, const char *function)
    {
        CAllocatorHook &self = *g_Hook;
        self._Begins({SMemoryCall::Free, ptr, 0, origin, function}, type, tag);
        std::unique_lock<std::mutex> lock(self.m_Lock);
        if (const auto block = self.m_Live.find(ptr); block != self.m_Live.end())
        {
            EXPECT_EQ(block->second.m_Origin, u32(origin)) << "freed with another origin: " << block->second.m_Where;
            self.m_Live.erase(block);
        }
        lock.unlock();
        Mem::DefaultAllocator().m_Free(ptr, type, origin, tag, file, line, function);
    }

    static void OnDiscard(void *ptr, u64 size)
    {
        g_Hook->_Begins({SMemoryCall::Discard, ptr, size, Mem::Origin_Alloc, "discard"}, Mem::AllocType_Generic,
                        Mem::kDefaultTag);
        Mem::Unpoison(ptr, size);
        std::memset(ptr, 0x5A, size); // a test that still needs a byte of it fails
    }
};

CAllocatorHook::CAllocatorHook()
{
    static const Mem::SAllocator allocator = {&SHookedServices::OnAlloc, &SHookedServices::OnRealloc,
                                              &SHookedServices::OnFree, &SHookedServices::OnDiscard};
    g_Hook = this;
    Mem::SetAllocator(&allocator);
}

CAllocatorHook::~CAllocatorHook()
{
    Mem::SetAllocator(null);
    g_Hook = null;
    for (const auto &block : m_Live)
        ADD_FAILURE() << "not freed: " << block.second.m_Size << " bytes from " << block.second.m_Where;
}

void CAllocatorHook::RefuseIf(FnRefuses predicate)
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    m_Refuses = std::move(predicate);
    m_RequestCount = 0;
    m_RefusalCount = 0;
}

void CAllocatorHook::AtEachCall(FnAtCall callback)
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    m_AtCall = std::move(callback);
}

u32 CAllocatorHook::LiveBlockCount() const
{
    const std::lock_guard<std::mutex> lock(m_Lock);
    return u32(m_Live.size());
}

bool CAllocatorHook::_Begins(const SMemoryCall &call, Mem::EAllocType type, const char *tag)
{
    std::unique_lock<std::mutex> lock(m_Lock);
    const FnAtCall callback = m_AtCall;
    const bool isRequest = call.m_Kind == SMemoryCall::Alloc || call.m_Kind == SMemoryCall::Realloc;
    m_RequestCount += isRequest ? 1 : 0;
    const bool isRefused = isRequest && m_Refuses && m_Refuses(call);
    m_RefusalCount += isRefused ? 1 : 0;
    lock.unlock();
    EXPECT_EQ(type, Mem::AllocType_Generic) << call.m_Function;
    EXPECT_STREQ(tag, "Kernel|Mem|Default") << call.m_Function;
    if (callback)
        callback(call);
    return !isRefused;
}

} // namespace Tessaly::Tests
