// The workloads: particles of 48 bytes, and two of the ways to keep many of them: a stream, and a vector for each
// column. All ways have the same operations, so that the benchmarks are written once for all of them (peers.h of the
// benchmarks has more), and the tests compare what they hold. Needs the runtime started.
#pragma once

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <utility>
#include <vector>

#include <tz_kernel/include/kr_vectors.h>
#include <tz_particles/include/ps_for_each.h>

namespace Bench
{

using namespace Tessaly;

constexpr u32 kParticleCount = 1000000;
constexpr u32 kBurstSize = 64;  // particles born at a time
constexpr u32 kPageSize = 1024; // particles; a stream's default

// Other shapes have pages of another size, or more columns, of Float4.
inline u32 g_PageSize = kPageSize, g_MoreColumns = 0;

// Indices of fields; their names are one more.
enum EField : u32
{
    Field_Position,
    Field_Velocity,
    Field_Color,
    Field_Life,
    Field_Size,
};

struct SDefinition : SParticleStreamDef
{
    SDefinition(std::initializer_list<EBaseTypeID> types)
    {
        for (const EBaseTypeID type : types)
            Append(type);
    }
    void Append(EBaseTypeID type) { Add(CStringId(m_StreamDef.Count() + 1), type); }
};

inline const SDefinition &Particle()
{
    static SDefinition definition{BaseType_Float3, BaseType_Float3, BaseType_Float4, BaseType_Float, BaseType_Float};
    while (definition.m_StreamDef.Count() < Field_Size + 1 + g_MoreColumns)
        definition.Append(BaseType_Float4);
    return definition;
}
inline u32 ParticleBytes() { return 48 + 16 * g_MoreColumns; }

// Mixes the numbers 0, 1, 2, ...: the same in every run.
inline u32 Scramble(u32 i)
{
    i = (i ^ (i >> 16)) * 0x7FEB352Du;
    i = (i ^ (i >> 15)) * 0x846CA68Bu;
    return i ^ (i >> 16);
}

// What the i-th birth of a burst writes. The other values are what the container makes them: zero; in a page, what the
// slot holds.
inline CFloat3 BornPosition(u32 i) { return CFloat3(float(i), float(i) + 0.25f, float(i) + 0.5f); }
constexpr float kBornLife = 10.0f;

// All births into columns call this one function, however the compiler has laid it out.
TZ_NOINLINE inline void WriteBorn(CFloat3 *position, float *life, u32 count)
{
    for (u32 i = 0; i < count; ++i)
    {
        position[i] = BornPosition(i);
        life[i] = kBornLife;
    }
}

constexpr auto kIsOverNextFrame = [](float &life) { return (life -= 1.0f) < 0.5f; };

// Takes one frame off 32 lives. Returns a bit for each that is over.
inline u32 AgeOf32(float *life)
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

// Takes one frame off all lives and lists those that are over. Returns how many. All columns whose dead are listed call
// this one function.
TZ_NOINLINE inline u32 Age(float *life, u32 count, u32 *outDead)
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
        if (kIsOverNextFrame(life[i]))
            outDead[deadCount++] = i;
    }
    return deadCount;
}

class CStream : public CParticleStream_MainMemory
{
public:
    // All pages are full, but for the last one; all values are 1.
    explicit CStream(u32 particleCount = 0, u32 pageSize = g_PageSize, const SDefinition &definition = Particle())
        : CParticleStream_MainMemory(pageSize)
    {
        BindStreamDef(&definition);
        const u32 capacity = PageSize(); // less than pageSize where a page would be too large
        AppendPages((particleCount + capacity - 1) / capacity,
                    [=](u32 i) { return TZMin(capacity, particleCount - i * capacity); });
        ForEachColumn([](u8 *column, size_t byteCount)
                      { std::fill_n(reinterpret_cast<float *>(column), byteCount / 4, 1.0f); });
    }
    // Page i gets particlesIn(i) particles.
    template <typename _ParticlesIn>
    void AppendPages(u32 pageCount, _ParticlesIn particlesIn)
    {
        const CScopedPagesLock lock(*this);
        for (u32 i = 0; i < pageCount; ++i)
        {
            AllocNewPage_NoLock(true)->AllocateParticles(particlesIn(i));
            RegisterBornCount_NoConsistencyCheck(particlesIn(i));
        }
    }
    // Calls fn(bytes, byteCount) for each column of each page.
    template <typename _Fn>
    void ForEachColumn(_Fn fn) const
    {
        for (u32 i = 0; i < PageCount(); ++i)
        {
            for (const SParticleStreamField &field : _UnsafePage(CGuid(i))->Streams())
                fn(field.m_RawDataPtr, size_t(field.m_ParticleCount) * field.m_Definition.m_StorageSize);
        }
    }

    // Makes this ready to be copied to again, from warm memory.
    void Recycle() { Cleanup(); }
    void Birth(u32 count)
    {
        const CParticlePageView view = AllocateParticlesIFP(count, 0);
        WriteBorn(view.DenseColumnForWriting<CFloat3>(Field_Position).Data(),
                  view.DenseColumnForWriting<float>(Field_Life).Data(), count);
    }
    // Takes free slots, which keep their values, until that many are alive.
    void Refill(u32 particleCount)
    {
        TArray<CParticlePageView> views;
        AllocateParticles(particleCount - ParticleCount(), views);
    }
    template <typename _Fn>
    void ForEach(_Fn fn)
    {
        Particles::ForEach<CFloat3, const CFloat3, float>(*this, Field_Position, Field_Velocity, Field_Life, fn);
    }
    template <typename _IsOver>
    void RemoveIf(_IsOver isOver)
    {
        Particles::RemoveIf<float>(*this, Field_Life, isOver);
    }
    // Takes one frame off all lives, and removes those that are over.
    void AgeAndRemove()
    {
        m_Dead.resize(PageSize());
        for (u32 i = 0; i < PageCount(); ++i)
        {
            const TMemoryView<float> life = CParticlePageView(Page(CGuid(i))).DenseColumnForWriting<float>(Field_Life);
            const u32 deadCount = Age(life.Data(), life.Count(), m_Dead.data());
            RemoveParticles(CGuid(i), TMemoryView<const u32>(m_Dead.data(), deadCount));
        }
    }

private:
    std::vector<u32> m_Dead;
};

struct SColumns
{
    std::vector<CFloat3> m_Position, m_Velocity;
    std::vector<CFloat4> m_Color;
    std::vector<float> m_Life, m_Size;
    std::vector<std::vector<CFloat4>> m_More{g_MoreColumns};

    explicit SColumns(u32 count = 0) { Resize(count); }

    u32 ParticleCount() const { return u32(m_Life.size()); }
    void Clear() { Resize(0); }
    void Recycle() {}
    template <typename _Fn>
    void ForEachColumn(_Fn fn)
    {
        fn(m_Position);
        fn(m_Velocity);
        fn(m_Color);
        fn(m_Life);
        fn(m_Size);
        std::for_each(m_More.begin(), m_More.end(), fn);
    }
    void Resize(size_t count)
    {
        ForEachColumn([=](auto &column) { column.resize(count); });
    }
    void Birth(u32 count)
    {
        const u32 first = ParticleCount();
        Resize(size_t(first) + count);
        WriteBorn(m_Position.data() + first, m_Life.data() + first, count);
    }
    // Row last overwrites row i; the count stays.
    void Move(u32 last, u32 i)
    {
        ForEachColumn([=](auto &column) { column[i] = column[last]; });
    }
    template <typename _Fn>
    void ForEach(_Fn fn)
    {
        for (u32 i = 0; i < ParticleCount(); ++i)
            fn(m_Position[i], m_Velocity[i], m_Life[i]);
    }
    template <typename _IsOver>
    void RemoveIf(_IsOver isOver)
    {
        u32 count = ParticleCount();
        for (u32 i = 0; i < count;)
        {
            if (isOver(m_Life[i]))
                Move(--count, i);
            else
                ++i;
        }
        Resize(count);
    }
    void AgeAndRemove() { RemoveIf(kIsOverNextFrame); }
};

template <typename _Particles>
void Spawn(_Particles &particles, u32 count)
{
    for (u32 born = 0; born < count; born += kBurstSize)
        particles.Birth(kBurstSize);
}

// A steady number of particles, of which a tenth dies and is born in each frame: in order of birth, first in, first
// out, or mixed, in no order.
template <typename _Particles>
struct TSteadyLife
{
    static constexpr u32 kAliveCount = 102400, kBornCount = kAliveCount / u32(kBornLife);
    static constexpr u32 kFrameCount = 50; // of a Run: what ran before it left in the caches counts little

    _Particles m_Particles{kAliveCount};

    explicit TSteadyLife(bool isMixed)
    {
        std::vector<float> lives;
        for (u32 i = 0; i < kAliveCount; ++i)
            lives.push_back(float(1 + i / kBornCount));
        for (u32 i = kAliveCount - 1; isMixed && i > 0; --i)
            std::swap(lives[i], lives[Scramble(i) % (i + 1)]);
        const float *next = lives.data();
        m_Particles.ForEach([&](CFloat3 &, const CFloat3 &, float &life) { life = *next++; });
    }
    void Frame()
    {
        m_Particles.AgeAndRemove();
        Spawn(m_Particles, kBornCount);
    }
    void Run()
    {
        for (u32 i = 0; i < kFrameCount; ++i)
            Frame();
    }
};

} // namespace Bench
