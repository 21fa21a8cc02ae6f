// What the benchmarks compare does the same: a stream and a vector per column hold the same particles.

#include <algorithm>

#include <support/stream_fixture.h>
#include <workloads/particles.h>

namespace Tessaly::Tests
{
namespace
{

class Workloads : public ::testing::Test
{
protected:
    using Values = std::vector<std::pair<float, float>>; // life and x of the position, of each particle, in order

    template <typename _Particles>
    static Values SortedValues(_Particles &particles)
    {
        Values values;
        particles.ForEach([&](const CFloat3 &position, const CFloat3 &, float life)
                          { values.emplace_back(life, position.x); });
        std::sort(values.begin(), values.end());
        return values;
    }

    CScopedRuntime m_Runtime;
    CReportRecorder m_Reports;
};

TEST_F(Workloads, SpawnedParticlesAreTheSame)
{
    Bench::CStream stream;
    Bench::SColumns columns;
    Bench::Spawn(stream, 10 * Bench::kPageSize);
    Bench::Spawn(columns, 10 * Bench::kPageSize);
    EXPECT_EQ(stream.PageCount(), 10u);
    EXPECT_EQ(SortedValues(stream), SortedValues(columns));
}

TEST_F(Workloads, ASteadyLifeKeepsTheSameParticlesInBoth)
{
    for (const bool isMixed : {false, true})
    {
        Bench::TSteadyLife<Bench::CStream> stream(isMixed);
        Bench::TSteadyLife<Bench::SColumns> columns(isMixed);
        for (u32 frame = 0; frame < 13; ++frame)
        {
            stream.Frame();
            columns.Frame();
        }
        EXPECT_EQ(stream.m_Particles.ParticleCount(), stream.kAliveCount);
        EXPECT_TRUE(SortedValues(stream.m_Particles) == SortedValues(columns.m_Particles)) << isMixed;
    }
}

TEST_F(Workloads, RemovalByAPredicateLeavesTheSameParticles)
{
    Bench::CStream stream(5000);
    Bench::SColumns columns(5000);
    const auto number = [next = 0u](CFloat3 &position, const CFloat3 &, float &life) mutable
    {
        position = CFloat3(float(next), 0.0f, 0.0f);
        life = float(Bench::Scramble(next++) % 10);
    };
    const auto isOver = [](float life) { return life == 0.0f; };
    stream.ForEach(number);
    columns.ForEach(number);
    stream.RemoveIf(isOver);
    columns.RemoveIf(isOver);
    EXPECT_EQ(SortedValues(stream), SortedValues(columns));
    EXPECT_LT(stream.ParticleCount(), 5000u);
    stream.Refill(5000);
    EXPECT_EQ(stream.ParticleCount(), 5000u);
}

} // namespace
} // namespace Tessaly::Tests
