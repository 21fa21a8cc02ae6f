// Deaths: a steady life of births and deaths, and the removal alone.
#include <cstring>

#include <tz_particles/include/ps_runtime.h>

#include "containers.h"
#include "row.h"

namespace Bench
{

namespace
{

constexpr u32 kAliveCount = 102400;
constexpr u32 kLifeFrameCount = u32(kBornLife); // in each of which a tenth dies
constexpr u32 kBornCount = kAliveCount / kLifeFrameCount;
constexpr u32 kFrameCount =
    5 * kLifeFrameCount; // of a round: what the sides before it left in the caches counts little

// Takes one frame off 32 lives; gives a bit for each that is over.
u32 AgeOf32(float *life)
{
    using SFloats4 = float __attribute__((vector_size(16)));
    using SInts4 = s32 __attribute__((vector_size(16)));
    SInts4 dead = {}, bits = {1, 2, 4, 8};
    for (float *four = life; four != life + 32; four += 4, bits <<= 4)
    {
        SFloats4 lives;
        std::memcpy(&lives, four, sizeof(lives));
        lives -= 1.0f;
        std::memcpy(four, &lives, sizeof(lives));
        dead |= (lives < 0.5f) & bits;
    }
    return u32(dead[0] | dead[1] | dead[2] | dead[3]);
}

// Takes one frame off everyone's life, and lists who has none left. Everyone's columns run through this, where the dead
// are listed.
TZ_NOINLINE u32 Age(float *life, u32 count, u32 *outDead)
{
    u32 deadCount = 0, i = 0;
    for (; i + 64 <= count; i += 64)
    {
        const u64 first = AgeOf32(life + i), second = AgeOf32(life + i + 32);
        for (u64 left = first | second << 32; left != 0; left &= left - 1)
            outDead[deadCount++] = i + u32(__builtin_ctzll(left));
    }
    for (; i < count; ++i)
    {
        life[i] -= 1.0f;
        if (life[i] < 0.5f)
            outDead[deadCount++] = i;
    }
    return deadCount;
}

// The lives that the particles start with: each number of frames for a tenth of them. In order of birth the first in
// are the first out, and those who were born together die together; mixed, in no order.
std::vector<float> FirstLives(bool isMixed)
{
    std::vector<float> lives;
    for (u32 i = 0; i < kAliveCount; ++i)
        lives.push_back(float(1 + i / kBornCount));
    for (u32 i = kAliveCount - 1; isMixed && i > 0; --i)
        std::swap(lives[i], lives[Scramble(i) % (i + 1)]);
    return lives;
}

void BirthsOfFrame(CParticleStream_MainMemory &stream)
{
    for (u32 born = 0; born < kBornCount; born += kBurstSize)
        Birth(stream, kBurstSize);
}

void Frame(CParticleStream_MainMemory &stream, std::vector<u32> &dead)
{
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const TMemoryView<float> life =
            CParticlePageView(stream.Page(CGuid(i))).DenseColumnForWriting<float>(CGuid(Field_Life));
        const u32 deadCount = Age(life.Data(), life.Count(), dead.data());
        stream.RemoveParticles(CGuid(i), TMemoryView<const u32>(dead.data(), deadCount));
    }
    BirthsOfFrame(stream);
}

// The dead are removed as they are met.
void Frame(SColumns &columns)
{
    u32 count = columns.Count();
    for (u32 i = 0; i < count;)
    {
        columns.m_Life[i] -= 1.0f;
        if (columns.m_Life[i] < 0.5f)
            columns.Move(--count, i);
        else
            ++i;
    }
    columns.Resize(count);
    for (u32 born = 0; born < kBornCount; born += kBurstSize)
        columns.Birth(kBurstSize);
}

// The dead are listed before they are removed, as a page's are.
void FrameByList(SColumns &columns, std::vector<u32> &dead)
{
    u32 count = columns.Count();
    for (u32 deadCount = Age(columns.m_Life.data(), count, dead.data()); deadCount > 0;)
        columns.Move(--count, dead[--deadCount]);
    columns.Resize(count);
    for (u32 born = 0; born < kBornCount; born += kBurstSize)
        columns.Birth(kBurstSize);
}

void Frame(CStructs &structs)
{
    for (size_t i = 0; i < structs.size();)
    {
        structs[i].m_Life -= 1.0f;
        if (structs[i].m_Life >= 0.5f)
        {
            ++i;
            continue;
        }
        structs[i] = structs.back();
        structs.pop_back();
    }
    for (u32 born = 0; born < kBornCount; born += kBurstSize)
        Birth(structs, kBurstSize);
}

void Frame(CColony &colony)
{
    for (CColony::iterator it = colony.begin(); it != colony.end();)
    {
        it->m_Life -= 1.0f;
        if (it->m_Life < 0.5f)
            it = colony.erase(it);
        else
            ++it;
    }
    for (u32 born = 0; born < kBornCount; born += kBurstSize)
        Birth(colony, kBurstSize);
}

template <typename _Frame>
void LiveOn(CMeter &meter, _Frame frame)
{
    meter.Time(
        [&]
        {
            for (u32 i = 0; i < kFrameCount; ++i)
                frame();
        });
}

// A stream that starts with everyone alive.
class CLivingStream
{
public:
    explicit CLivingStream(const std::vector<float> &firstLives)
        : m_Stream(0)
        , m_Dead(kAliveCount)
    {
        Bind(m_Stream, Particle());
        AppendParticles(m_Stream, kAliveCount);
        const float *lives = firstLives.data();
        for (u32 i = 0; i < m_Stream.PageCount(); ++i)
        {
            for (float &life :
                 CParticlePageView(m_Stream.Page(CGuid(i))).DenseColumnForWriting<float>(CGuid(Field_Life)))
                life = *lives++;
        }
    }

    void Frame() { Bench::Frame(m_Stream, m_Dead); }
    void Collect() { m_Stream.GarbageCollectOldPages(null); }

private:
    CParticleStream_MainMemory m_Stream;
    std::vector<u32> m_Dead;
};

void SteadyLife(const RunSides &run, bool isMixed)
{
    const std::vector<float> firstLives = FirstLives(isMixed);
    CLivingStream stream(firstLives);
    SColumns columns, listedColumns;
    columns.Resize(kAliveCount);
    columns.m_Life = firstLives;
    listedColumns = columns;
    std::vector<u32> dead(kAliveCount);
    CStructs structs;
    CColony colony;
    for (const float life : firstLives)
    {
        structs.push_back(Born(0, life));
        colony.insert(Born(0, life));
    }
    run({Ours([&](CMeter &meter) { LiveOn(meter, [&] { stream.Frame(); }); }),
         Limit("vectors, dead listed first", 0.0,
               [&](CMeter &meter) { LiveOn(meter, [&] { FrameByList(listedColumns, dead); }); }),
         Peer("vector per column", 0.6, [&](CMeter &meter) { LiveOn(meter, [&] { Frame(columns); }); }),
         Peer("vector of structs", 0.0, [&](CMeter &meter) { LiveOn(meter, [&] { Frame(structs); }); }),
         Peer("plf::colony", 0.15, [&](CMeter &meter) { LiveOn(meter, [&] { Frame(colony); }); })});
}

// Each thread has a stream of its own, whose emptied pages go back to the page allocator and come from it; the first
// thread calls Update once a frame.
void LifeOnThreads(unsigned threadCount, CMeter &meter)
{
    const std::vector<float> firstLives = FirstLives(false);
    RunOnThreads(threadCount, meter,
                 [&](unsigned thread, CRendezvous &rendezvous)
                 {
                     CLivingStream stream(firstLives);
                     rendezvous.Begin(thread);
                     for (u32 i = 0; i < kFrameCount; ++i)
                     {
                         stream.Frame();
                         stream.Collect();
                         if (thread == 0)
                             Particles::PageAllocator()->Update();
                     }
                     rendezvous.End(thread);
                 });
}

// One in ten, in no order: the indices within pages of pageSize particles, and where each page's list ends.
struct SRandomTenth
{
    std::vector<u32> m_Indices;
    std::vector<u32> m_ListEnds;

    SRandomTenth(u32 count, u32 pageSize)
    {
        for (u32 i = 0; i < count; ++i)
        {
            if (Scramble(i) % 10 == 0)
                m_Indices.push_back(i % pageSize);
            if ((i + 1) % pageSize == 0 || i + 1 == count)
                m_ListEnds.push_back(u32(m_Indices.size()));
        }
    }
};

void RemoveTenth(CParticleStream_MainMemory &stream, const SRandomTenth &tenth)
{
    u32 begin = 0;
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const u32 end = tenth.m_ListEnds[i];
        stream.RemoveParticles(CGuid(i), TMemoryView<const u32>(tenth.m_Indices.data() + begin, end - begin));
        begin = end;
    }
}

// The removed slots are taken again, and hold what they held.
void Refill(CParticleStream_MainMemory &stream, u32 particleCount)
{
    u32 bornCount = 0;
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        CParticlePage &page = *stream.Page(CGuid(i));
        const u32 wanted = TZMin(page.Capacity(), particleCount - i * page.Capacity());
        bornCount += wanted - page.ParticleCount();
        page.AllocateParticles(wanted - page.ParticleCount());
    }
    stream.RegisterBornCount(bornCount);
}

void RemoveRandomTenth(const RunSides &run)
{
    const SRandomTenth paged(kParticleCount, kPageSize), flat(kParticleCount, kParticleCount);
    CParticleStream_MainMemory stream(0);
    Bind(stream, Particle());
    AppendParticles(stream, kParticleCount);
    FillColumns(stream, true);
    SColumns columns;
    columns.Resize(kParticleCount);
    CStructs structs(kParticleCount, Born(0));
    const auto ours = [&](CMeter &meter)
    {
        Refill(stream, kParticleCount);
        meter.Time([&] { RemoveTenth(stream, paged); });
    };
    const auto swapRemove = [&](CMeter &meter, auto move)
    {
        meter.Time(
            [&]
            {
                u32 count = kParticleCount;
                for (auto dead = flat.m_Indices.rbegin(); dead != flat.m_Indices.rend(); ++dead)
                    move(--count, *dead);
            });
    };
    run({Ours(ours),
         Limit("swap-remove, flat columns", 1.2,
               [&](CMeter &meter) { swapRemove(meter, [&](u32 last, u32 i) { columns.Move(last, i); }); }),
         Peer("vector of structs", 0.0,
              [&](CMeter &meter) { swapRemove(meter, [&](u32 last, u32 i) { structs[i] = structs[last]; }); })});
}

} // namespace

void AddLifeRows()
{
    const auto addRow = [](const char *title, bool isMixed, const char *reason)
    {
        AddRow({"4", title, kFrameCount * kAliveCount, "ns a particle", 0.0, reason},
               [=](const RunSides &run) { SteadyLife(run, isMixed); });
    };
    addRow("steady life of 102,400, ages in order of birth", false, "");
    addRow("steady life of 102,400, ages mixed", true, "a death moves a row of five columns, in a colony none");
    AddRow({"11", "steady life of 102,400 on each of two threads, Update each frame", kFrameCount * kAliveCount,
            "ns a particle"},
           [](const RunSides &run)
           {
               run({Ours([](CMeter &meter) { LifeOnThreads(2, meter); }),
                    Limit("one thread alone", 1.1, [](CMeter &meter) { LifeOnThreads(1, meter); })});
           });
}

void AddRemovalRows()
{
    AddRow({"6", "remove a random tenth of a million", kParticleCount / 10, "ns a removed one"}, &RemoveRandomTenth);
}

} // namespace Bench
