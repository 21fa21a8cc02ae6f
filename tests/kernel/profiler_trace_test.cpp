// The trace sink: what it writes, parsed.
#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <support/allocator_hook.h>
#include <tz_kernel/include/kr_profiler_trace.h>

using namespace Tessaly;
using namespace Tessaly::Tests;
using namespace Tessaly::Profiler;

// Valid characters of two to four bytes; then what is none: a lone byte, one too long, a surrogate, one past the last,
// a torn one.
#define BAD "\ufffd"
#define VALID_TEXT "\u00e9 \u20ac \U0001F30D"
const SNodeDescriptor kOuter("outer \"quoted\" \\ \n\x7F " VALID_TEXT
                             " \xE9 \xC0\xAF \xED\xA0\x80 \xF4\x90\x80\x80 \xE2\x82",
                             __FILE__, CFloat3(1, 0, 0), 0);
const SNodeDescriptor kInner("inner", __FILE__, CFloat3(0, 1, 0), 0);

static nlohmann::json Written(const CTraceSink &sink)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::tmpfile(), &std::fclose);
    EXPECT_TRUE(sink.Write(file.get()));
    std::rewind(file.get());
    return nlohmann::json::parse(file.get());
}

static u64 Nanoseconds(const nlohmann::json &microseconds) { return u64(microseconds.get<double>() * 1000.0 + 0.5); }

TEST(TraceSink, WritesNestedScopesOfNamedThreads)
{
    constexpr u32 kRounds = 300;
    CTraceSink sink;
    CProfiler::SetSink(&sink);
    const auto work = [](const char *name)
    {
        pthread_setname_np(pthread_self(), name);
        for (u32 i = 0; i < kRounds; ++i)
        {
            const CScopedNode outer(MainEngineProfiler(), &kOuter, true);
            const CScopedNode first(MainEngineProfiler(), &kInner, true);
            const CScopedNode second(MainEngineProfiler(), &kInner, true);
        }
    };
    std::thread threads[] = {std::thread(work, "a \"worker\""), std::thread(work, "b"), std::thread(work, "c")};
    while (sink.ScopeCount() < kRounds) // written from time to time, too
        EXPECT_EQ(Written(sink)["otherData"]["droppedScopes"], 0);
    for (std::thread &thread : threads)
        thread.join();
    CProfiler::SetSink(null);

    std::map<u32, std::vector<nlohmann::json>> ended;
    std::multiset<std::string> names;
    const nlohmann::json written = Written(sink);
    for (const nlohmann::json &event : written["traceEvents"])
    {
        if (event["ph"] == "M")
            names.insert(event["args"]["name"]);
        else
            ended[event["tid"]].push_back(event);
    }
    EXPECT_EQ(names, (std::multiset<std::string>{"a \"worker\"", "b", "c"}));
    ASSERT_EQ(ended.size(), 3u);
    for (const auto &[thread, events] : ended)
    {
        ASSERT_EQ(events.size(), 3 * kRounds);
        u64 starts[3], ends[3] = {};
        for (size_t i = 0; i < events.size(); ++i)
        {
            const u64 lastEnd = ends[2];
            starts[i % 3] = Nanoseconds(events[i]["ts"]);
            ends[i % 3] = starts[i % 3] + Nanoseconds(events[i]["dur"]);
            EXPECT_TRUE(events[i]["ph"] == "X" && events[i]["pid"] == getpid());
            EXPECT_EQ(events[i]["name"], i % 3 != 2 ? "inner"
                                                    : "outer \"quoted\" \\ \n\x7F " VALID_TEXT " " BAD " " BAD BAD
                                                      " " BAD BAD BAD " " BAD BAD BAD BAD " " BAD BAD);
            if (i % 3 == 0)
                EXPECT_LE(lastEnd, starts[0]);
            else
                EXPECT_TRUE(starts[i % 3] <= starts[i % 3 - 1] && ends[i % 3 - 1] <= ends[i % 3]) << "nested";
        }
    }
}

TEST(TraceSink, DropsAndCountsWhatIsTooMuch)
{
    CTraceSink sink(10);
    sink.OnScopeEnd(kInner); // never began
    for (u32 i = 0; i < CTraceSink::kMaxDepth + 3; ++i)
        sink.OnScopeBegin(kInner);
    for (u32 i = 0; i < CTraceSink::kMaxDepth + 3; ++i)
        sink.OnScopeEnd(i < 3 ? kOuter : kInner);
    for (u32 i = 0; i < 7; ++i) // the last ten are three of the first kind and these
        sink.OnScopeBegin(kOuter), sink.OnScopeEnd(kOuter);
    EXPECT_EQ(sink.ScopeCount(), 10u);
    EXPECT_EQ(sink.DroppedCount(), CTraceSink::kMaxDepth);
    const nlohmann::json written = Written(sink);
    EXPECT_EQ(written["otherData"]["droppedScopes"], CTraceSink::kMaxDepth);
    const nlohmann::json &events = written["traceEvents"];
    ASSERT_EQ(events.size(), 1u + 10);
    double lastEnd = 0;
    for (size_t i = 1; i < events.size(); ++i)
    {
        EXPECT_EQ(events[i]["name"] == "inner", i <= 3) << i;
        const double end = events[i]["ts"].get<double>() + events[i]["dur"].get<double>();
        EXPECT_LE(lastEnd, end + 1e-4) << i;
        lastEnd = end;
    }

    CTraceSink one(10), another(10);
    for (CTraceSink *next : {&one, &another, &one})
        next->OnScopeBegin(kInner), next->OnScopeEnd(kInner);
    EXPECT_EQ(Written(one)["traceEvents"].size(), 1u + 2) << "a thread is named once";

    CAllocatorHook memory;
    memory.RefuseFrom(1);
    CTraceSink poor;
    poor.OnScopeBegin(kInner);
    poor.OnScopeEnd(kInner);
    EXPECT_EQ(poor.ScopeCount() * 10 + poor.DroppedCount(), 1u);
    std::FILE *full = std::fopen("/dev/full", "w");
    EXPECT_FALSE(sink.Write(full));
    std::fclose(full);
}
