// Other shapes than the table's, on demand: particles of 16 to 256 bytes, pages of 64 to 16,384 particles, and two
// threads with a stream each. Deaths come in no order, births as runs that fill up what pages have left.
#include <memory>

#include "plain_blocks.h"
#include "row.h"

namespace Bench
{

namespace
{

constexpr u32 kShapedCount = 100000;
constexpr u32 kFrameCount = 10;

struct SShape
{
    u32 m_RowBytes; // in columns of Float4
    u32 m_PageSize; // particles

    u32 ColumnCount() const { return m_RowBytes / u32(sizeof(CFloat4)); }
    std::string Name() const
    {
        return ", " + std::to_string(m_RowBytes) + " bytes, pages of " + std::to_string(m_PageSize);
    }
};

// Who dies: every tenth or so. Everyone's deaths are drawn from this.
class CDeaths
{
public:
    CDeaths()
    {
        for (u32 i = 0; i < kGapCount; ++i)
            m_Gaps[i] = 1 + Scramble(i) % 19;
    }

    // Lists who of count dies; returns how many.
    u32 Draw(u32 count, u32 *outDead)
    {
        u32 deadCount = 0;
        for (u32 i = m_Gaps[m_Next % kGapCount] - 1; i < count; i += m_Gaps[m_Next % kGapCount])
        {
            outDead[deadCount++] = i;
            ++m_Next;
        }
        return deadCount;
    }

private:
    static constexpr u32 kGapCount = 4096;
    u32 m_Gaps[kGapCount];
    u32 m_Next = 0;
};

void WriteBorn(CFloat4 *values, u32 count)
{
    for (u32 i = 0; i < count; ++i)
        values[i] = CFloat4(float(i), 0.5f, 0.25f, 1.0f);
}

class CShapedStream
{
public:
    explicit CShapedStream(const SShape &shape)
        : m_Stream(shape.m_PageSize)
        , m_Dead(kShapedCount)
    {
        for (u32 i = 0; i < shape.ColumnCount(); ++i)
            m_Definition.m_StreamDef.PushBack(Field(EField(i), BaseType_Float4));
        Bind(m_Stream, m_Definition);
        AppendParticles(m_Stream, kShapedCount);
        FillColumns(m_Stream, true);
    }

    void Frame()
    {
        u32 deadCount = 0;
        for (u32 i = 0; i < m_Stream.PageCount(); ++i)
        {
            const u32 count = m_Deaths.Draw(m_Stream.Page(CGuid(i))->ParticleCount(), m_Dead.data());
            deadCount += m_Stream.RemoveParticles(CGuid(i), TMemoryView<const u32>(m_Dead.data(), count));
        }
        Births(deadCount);
    }

    void Births(u32 count)
    {
        for (u32 born = 0; born < count; born += kBurstSize)
        {
            m_Views.Clear();
            m_Stream.AllocateParticles(TZMin(kBurstSize, count - born), m_Views);
            for (const CParticlePageView &view : m_Views.View())
                WriteBorn(view.DenseColumnForWriting<CFloat4>(CGuid(0u)).Data(), view.ParticleCount());
        }
        m_Views.Clear();
    }

    SParticleStreamDef m_Definition;
    CParticleStream_MainMemory m_Stream;

private:
    CDeaths m_Deaths;
    std::vector<u32> m_Dead;
    TArray<CParticlePageView> m_Views;
};

class CShapedColumns
{
public:
    explicit CShapedColumns(const SShape &shape)
        : m_Columns(shape.ColumnCount(), std::vector<CFloat4>(kShapedCount))
        , m_Dead(kShapedCount)
    {
    }

    void Frame()
    {
        const u32 oldCount = u32(m_Columns.front().size());
        const u32 deadCount = m_Deaths.Draw(oldCount, m_Dead.data());
        for (std::vector<CFloat4> &column : m_Columns)
        {
            u32 last = oldCount;
            for (u32 i = deadCount; i > 0; --i)
                column[m_Dead[i - 1]] = column[--last];
            column.resize(oldCount - deadCount);
        }
        for (u32 born = 0; born < deadCount; born += kBurstSize)
        {
            const u32 first = u32(m_Columns.front().size());
            const u32 count = TZMin(kBurstSize, deadCount - born);
            for (std::vector<CFloat4> &column : m_Columns)
                column.resize(size_t(first) + count);
            WriteBorn(m_Columns.front().data() + first, count);
        }
    }

private:
    std::vector<std::vector<CFloat4>> m_Columns;
    CDeaths m_Deaths;
    std::vector<u32> m_Dead;
};

// Frames of births and deaths, on each thread with particles of its own.
template <typename _Particles>
void LiveOn(CMeter &meter, std::vector<std::unique_ptr<_Particles>> &particles)
{
    RunOnThreads(unsigned(particles.size()), meter,
                 [&](unsigned thread, CRendezvous &rendezvous)
                 {
                     rendezvous.Begin(thread);
                     for (u32 i = 0; i < kFrameCount; ++i)
                         particles[thread]->Frame();
                     rendezvous.End(thread);
                 });
}

void AddShapedLifeRow(const SShape &shape, u32 threadCount)
{
    const auto body = [=](const RunSides &run)
    {
        std::vector<std::unique_ptr<CShapedStream>> streams;
        std::vector<std::unique_ptr<CShapedColumns>> columns;
        for (u32 thread = 0; thread < threadCount; ++thread)
        {
            streams.push_back(std::make_unique<CShapedStream>(shape));
            columns.push_back(std::make_unique<CShapedColumns>(shape));
        }
        run({Ours([&](CMeter &meter) { LiveOn(meter, streams); }),
             Peer("vector per column", 0.0, [&](CMeter &meter) { LiveOn(meter, columns); })});
    };
    const char *title = threadCount == 1 ? "births and deaths" : "births and deaths, two threads";
    AddRow({"shapes", title + shape.Name(), double(kFrameCount) * kShapedCount, "ns a particle"}, body);
}

// Births by 64 into a stream that was emptied, beside the same bytes filled and written, a block a page.
void AddShapedSpawnRow(const SShape &shape)
{
    const auto body = [=](const RunSides &run)
    {
        CShapedStream particles(shape);
        CParticleStream_MainMemory &stream = particles.m_Stream;
        CPlainBlocks blocks(size_t(stream.PageSize()) * shape.m_RowBytes);
        const auto ours = [&](CMeter &meter)
        {
            stream.Clear();
            meter.Time([&] { particles.Births(kShapedCount); });
        };
        const auto limit = [&](CMeter &meter)
        {
            blocks.Reverse();
            meter.Time(
                [&]
                {
                    for (u32 first = 0; first < kShapedCount; first += stream.PageSize())
                    {
                        u8 *block = blocks.Block(first / stream.PageSize());
                        std::memset(block, kFreshParticleByte, size_t(stream.PageSize()) * shape.m_RowBytes);
                        WriteBorn(reinterpret_cast<CFloat4 *>(block), TZMin(stream.PageSize(), kShapedCount - first));
                    }
                });
        };
        run({Ours(ours), Limit("fill and write", 0.0, limit)});
    };
    AddRow({"shapes", "spawn by 64, warm" + shape.Name(), kShapedCount, "ns a particle"}, body);
}

void AddShapedCopyRow(const SShape &shape)
{
    const auto body = [=](const RunSides &run)
    {
        const CShapedStream source(shape);
        CParticleStream_MainMemory copy(0);
        CPlainBlocks blocks(size_t(source.m_Stream.PageSize()) * shape.m_RowBytes);
        const auto ours = [&](CMeter &meter)
        {
            copy.Cleanup();
            meter.Time([&] { copy.DeepCopy(source.m_Stream); });
        };
        const auto limit = [&](CMeter &meter)
        {
            blocks.Reverse();
            meter.Time([&] { blocks.CopyFrom(source.m_Stream); });
        };
        run({Ours(ours), Limit("memcpy, column by column", 0.0, limit)});
    };
    AddRow({"shapes", "deep copy" + shape.Name(), kShapedCount, "ns a particle"}, body);
}

} // namespace

void AddShapeRows()
{
    for (const u32 rowBytes : {16u, 64u, 256u})
    {
        for (const u32 pageSize : {64u, 1024u, 16384u})
        {
            const SShape shape = {rowBytes, pageSize};
            AddShapedSpawnRow(shape);
            AddShapedLifeRow(shape, 1);
            AddShapedLifeRow(shape, 2);
            AddShapedCopyRow(shape);
        }
    }
}

} // namespace Bench
