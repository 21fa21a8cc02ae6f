// A host that replaces services at run time: a memory allocator with a budget per tag, an assertion handler that logs
// each site once, and a profiler sink that adds up the time of each scope. kr_host.h has the rules for each of them.
#include <tz_kernel/include/kr_host.h>
#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>
#include <tz_particles/include/ps_runtime.h>
#include <tz_version.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

using namespace Tessaly;

namespace
{

// The library allocates all its memory under one tag, Mem::kDefaultTag, and the host uses other tags. Each tag has its
// own budget, so no tag can use up the memory of another. Bytes are counted as the C library rounds them.
class CBudgets
{
public:
    struct SBudget
    {
        const char *m_Tag;
        size_t m_Limit;
        size_t m_Used;
    };

    static void Install() { Mem::SetAllocator(&kAllocator); }
    static SBudget &Of(const char *tag)
    {
        for (SBudget &budget : g_Budgets)
        {
            if (std::strcmp(budget.m_Tag, tag) == 0)
                return budget;
        }
        return g_Budgets[0]; // shared by all other tags
    }

private:
    static bool Reserve(const char *tag, size_t bytes)
    {
        const std::lock_guard<std::mutex> lock(g_Lock);
        SBudget &budget = Of(tag);
        const bool fits = bytes <= budget.m_Limit && budget.m_Used <= budget.m_Limit - bytes;
        budget.m_Used += fits ? bytes : 0;
        return fits;
    }
    static void Release(const char *tag, size_t bytes)
    {
        const std::lock_guard<std::mutex> lock(g_Lock);
        Of(tag).m_Used -= bytes;
    }

    static void *Alloc(u64 size, u32 alignment, Mem::EAllocType, Mem::EOrigin, const char *tag, const char *, int,
                       const char *)
    {
        const size_t step = TZMax(alignment, 16u);
        void *block = std::aligned_alloc(step, (size_t(size) + step - 1) / step * step);
        if (block != null && !Reserve(tag, malloc_usable_size(block)))
        {
            std::free(block);
            return null;
        }
        return block;
    }
    static void *Realloc(void *old, u64 size, u32 alignment, Mem::EAllocType type, const char *tag, const char *file,
                         int line, const char *function)
    {
        void *block = Alloc(size, alignment, type, Mem::Origin_Alloc, tag, file, line, function);
        if (block != null && old != null)
        {
            std::memcpy(block, old, TZMin(size_t(size), malloc_usable_size(old)));
            Free(old, type, Mem::Origin_Alloc, tag, file, line, function);
        }
        return block;
    }
    static void Free(void *block, Mem::EAllocType, Mem::EOrigin, const char *tag, const char *, int, const char *)
    {
        if (block != null)
            Release(tag, malloc_usable_size(block));
        std::free(block);
    }

    static constexpr Mem::SAllocator kAllocator = {&Alloc, &Realloc, &Free};
    static inline std::mutex g_Lock;
    static inline SBudget g_Budgets[] = {
        {"", ~size_t(0), 0}, {Mem::kDefaultTag, size_t(4) << 20, 0}, {"Host|Names", size_t(1) << 10, 0}};
};

// Logs the first report of each assertion site, and continues after every report.
class COnceLogger
{
public:
    COnceLogger() { Assert::SetHandler(&OnReport, this); }
    ~COnceLogger() { Assert::SetHandler(null, null); }

    u32 m_ReportCount = 0;
    u32 m_LoggedCount = 0;

private:
    static int OnReport(const Assert::SReport &report, void *userData)
    {
        COnceLogger &self = *static_cast<COnceLogger *>(userData);
        const std::lock_guard<std::mutex> lock(self.m_Lock);
        ++self.m_ReportCount;
        if (self.m_Sites.emplace(report.m_File, report.m_Line).second)
        {
            ++self.m_LoggedCount;
            std::printf("check failed in %s: %s\n", report.m_Function, report.m_Message);
        }
        return Assert::Result_Continue;
    }

    std::mutex m_Lock;
    std::set<std::pair<std::string, int>> m_Sites;
};

// Counts how often each scope was entered and adds up its time, over all threads.
class CScopeTimes : public Profiler::CSinkAbstract
{
public:
    void OnScopeBegin(const Profiler::SNodeDescriptor &) override { OpenScopes().push_back(Clock::now()); }
    void OnScopeEnd(const Profiler::SNodeDescriptor &node) override
    {
        const std::chrono::duration<double, std::milli> duration = Clock::now() - OpenScopes().back();
        OpenScopes().pop_back();
        const std::lock_guard<std::mutex> lock(m_Lock);
        ++m_Totals[node.m_Name].m_Count;
        m_Totals[node.m_Name].m_Milliseconds += duration.count();
    }

    u32 Print() const // returns the number of scopes
    {
        for (const auto &[name, total] : m_Totals)
            std::printf("%8.3f ms  %6u x  %s\n", total.m_Milliseconds, total.m_Count, name.c_str());
        return u32(m_Totals.size());
    }

private:
    using Clock = std::chrono::steady_clock;
    struct STotal
    {
        u32 m_Count;
        double m_Milliseconds;
    };
    static std::vector<Clock::time_point> &OpenScopes()
    {
        static thread_local std::vector<Clock::time_point> scopes;
        return scopes;
    }

    std::mutex m_Lock;
    std::map<std::string, STotal> m_Totals;
};

// Each frame allocates particles until the library's budget is used up, then removes some. Returns the largest number
// of particles that were live at once.
u32 PlaySparks()
{
    SParticleStreamDef def;
    def.Add("position", BaseType_Float3);
    const CGuid ageId = def.Add("age", BaseType_Float);
    CParticleStream_MainMemory stream(1024);
    stream.BindStreamDef(&def);

    u32 peak = 0;
    for (u32 frame = 0; frame < 10; ++frame)
    {
        CParticlePageView born;
        while (!(born = stream.AllocateParticlesIFP(1024, 1)).Empty())
        {
            for (float &age : born.DenseColumnForWriting<float>(ageId))
                age = 0.0f;
        }
        peak = TZMax(peak, stream.ParticleCount());
        // The host can still allocate, because its tag has a budget of its own.
        void *names = Mem::_RawAlloc(1000, 0, Mem::AllocType_Generic, Mem::Origin_Alloc, "Host|Names", __FILE__,
                                     __LINE__, TZ_FUNCTION_SIGNATURE);
        if (names == null)
            return 0;
        Mem::_RawFree(names, Mem::AllocType_Generic, Mem::Origin_Alloc, "Host|Names", __FILE__, __LINE__,
                      TZ_FUNCTION_SIGNATURE);
        const u32 dead[] = {3, 14, 15, 92, 653};
        for (u32 page = 0; page < stream.PageCount(); ++page)
            stream.RemoveParticles(CGuid(page), {dead, 5});
        stream.RemoveParticles(CGuid(stream.PageCount()), {dead, 5}); // no such page: logged once
    }
    return peak;
}

} // namespace

int main()
{
    CBudgets::Install(); // before the first allocation
    COnceLogger assertions;
    CScopeTimes times;
    Profiler::CProfiler::SetSink(&times);
    if (!CheckVersion() || !Particles::Startup())
        return 1;
    const u32 peak = PlaySparks();
    Particles::Shutdown();
    Profiler::CProfiler::SetSink(null);

    const CBudgets::SBudget &budget = CBudgets::Of(Mem::kDefaultTag);
    const u32 scopeCount = times.Print();
    std::printf("%u particles in a budget of %zu bytes; %u reports, %u logged; %zu bytes not freed\n", peak,
                budget.m_Limit, assertions.m_ReportCount, assertions.m_LoggedCount, budget.m_Used);
    const bool isCorrect = peak > 100000 && peak * 16 < budget.m_Limit && assertions.m_ReportCount == 10 &&
                           assertions.m_LoggedCount == 1 && scopeCount != 0 && budget.m_Used == 0;
    return isCorrect && std::fflush(stdout) == 0 ? 0 : 1;
}
