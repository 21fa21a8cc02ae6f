// Births into a warm stream, and passes over columns.
#include <vector>

#include "row.h"

namespace Bench
{

namespace
{

// A vector per column, as one writes it by hand.
struct SColumns
{
    std::vector<CFloat3> m_Position, m_Velocity;
    std::vector<CFloat4> m_Color;
    std::vector<float> m_Life, m_Size;

    void PushBack(const SParticle &row)
    {
        m_Position.push_back(row.m_Position);
        m_Velocity.push_back(row.m_Velocity);
        m_Color.push_back(row.m_Color);
        m_Life.push_back(row.m_Life);
        m_Size.push_back(row.m_Size);
    }
    void Clear()
    {
        m_Position.clear();
        m_Velocity.clear();
        m_Color.clear();
        m_Life.clear();
        m_Size.clear();
    }
};

const std::vector<SParticle> &Burst()
{
    static const std::vector<SParticle> burst = []
    {
        std::vector<SParticle> rows;
        for (u32 i = 0; i < kBurstSize; ++i)
            rows.push_back(MakeParticle(i));
        return rows;
    }();
    return burst;
}

void WriteRows(const SParticle *rows, u32 count, CFloat3 *position, CFloat3 *velocity, CFloat4 *color, float *life,
               float *size)
{
    for (u32 i = 0; i < count; ++i)
    {
        position[i] = rows[i].m_Position;
        velocity[i] = rows[i].m_Velocity;
        color[i] = rows[i].m_Color;
        life[i] = rows[i].m_Life;
        size[i] = rows[i].m_Size;
    }
}

void WriteRows(const SParticle *rows, const CParticlePageView &view)
{
    WriteRows(rows, view.ParticleCount(), view.DenseColumnForWriting<CFloat3>(CGuid(Field_Position)).Data(),
              view.DenseColumnForWriting<CFloat3>(CGuid(Field_Velocity)).Data(),
              view.DenseColumnForWriting<CFloat4>(CGuid(Field_Color)).Data(),
              view.DenseColumnForWriting<float>(CGuid(Field_Life)).Data(),
              view.DenseColumnForWriting<float>(CGuid(Field_Size)).Data());
}

// A million births, a burst at a time, each into as many pages as it takes.
void Spawn(CParticleStream_MainMemory &stream)
{
    TArray<CParticlePageView> views;
    for (u32 born = 0; born < kParticleCount; born += kBurstSize)
    {
        views.Clear();
        stream.AllocateParticles(kBurstSize, views);
        const SParticle *rows = Burst().data();
        for (const CParticlePageView &view : views.View())
        {
            WriteRows(rows, view);
            rows += view.ParticleCount();
        }
    }
}

void SpawnIntoVectors(SColumns &columns)
{
    columns.Clear();
    for (u32 born = 0; born < kParticleCount; born += kBurstSize)
    {
        for (const SParticle &row : Burst())
            columns.PushBack(row);
    }
}

void SpawnIntoFlatColumns(SColumns &columns)
{
    for (u32 born = 0; born < kParticleCount; born += kBurstSize)
        WriteRows(Burst().data(), kBurstSize, columns.m_Position.data() + born, columns.m_Velocity.data() + born,
                  columns.m_Color.data() + born, columns.m_Life.data() + born, columns.m_Size.data() + born);
}

// Kills everyone, and keeps the pages in the list.
void EmptyPages(CParticleStream_MainMemory &stream)
{
    const CScopedPagesLock lock(stream);
    const u32 count = stream.ParticleCount();
    for (u32 i = 0; i < stream.PageCount(); ++i)
        stream._UnsafePage(CGuid(i))->Clear();
    stream.RegisterDeadCount(count);
}

void AddSpawnRow(const char *title, const char *reference, double target, bool keepPages,
                 void (*spawnIntoColumns)(SColumns &))
{
    AddRow({title, reference, target, kParticleCount, "particle"},
           [=](const RunSides &run)
           {
               CParticleStream_MainMemory stream(kPageSize);
               Bind(stream, Particle());
               SColumns columns;
               SpawnIntoVectors(columns);
               const auto ours = [&](CStopwatch &watch)
               {
                   keepPages ? EmptyPages(stream) : stream.Clear();
                   watch.Time([&] { Spawn(stream); });
               };
               run(ours, [&](CStopwatch &watch) { watch.Time([&] { spawnIntoColumns(columns); }); });
           });
}

constexpr float kTimeStep = 1.0f / 60.0f;

// Both sides call the same code, not each a copy of its own that the compiler lays out in another way.
TZ_NOINLINE void AgeRows(float *life, u32 count)
{
    for (u32 i = 0; i < count; ++i)
        life[i] -= kTimeStep;
}

TZ_NOINLINE void MoveRows(CFloat3 *position, const CFloat3 *velocity, u32 count)
{
    float *to = &position->m_X;
    const float *from = &velocity->m_X;
    for (u32 i = 0; i < 3 * count; ++i)
        to[i] += from[i] * kTimeStep;
}

// A pass over particleCount particles, as often as makes a million; beside it the same on the columns of a page, got
// without a view and without a check, or on flat arrays.
template <typename _OnView, typename _OnPage, typename _OnColumns>
void AddPassRow(const char *title, u32 particleCount, bool againstFlat, double target, _OnView onView, _OnPage onPage,
                _OnColumns onColumns)
{
    const auto body = [=](const RunSides &run)
    {
        CParticleStream_MainMemory stream(kPageSize);
        Bind(stream, Particle());
        AppendParticles(stream, particleCount);
        FillColumns(stream, true);
        SColumns columns;
        for (u32 i = 0; i < particleCount; ++i)
            columns.PushBack(MakeParticle(i));
        const auto repeat = [&](CStopwatch &watch, auto pass)
        {
            watch.Time(
                [&]
                {
                    for (u32 done = 0; done < kParticleCount; done += particleCount)
                        pass();
                });
        };
        const auto ours = [&]
        {
            const CScopedPagesLock lock(stream);
            for (u32 i = 0; i < stream.PageCount(); ++i)
                onView(CParticlePageView(*stream.Page(CGuid(i))));
        };
        const auto reference = [&]
        {
            if (againstFlat)
                return onColumns(columns, particleCount);
            for (u32 i = 0; i < stream.PageCount(); ++i)
            {
                const CParticlePage &page = *stream._UnsafePage(CGuid(i)).Get();
                onPage(page.Streams().Data(), page.ParticleCount());
            }
        };
        run([&](CStopwatch &watch) { repeat(watch, ours); }, [&](CStopwatch &watch) { repeat(watch, reference); });
    };
    AddRow({std::string(title) + ", " + std::to_string(particleCount),
            againstFlat ? "flat arrays" : "raw pointers into the same pages", target, kParticleCount, "particle"},
           body);
}

} // namespace

void AddBirthRows()
{
    AddSpawnRow("spawn a million by 1000, recycled pages", "push_back, vector per column", 1.0, false,
                &SpawnIntoVectors);
    AddSpawnRow("spawn a million by 1000, emptied pages", "push_back, vector per column", 1.0, true, &SpawnIntoVectors);
    AddSpawnRow("spawn a million by 1000, recycled pages", "the rows written into flat columns", 1.75, false,
                &SpawnIntoFlatColumns);
}

void AddColumnRows()
{
    const auto ageColumns = [](SColumns &columns, u32 count) { AgeRows(columns.m_Life.data(), count); };
    const auto agePage = [](const SParticleStreamField *fields, u32 count)
    { AgeRows(reinterpret_cast<float *>(fields[Field_Life].m_RawDataPtr), count); };
    const auto ageDense = [](const CParticlePageView &view)
    {
        const TMemoryView<float> life = view.DenseColumnForWriting<float>(CGuid(Field_Life));
        AgeRows(life.Data(), life.Count());
    };
    const auto ageStrided = [](const CParticlePageView &view)
    {
        for (float &life : view.ColumnForWriting<float>(CGuid(Field_Life)))
            life -= kTimeStep;
    };
    const auto agePageByStride = [](const SParticleStreamField *fields, u32 count)
    {
        u8 *life = fields[Field_Life].m_RawDataPtr;
        for (u32 i = 0; i < count; ++i, life += fields[Field_Life].m_Definition.m_StorageSize)
            *reinterpret_cast<float *>(life) -= kTimeStep;
    };
    const auto moveColumns = [](SColumns &columns, u32 count)
    { MoveRows(columns.m_Position.data(), columns.m_Velocity.data(), count); };
    const auto movePage = [](const SParticleStreamField *fields, u32 count)
    {
        MoveRows(reinterpret_cast<CFloat3 *>(fields[Field_Position].m_RawDataPtr),
                 reinterpret_cast<const CFloat3 *>(fields[Field_Velocity].m_RawDataPtr), count);
    };
    const auto moveDense = [](const CParticlePageView &view)
    {
        MoveRows(view.DenseColumnForWriting<CFloat3>(CGuid(Field_Position)).Data(),
                 view.DenseColumn<CFloat3>(CGuid(Field_Velocity)).Data(), view.ParticleCount());
    };
    for (const u32 count : {10000u, kParticleCount})
    {
        const double flatTarget = count == kParticleCount ? 1.3 : 1.1;
        for (const bool againstFlat : {false, true})
        {
            const double target = againstFlat ? flatTarget : 1.05;
            AddPassRow("life -= dt, dense column", count, againstFlat, target, ageDense, agePage, ageColumns);
            AddPassRow("position += velocity * dt, dense columns", count, againstFlat, target, moveDense, movePage,
                       moveColumns);
        }
        AddPassRow("life -= dt, strided column by iterator", count, false, 1.05, ageStrided, agePageByStride,
                   ageColumns);
    }
}

} // namespace Bench
