// Frames of an effect that grows from nothing to a million particles and vanishes again, while a second thread takes
// the render lock. Usage: frames_bench ours|columns|colony
// Prints a line of nanoseconds for each frame: of each step, by the owner's processor time, so that neither preemption
// nor waiting counts; the longest hold of the lock in each; the render thread's longest wait that ended in the frame.
#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>

#include <unistd.h>

#include "measure.h"
#include "peers.h"

using namespace Bench;

namespace
{

constexpr u32 kFrameCount = 2000;
constexpr u32 kGrowPagesAt = 700, kShrinkPagesAt = 1300; // frames in which the page size changes
constexpr u32 kMinLife = 60, kMaxLife = 300;             // frames
constexpr u32 kStepCount = 6;

struct SFrameTimes
{
    double m_Steps[kStepCount], m_Holds[kStepCount], m_RenderWait;
};
SFrameTimes g_Frames[kFrameCount + 1];
std::atomic<u32> g_Frame{0};

double Nanoseconds(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return double(now.tv_sec) * 1e9 + double(now.tv_nsec);
}

// How many are to be alive: up to a million in the middle, none at the end. Births come every fourth frame.
u32 WantedCount(u32 frame)
{
    const u32 half = kFrameCount / 2, kept = kFrameCount - 20;
    if (frame >= kept || frame % 4 != 0)
        return 0;
    return u32(u64(kParticleCount) * (frame < half ? frame + 1 : kept - frame) / half);
}

// Runs of 64 to 1,000 births at a time, the same for all sides.
u32 BurstOf(u32 serial) { return 64 + Scramble(serial ^ 0x5EED) % 937; }

// Lives are in frames; none outlives the last ones.
void WriteBorn(CFloat3 *position, CFloat3 *velocity, float *life, u32 count, u32 serial)
{
    const u32 longest = kFrameCount - 5 - TZMin(u32(g_Frame), kFrameCount - 6);
    for (u32 i = 0; i < count; ++i)
    {
        position[i] = BornPosition(serial + i);
        velocity[i] = CFloat3(1.0f, 0.5f, 0.25f);
        life[i] = float(TZMin(kMinLife + Scramble(serial + i) % (kMaxLife - kMinLife), longest));
    }
}

struct SOurFrames : CStream
{
    // Births under one lock, at most so many. Returns how many.
    u32 Births(u32 count, u32 serial)
    {
        const CParticlePageView view = AllocateParticlesIFP(count, 1);
        WriteBorn(view.DenseColumnForWriting<CFloat3>(Field_Position).Data(),
                  view.DenseColumnForWriting<CFloat3>(Field_Velocity).Data(),
                  view.DenseColumnForWriting<float>(Field_Life).Data(), view.ParticleCount(), serial);
        return view.ParticleCount();
    }
    void Collect() { GarbageCollectOldPages(null); }
    void Resize()
    {
        if (g_Frame == kGrowPagesAt || g_Frame == kShrinkPagesAt)
            SetPageSize(g_Frame == kGrowPagesAt ? 2 * kPageSize : kPageSize);
        if (!HasPendingResizes())
            return;
        const CScopedPagesLock lock(*this);
        ComputePendingResizes_NoLock(); // the collection may have dropped some
        ResizePending(2);
    }
    void Update() { Particles::PageAllocator()->Update(); }
};

// One mutex, named as a stream's locks are; a pass holds it all the time. Memory needs no care.
template <typename _Particles>
struct TPeerFrames : _Particles
{
    std::mutex m_Mutex;

    void LockPages() { m_Mutex.lock(); }
    void UnlockPages() { m_Mutex.unlock(); }
    void LockPagesToRender() { m_Mutex.lock(); }
    void UnlockPagesToRender() { m_Mutex.unlock(); }
    u32 PageCount() const { return 1; }
    template <typename _Fn>
    void ForEach(_Fn fn)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        _Particles::ForEach(fn);
    }
    template <typename _IsOver>
    void RemoveIf(_IsOver isOver)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        _Particles::RemoveIf(isOver);
    }
    void Collect() {}
    void Resize() {}
    void Update() {}
};

struct SColumnFrames : TPeerFrames<SColumns>
{
    u32 Births(u32 count, u32 serial)
    {
        const u32 first = ParticleCount();
        SColumns::Resize(size_t(first) + count);
        WriteBorn(m_Position.data() + first, m_Velocity.data() + first, m_Life.data() + first, count, serial);
        return count;
    }
};

struct SColonyFrames : TPeerFrames<SColony>
{
    u32 Births(u32 count, u32 serial)
    {
        for (u32 i = 0; i < count; ++i)
        {
            SParticle particle = {};
            WriteBorn(&particle.m_Position, &particle.m_Velocity, &particle.m_Life, 1, serial + i);
            m_Particles.insert(particle);
        }
        return count;
    }
};

// Brings the number of particles to what it is to be. Returns the longest hold of the lock, by the wall clock, which is
// asked 20 times faster than a processor time.
template <typename _Side>
double AllBirths(_Side &side)
{
    static u32 serial = 0;
    const u32 wanted = WantedCount(g_Frame);
    double longestHold = 0.0;
    while (side.ParticleCount() < wanted)
    {
        for (u32 left = TZMin(BurstOf(serial), wanted - side.ParticleCount()); left != 0;)
        {
            side.LockPages();
            const double begin = Nanoseconds(CLOCK_MONOTONIC);
            const u32 count = side.Births(left, serial);
            longestHold = TZMax(longestHold, Nanoseconds(CLOCK_MONOTONIC) - begin);
            side.UnlockPages();
            left -= count;
            serial += count;
        }
    }
    return longestHold;
}

template <typename _Side>
void RunFrame(_Side &side, SFrameTimes &times)
{
    u32 step = 0;
    const auto measure = [&](auto work)
    {
        const double begin = Nanoseconds(CLOCK_THREAD_CPUTIME_ID);
        work();
        times.m_Steps[step] = times.m_Holds[step] = Nanoseconds(CLOCK_THREAD_CPUTIME_ID) - begin;
        ++step;
    };
    const auto move = [](CFloat3 &position, const CFloat3 &velocity, float &life)
    {
        constexpr float kTimeStep = 1.0f / 60.0f;
        position = CFloat3(position.x + velocity.x * kTimeStep, position.y + velocity.y * kTimeStep,
                           position.z + velocity.z * kTimeStep);
        life -= 1.0f;
    };
    double birthHold = 0.0;
    measure([&] { side.ForEach(move); });
    measure([&] { side.RemoveIf([](float life) { return life < 0.5f; }); });
    measure([&] { birthHold = AllBirths(side); });
    measure([&] { side.Collect(); });
    measure([&] { side.Resize(); });
    measure([&] { side.Update(); });
    times.m_Holds[0] /= TZMax(1u, side.PageCount()); // the library lets the render thread in between two pages
    times.m_Holds[1] /= TZMax(1u, side.PageCount());
    times.m_Holds[2] = birthHold;
    times.m_Holds[5] = 0.0;
}

// How long this thread and the main thread, which owns the particles, were ready to run and had no processor, by the
// kernel's account.
double RunDelay()
{
    double sum = 0.0;
    for (const pid_t thread : {gettid(), getpid()})
    {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/schedstat");
        double run = 0.0, delay = 0.0;
        file >> run >> delay;
        sum += delay;
    }
    return sum;
}

// Holds the render lock for 2 ms of every 8.
template <typename _Side>
void Render(_Side &side)
{
    while (g_Frame < kFrameCount)
    {
        const double delayBefore = RunDelay(), begin = Nanoseconds(CLOCK_MONOTONIC);
        side.LockPagesToRender();
        const double wait = Nanoseconds(CLOCK_MONOTONIC) - begin - (RunDelay() - delayBefore);
        double &longest = g_Frames[g_Frame].m_RenderWait;
        longest = TZMax(longest, wait);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        side.UnlockPagesToRender();
        std::this_thread::sleep_for(std::chrono::milliseconds(6));
    }
}

template <typename _Side>
void Run()
{
    std::memset(g_Frames, 0, sizeof(g_Frames)); // its page faults are no frame's
    _Side side;
    std::thread renderThread([&] { Render(side); });
    for (; g_Frame < kFrameCount; ++g_Frame)
        RunFrame(side, g_Frames[g_Frame]);
    renderThread.join();
    for (u32 frame = 0; frame < kFrameCount; ++frame)
    {
        const double *times = g_Frames[frame].m_Steps;
        for (u32 i = 0; i < sizeof(SFrameTimes) / sizeof(double); ++i)
            std::printf("%.0f ", times[i]);
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char **argv)
{
    const std::string side = argc == 2 ? argv[1] : "";
    void (*const run)() = side == "ours"      ? &Run<SOurFrames>
                          : side == "columns" ? &Run<SColumnFrames>
                          : side == "colony"  ? &Run<SColonyFrames>
                                              : null;
    return run != null ? RunWithRuntime(run) : 2;
}
