// Going over particles by functions, beside loops over plain pointers into the same pages.
#include <atomic>
#include <cmath>
#include <thread>

#include <tz_particles/include/ps_for_each.h>

#include "row.h"

namespace Bench
{

namespace
{

constexpr float kTimeStep = 1.0f / 60.0f;
constexpr CGuid kPosition{u32(Field_Position)}, kVelocity{u32(Field_Velocity)}, kLife{u32(Field_Life)};

void Step(CFloat3 &position, const CFloat3 &velocity, float &life)
{
    position.x += velocity.x * kTimeStep;
    position.y += velocity.y * kTimeStep;
    position.z += velocity.z * kTimeStep;
    life -= kTimeStep;
}

struct SStream : CParticleStream_MainMemory
{
    explicit SStream(u32 particleCount)
        : CParticleStream_MainMemory(kPageSize)
    {
        Bind(*this, Particle());
        AppendParticles(*this, particleCount);
        FillColumns(*this, true);
    }
};

template <typename _Type>
_Type *Column(const CParticlePage &page, CGuid field)
{
    return reinterpret_cast<_Type *>(page.Streams().Data()[field.Get()].m_RawDataPtr);
}

TZ_NOINLINE void StepByFunction(SStream &stream)
{
    Particles::ForEach<CFloat3, const CFloat3, float>(stream, kPosition, kVelocity, kLife,
                                                      [](CFloat3 &position, const CFloat3 &velocity, float &life)
                                                      { Step(position, velocity, life); });
}

TZ_NOINLINE void StepByPointers(SStream &stream)
{
    const CScopedPagesLock lock(stream);
    for (u32 i = 0; i < stream.PageCount(); ++i)
    {
        const CParticlePage &page = *stream._UnsafePage(CGuid(i)).Get();
        CFloat3 *positions = Column<CFloat3>(page, kPosition);
        const CFloat3 *velocities = Column<const CFloat3>(page, kVelocity);
        float *lives = Column<float>(page, kLife);
        const u32 count = page.ParticleCount();
        for (u32 row = 0; row < count; ++row)
            Step(positions[row], velocities[row], lives[row]);
    }
}

void AddStepRow(u32 particleCount)
{
    const auto body = [=](const RunSides &run)
    {
        SStream stream(particleCount);
        const auto repeat = [&](CMeter &meter, void (*step)(SStream &))
        {
            meter.Time(
                [&]
                {
                    for (u32 done = 0; done < kParticleCount; done += particleCount)
                        step(stream);
                });
        };
        run({Ours([&](CMeter &meter) { repeat(meter, &StepByFunction); }),
             Limit("plain pointers into the same pages", 1.05,
                   [&](CMeter &meter) { repeat(meter, &StepByPointers); })});
    };
    AddRow({"for each", "move and age, " + std::to_string(particleCount), kParticleCount, "ns a particle", 0.0,
            "a page's reference and its checks, some 8 ns for its thousand rows"},
           body);
}

// A tenth of a million, at random places, dies in each round and is born again before the next one.
void RemoveTenth(const RunSides &run)
{
    SStream stream(kParticleCount);
    const auto refill = [&]
    {
        u32 bornCount = 0, number = 0;
        for (u32 i = 0; i < stream.PageCount(); ++i)
        {
            CParticlePage &page = *stream.Page(CGuid(i));
            const u32 missing = TZMin(page.Capacity(), kParticleCount - i * kPageSize) - page.ParticleCount();
            page.AllocateParticles(missing);
            bornCount += missing;
            for (u32 row = 0; row < page.ParticleCount(); ++row)
                Column<float>(page, kLife)[row] = Scramble(number++) % 10 == 0 ? 0.0f : 1.0f;
        }
        stream.RegisterBornCount(bornCount);
    };
    const auto byFunction = [&]
    { Keep(Particles::RemoveIf<const float>(stream, kLife, [](float life) { return life <= 0.0f; })); };
    const auto byPointers = [&]
    {
        const CScopedPagesLock lock(stream);
        for (u32 i = 0; i < stream.PageCount(); ++i)
        {
            const CParticlePage &page = *stream._UnsafePage(CGuid(i)).Get();
            const float *lives = Column<const float>(page, kLife);
            u32 rows[kPageSize];
            u32 rowCount = 0;
            for (u32 row = 0; row < page.ParticleCount(); ++row)
            {
                rows[rowCount] = row;
                rowCount += lives[row] <= 0.0f ? 1 : 0;
            }
            stream.RemoveParticles(CGuid(i), {rows, rowCount});
        }
    };
    const auto measure = [&](CMeter &meter, const auto &remove)
    {
        refill();
        meter.Time(remove);
    };
    run({Ours([&](CMeter &meter) { measure(meter, byFunction); }),
         Limit("plain pointers into the same pages", 1.05, [&](CMeter &meter) { measure(meter, byPointers); })});
}

void GoOnThreads(const RunSides &run)
{
    SStream stream(kParticleCount);
    const auto normalise = [](const CParticlePageView &page)
    {
        for (CFloat3 &v : page.DenseColumnForWriting<CFloat3>(kVelocity))
        {
            const float scale = 1.0f / std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z + 1.0f);
            v = CFloat3(v.x * scale + 1.0f, v.y * scale, v.z * scale);
        }
    };
    const auto onThreads = [&](CMeter &meter, u32 threadCount)
    {
        const auto executor = [threadCount](u32 count, const auto &task)
        {
            std::atomic<u32> next{0};
            const auto work = [&]
            {
                for (u32 index = next++; index < count; index = next++)
                    task(index);
            };
            std::thread other(threadCount == 2 ? std::thread(work) : std::thread());
            work();
            if (other.joinable())
                other.join();
        };
        const double begin = CMeter::WallNanoseconds();
        for (u32 round = 0; round < 4; ++round)
            Particles::ForEachPageOn(executor, stream, normalise);
        meter.Add(CMeter::WallNanoseconds() - begin);
    };
    run({Ours([&](CMeter &meter) { onThreads(meter, 2); }),
         Limit("one thread", 0.6, [&](CMeter &meter) { onThreads(meter, 1); })});
}

} // namespace

void AddForEachRows()
{
    AddStepRow(10000);
    AddStepRow(kParticleCount);
    AddRow({"for each", "a tenth of a million removed by a predicate", kParticleCount, "ns a particle"}, &RemoveTenth);
    AddRow({"for each", "pages on two threads, a million four times", 4.0 * kParticleCount, "ns a particle"},
           &GoOnThreads);
}

} // namespace Bench
