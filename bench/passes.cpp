// Passes over typed columns, page by page.
#include "column_passes.h"
#include "containers.h"
#include "row.h"

namespace Bench
{

namespace
{

constexpr float kTimeStep = 1.0f / 60.0f;

TZ_NOINLINE void AgeRows(float *life, u32 count)
{
    for (u32 i = 0; i < count; ++i)
        life[i] -= kTimeStep;
}

// A stream and vectors that hold the same, for passes over it, which are repeated until they make a million.
class CPassSides
{
public:
    explicit CPassSides(u32 particleCount)
        : m_ParticleCount(particleCount)
        , m_Stream(0)
    {
        Bind(m_Stream, Particle());
        AppendParticles(m_Stream, particleCount);
        FillColumns(m_Stream, true);
        m_Columns.Resize(particleCount);
        for (u32 i = 0; i < particleCount; ++i)
            m_Structs.push_back(MakeParticle(i));
    }

    template <typename _Pass>
    void Repeat(CMeter &meter, _Pass pass) const
    {
        meter.Time(
            [&]
            {
                for (u32 done = 0; done < kParticleCount; done += m_ParticleCount)
                    pass();
            });
    }
    // By views, as a host does.
    template <typename _OnView>
    void ByViews(CMeter &meter, _OnView onView) const
    {
        Repeat(meter,
               [&]
               {
                   const CScopedPagesLock lock(m_Stream);
                   for (u32 i = 0; i < m_Stream.PageCount(); ++i)
                       onView(CParticlePageView(m_Stream.Page(CGuid(i))));
               });
    }
    // Got without a view and without a check.
    template <typename _OnPage>
    void ByRawPointers(CMeter &meter, _OnPage onPage) const
    {
        Repeat(meter,
               [&]
               {
                   for (u32 i = 0; i < m_Stream.PageCount(); ++i)
                   {
                       const CParticlePage &page = *m_Stream._UnsafePage(CGuid(i)).Get();
                       onPage(page.Streams().Data(), page.ParticleCount());
                   }
               });
    }

    u32 m_ParticleCount;
    CParticleStream_MainMemory m_Stream;
    SColumns m_Columns;
    CStructs m_Structs;
};

void AddMoveRow(u32 particleCount, double target, const char *processor, PassOverColumns pass)
{
    const auto body = [=](const RunSides &run)
    {
        CPassSides sides(particleCount);
        const auto onView = [=](const CParticlePageView &view)
        {
            pass(&view.DenseColumnForWriting<CFloat3>(CGuid(Field_Position)).Data()->m_X,
                 &view.DenseColumn<CFloat3>(CGuid(Field_Velocity)).Data()->m_X, kTimeStep, 3 * view.ParticleCount());
        };
        const auto flat = [&]
        { pass(&sides.m_Columns.m_Position[0].m_X, &sides.m_Columns.m_Velocity[0].m_X, kTimeStep, 3 * particleCount); };
        const auto inStructs = [&]
        {
            for (SParticle &element : sides.m_Structs)
            {
                element.m_Position.m_X += element.m_Velocity.m_X * kTimeStep;
                element.m_Position.m_Y += element.m_Velocity.m_Y * kTimeStep;
                element.m_Position.m_Z += element.m_Velocity.m_Z * kTimeStep;
            }
        };
        run({Ours([&](CMeter &meter) { sides.ByViews(meter, onView); }),
             Limit("flat arrays", target, [&](CMeter &meter) { sides.Repeat(meter, flat); }),
             Peer("vector of structs", 0.0, [&](CMeter &meter) { sides.Repeat(meter, inStructs); })});
    };
    AddRow({"5", "position += velocity * dt, " + std::to_string(particleCount) + ", " + processor, kParticleCount,
            "ns a particle", 0.0, "the prefetcher starts again in each page's column of 12 KiB"},
           body);
}

// What views and their checks cost, beside raw pointers into the same pages.
template <typename _OnView, typename _OnPage>
void AddViewRow(const char *title, _OnView onView, _OnPage onPage)
{
    const auto body = [=](const RunSides &run)
    {
        const CPassSides sides(10000);
        run({Ours([&](CMeter &meter) { sides.ByViews(meter, onView); }),
             Limit("raw pointers into the same pages", 1.05,
                   [&](CMeter &meter) { sides.ByRawPointers(meter, onPage); })});
    };
    AddRow({"views", title, kParticleCount, "ns a particle", 0.0,
            "a view counts a reference to its page, by two atomic steps, and an iterator wraps within 32 bits"},
           body);
}

void AddViewRows()
{
    const auto ageDense = [](const CParticlePageView &view)
    {
        const TMemoryView<float> life = view.DenseColumnForWriting<float>(CGuid(Field_Life));
        AgeRows(life.Data(), life.Count());
    };
    const auto agePage = [](const SParticleStreamField *fields, u32 count)
    { AgeRows(reinterpret_cast<float *>(fields[Field_Life].m_RawDataPtr), count); };
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
    AddViewRow("life -= dt, dense column, 10000", ageDense, agePage);
    AddViewRow("life -= dt, strided column by iterator, 10000", ageStrided, agePageByStride);
}

} // namespace

void AddPassRows()
{
    for (const u32 count : {kParticleCount, 10000u})
    {
        const double target = count == kParticleCount ? 1.3 : 1.1;
        AddMoveRow(count, 0.0, "x86-64-v2", &MoveRows_Baseline); // to be seen beside; the targets are the native loop's
        AddMoveRow(count, target, "native", &MoveRows_Native);
    }
    AddViewRows();
}

} // namespace Bench
