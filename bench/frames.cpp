#include "frames.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tz_particles/include/ps_for_each.h>
#include <tz_particles/include/ps_runtime.h>

#include "containers.h"
#include "row.h"

namespace Bench
{

namespace
{

constexpr u32 kFrameCount = 2000;
constexpr u32 kGrowPagesAt = 700, kShrinkPagesAt = 1300; // frames in which the page size changes
constexpr u32 kMinLife = 60, kMaxLife = 300;             // frames
constexpr u32 kBirthFrames = 4;                          // births come every so many frames
constexpr float kTimeStep = 1.0f / 60.0f;

// How many are to be alive: up to a million in the middle, none at the end.
u32 WantedCount(u32 frame)
{
    const u32 half = kFrameCount / 2, kept = kFrameCount - 20;
    if (frame >= kept)
        return 0;
    return u32(u64(kParticleCount) * (frame < half ? frame + 1 : kept - frame) / half);
}

// The life of the serial-th particle, in frames; none outlives the last ones.
u32 LifeOf(u32 serial, u32 frame)
{
    const u32 life = kMinLife + Scramble(serial) % (kMaxLife - kMinLife);
    return TZMax(1u, TZMin(life, kFrameCount - 5 - TZMin(frame, kFrameCount - 6)));
}

// Runs of 64 to 1,000 births at a time, the same for all sides.
u32 BurstOf(u32 serial) { return 64 + Scramble(serial ^ 0x5EED) % 937; }

// Holds a lock, and notes for how long; by the wall clock, which is asked 20 times faster than a processor time.
template <typename _Lockable>
class CTimedLock
{
public:
    CTimedLock(_Lockable &lockable, double &longestHold)
        : m_Lockable(lockable)
        , m_LongestHold(longestHold)
    {
        m_Lockable.Lock();
        m_Begin = CMeter::WallNanoseconds();
    }
    ~CTimedLock()
    {
        m_LongestHold = std::max(m_LongestHold, CMeter::WallNanoseconds() - m_Begin);
        m_Lockable.Unlock();
    }

private:
    _Lockable &m_Lockable;
    double &m_LongestHold;
    double m_Begin;
};

void WriteBorn(CFloat3 *position, CFloat3 *velocity, float *life, u32 count, u32 serial, u32 frame)
{
    for (u32 i = 0; i < count; ++i)
    {
        position[i] = BornPosition(serial + i);
        velocity[i] = CFloat3(1.0f, 0.5f, 0.25f);
        life[i] = float(LifeOf(serial + i, frame));
    }
}

void Move(CFloat3 &position, const CFloat3 &velocity, float &life)
{
    position.m_X += velocity.m_X * kTimeStep;
    position.m_Y += velocity.m_Y * kTimeStep;
    position.m_Z += velocity.m_Z * kTimeStep;
    life -= 1.0f;
}

bool IsOver(float life) { return life < 0.5f; }

// A stream's frames. ForEach and RemoveIf let the render thread in between two pages; births are filled under the lock
// under which they are allocated, so that it never sees them half-done.
class CStreamFrames
{
public:
    CStreamFrames()
        : m_Stream(0)
    {
        Bind(m_Stream, Particle());
    }

    u32 Count() const { return m_Stream.ParticleCount(); }
    void RenderLock() { m_Stream.LockPagesToRender(); }
    void RenderUnlock() { m_Stream.UnlockPagesToRender(); }

    void ForEach(double &longestHold)
    {
        const double begin = CMeter::ThreadNanoseconds();
        Particles::ForEach<CFloat3, const CFloat3, float>(m_Stream, Field_Position, Field_Velocity, Field_Life,
                                                          [](CFloat3 &position, const CFloat3 &velocity, float &life)
                                                          { Move(position, velocity, life); });
        longestHold = _PerPage(CMeter::ThreadNanoseconds() - begin);
    }
    void RemoveIf(double &longestHold)
    {
        const double begin = CMeter::ThreadNanoseconds();
        Particles::RemoveIf<const float>(m_Stream, Field_Life, [](float life) { return IsOver(life); });
        longestHold = _PerPage(CMeter::ThreadNanoseconds() - begin);
    }
    void Births(u32 count, u32 serial, u32 frame, double &longestHold)
    {
        while (count != 0)
        {
            const CTimedLock<const CParticleStream_MainMemory> lock(m_Stream, longestHold);
            const CParticlePageView view = m_Stream.AllocateParticlesIFP(count, 1);
            if (view.Empty())
                std::abort();
            WriteBorn(view.DenseColumnForWriting<CFloat3>(Field_Position).Data(),
                      view.DenseColumnForWriting<CFloat3>(Field_Velocity).Data(),
                      view.DenseColumnForWriting<float>(Field_Life).Data(), view.ParticleCount(), serial, frame);
            count -= view.ParticleCount();
            serial += view.ParticleCount();
        }
    }
    void Collect() { m_Stream.GarbageCollectOldPages(null); }
    void Resize(u32 frame)
    {
        if (frame == kGrowPagesAt || frame == kShrinkPagesAt)
            m_Stream.SetPageSize(frame == kGrowPagesAt ? 2 * kPageSize : kPageSize);
        if (!m_Stream.HasPendingResizes())
            return;
        const CScopedPagesLock lock(m_Stream);
        m_Stream.ComputePendingResizes_NoLock(); // the collection may have dropped some
        m_Stream.ResizePending(2);
    }
    void Update() { Particles::PageAllocator()->Update(); }

private:
    double _PerPage(double time) const { return time / TZMax(1u, m_Stream.PageCount()); }

    CParticleStream_MainMemory m_Stream;
};

// What the peers have in common: one mutex, and nothing to do for their memory.
class CPeerFrames
{
public:
    void RenderLock() { Lock(); }
    void RenderUnlock() { Unlock(); }
    void Lock() { m_Mutex.lock(); }
    void Unlock() { m_Mutex.unlock(); }
    void Collect() {}
    void Resize(u32 /*frame*/) {}
    void Update() {}

private:
    std::mutex m_Mutex;
};

using CPeerLock = CTimedLock<CPeerFrames>;

class CColumnFrames : public CPeerFrames
{
public:
    u32 Count() const { return m_Columns.Count(); }

    void ForEach(double &longestHold)
    {
        const CPeerLock lock(*this, longestHold);
        for (u32 i = 0; i < m_Columns.Count(); ++i)
            Move(m_Columns.m_Position[i], m_Columns.m_Velocity[i], m_Columns.m_Life[i]);
    }
    void RemoveIf(double &longestHold)
    {
        const CPeerLock lock(*this, longestHold);
        u32 count = m_Columns.Count();
        for (u32 i = 0; i < count;)
        {
            if (IsOver(m_Columns.m_Life[i]))
                m_Columns.Move(--count, i);
            else
                ++i;
        }
        m_Columns.Resize(count);
    }
    void Births(u32 count, u32 serial, u32 frame, double &longestHold)
    {
        const CPeerLock lock(*this, longestHold);
        const u32 first = m_Columns.Count();
        m_Columns.Resize(size_t(first) + count);
        WriteBorn(m_Columns.m_Position.data() + first, m_Columns.m_Velocity.data() + first,
                  m_Columns.m_Life.data() + first, count, serial, frame);
    }

private:
    SColumns m_Columns;
};

class CColonyFrames : public CPeerFrames
{
public:
    u32 Count() const { return u32(m_Colony.size()); }

    void ForEach(double &longestHold)
    {
        const CPeerLock lock(*this, longestHold);
        for (SParticle &particle : m_Colony)
            Move(particle.m_Position, particle.m_Velocity, particle.m_Life);
    }
    void RemoveIf(double &longestHold)
    {
        const CPeerLock lock(*this, longestHold);
        for (CColony::iterator it = m_Colony.begin(); it != m_Colony.end();)
        {
            if (IsOver(it->m_Life))
                it = m_Colony.erase(it);
            else
                ++it;
        }
    }
    void Births(u32 count, u32 serial, u32 frame, double &longestHold)
    {
        const CPeerLock lock(*this, longestHold);
        for (u32 i = 0; i < count; ++i)
        {
            SParticle particle = {};
            WriteBorn(&particle.m_Position, &particle.m_Velocity, &particle.m_Life, 1, serial + i, frame);
            m_Colony.insert(particle);
        }
    }

private:
    CColony m_Colony;
};

// How long a thread of this process was ready to run and had no processor, by the kernel's account.
class CRunDelay
{
public:
    explicit CRunDelay(pid_t thread)
        : m_Path("/proc/self/task/" + std::to_string(thread) + "/schedstat")
    {
    }

    double Nanoseconds() const
    {
        std::ifstream file(m_Path);
        double run = 0.0, delay = 0.0;
        file >> run >> delay;
        return delay;
    }

private:
    std::string m_Path;
};

// Holds the render lock for 2 ms of every 8.
template <typename _Side>
class CRenderThread
{
public:
    CRenderThread(_Side &side, const u32 &frame, SFrameTimes *frames)
        : m_Thread([=, &side, &frame] { _Run(side, frame, frames); })
    {
    }
    ~CRenderThread()
    {
        __atomic_store_n(&m_IsOver, true, __ATOMIC_RELAXED);
        m_Thread.join();
    }

private:
    void _Run(_Side &side, const u32 &frame, SFrameTimes *frames)
    {
        const CRunDelay own(gettid()), owner(getpid()); // the first thread owns the particles
        const auto delay = [&] { return own.Nanoseconds() + owner.Nanoseconds(); };
        while (!__atomic_load_n(&m_IsOver, __ATOMIC_RELAXED))
        {
            const double delayBefore = delay(), begin = CMeter::WallNanoseconds();
            side.RenderLock();
            const double wait = CMeter::WallNanoseconds() - begin;
            double &longest = frames[__atomic_load_n(&frame, __ATOMIC_RELAXED)].m_RenderWait;
            longest = std::max(longest, wait - (delay() - delayBefore));
            _Sleep(2);
            side.RenderUnlock();
            _Sleep(6);
        }
    }
    static void _Sleep(long milliseconds)
    {
        const timespec time = {0, milliseconds * 1000000};
        nanosleep(&time, nullptr);
    }

    bool m_IsOver = false;
    std::thread m_Thread;
};

template <typename _Side>
void Run(SFrameTimes *frames)
{
    _Side side;
    u32 serial = 0, current = 0;
    const CRenderThread<_Side> renderThread(side, current, frames);
    for (u32 frame = 0; frame < kFrameCount; ++frame)
    {
        __atomic_store_n(&current, frame, __ATOMIC_RELAXED);
        SFrameTimes &times = frames[frame];
        const auto step = [&](EFrameStep which, auto work)
        {
            const double begin = CMeter::ThreadNanoseconds();
            work(times.m_LongestHold[which]);
            times.m_Steps[which] = CMeter::ThreadNanoseconds() - begin;
        };
        const auto call = [&](EFrameStep which, auto work)
        {
            step(which, [&](double &) { work(); });
            times.m_LongestHold[which] = times.m_Steps[which];
        };
        step(Step_ForEach, [&](double &hold) { side.ForEach(hold); });
        step(Step_RemoveIf, [&](double &hold) { side.RemoveIf(hold); });
        step(Step_Births,
             [&](double &hold)
             {
                 const u32 wanted = frame % kBirthFrames == 0 ? WantedCount(frame) : 0;
                 for (u32 alive = side.Count(); alive < wanted;)
                 {
                     const u32 burst = TZMin(BurstOf(serial), wanted - alive);
                     side.Births(burst, serial, frame, hold);
                     serial += burst;
                     alive += burst;
                 }
             });
        call(Step_Collect, [&] { side.Collect(); });
        call(Step_Resize, [&] { side.Resize(frame); });
        call(Step_Update, [&] { side.Update(); });
    }
    if (side.Count() != 0)
        std::abort();
}

int Abort(const Assert::SReport &report, void *)
{
    std::fprintf(stderr, "%s:%d: %s\n", report.m_File, report.m_Line, report.m_Message);
    std::exit(1);
}

using FnRun = void (*)(SFrameTimes *frames);

// One run in a process of its own.
std::vector<SFrameTimes> RunInChild(FnRun run)
{
    const size_t bytes = kFrameCount * sizeof(SFrameTimes);
    void *shared = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    std::fflush(stdout);
    const pid_t child = shared != MAP_FAILED ? fork() : -1;
    if (child == 0)
    {
        std::memset(shared, 0, bytes); // its page faults are no frame's
        Assert::SetHandler(&Abort, nullptr);
        if (!Particles::Startup())
            _exit(1);
        run(static_cast<SFrameTimes *>(shared));
        Particles::Shutdown();
        _exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0)
    {
        std::fprintf(stderr, "frames: failed\n");
        std::exit(1);
    }
    const SFrameTimes *frames = static_cast<const SFrameTimes *>(shared);
    std::vector<SFrameTimes> result(frames, frames + kFrameCount);
    munmap(shared, bytes);
    return result;
}

void Add(SFrameSide &side, std::vector<SFrameTimes> frames)
{
    double worstWait = 0.0;
    for (size_t i = 0; i < frames.size(); ++i)
    {
        worstWait = std::max(worstWait, frames[i].m_RenderWait);
        for (int step = 0; step < Step_Count && !side.m_Frames.empty(); ++step)
        {
            const SFrameTimes &before = side.m_Frames[i];
            frames[i].m_Steps[step] = std::min(frames[i].m_Steps[step], before.m_Steps[step]);
            frames[i].m_LongestHold[step] = std::min(frames[i].m_LongestHold[step], before.m_LongestHold[step]);
        }
    }
    side.m_Frames = std::move(frames);
    side.m_WorstRenderWaits.push_back(worstWait);
}

} // namespace

double SFrameTimes::Sum() const { return std::accumulate(m_Steps, m_Steps + Step_Count, 0.0); }

std::vector<double> SFrameSide::Sums() const
{
    std::vector<double> sums;
    for (const SFrameTimes &frame : m_Frames)
        sums.push_back(frame.Sum());
    return sums;
}

std::vector<SFrameSide> MeasureFrames(unsigned runCount)
{
    std::vector<SFrameSide> sides = {{"ours", {}, {}}, {"vector per column", {}, {}}, {"plf::colony", {}, {}}};
    const FnRun runs[] = {&Run<CStreamFrames>, &Run<CColumnFrames>, &Run<CColonyFrames>};
    for (unsigned i = 0; i < runCount; ++i)
    {
        for (size_t side = 0; side < sides.size(); ++side)
            Add(sides[side], RunInChild(runs[side]));
    }
    return sides;
}

} // namespace Bench
