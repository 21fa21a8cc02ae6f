// More ways to keep particles than workloads/particles.h has: the limits, which only move the bytes, and other
// containers.
#pragma once

#include <algorithm>
#include <memory>

#include <malloc.h>
#include <plf_colony.h>

#include <tz_particles/include/ps_runtime.h>

#include <workloads/particles.h>

namespace Bench
{

// Gives free memory back to the system. From then on the C library maps large blocks and unmaps them, as it does in a
// new program: otherwise a peer's next block would be warm.
inline void TrimHeap()
{
    mallopt(M_MMAP_THRESHOLD, 128 << 10);
    Particles::PageAllocator()->CleanAllFreePages();
    malloc_trim(0);
}

// Blocks from the C library.
struct SPlainBlocks
{
    size_t m_BlockBytes = size_t(g_PageSize) * ParticleBytes();
    std::vector<std::unique_ptr<u8[]>> m_Blocks{};

    // The block, which is made when it is first asked for.
    u8 *Block(size_t index)
    {
        while (m_Blocks.size() <= index)
            m_Blocks.emplace_back(new u8[m_BlockBytes]);
        return m_Blocks[index].get();
    }
    // One memcpy for each column of each page, into the blocks one after the other.
    void CopyFrom(const CStream &stream)
    {
        size_t index = 0, offset = 0;
        const auto copy = [&](const u8 *column, size_t byteCount)
        {
            if (offset + byteCount > m_BlockBytes)
            {
                ++index;
                offset = 0;
            }
            std::memcpy(Block(index) + offset, column, byteCount);
            offset += byteCount;
        };
        stream.ForEachColumn(copy);
    }
    // The next round takes the blocks in reverse, as from a free list, which is last in, first out.
    void Recycle() { std::reverse(m_Blocks.begin(), m_Blocks.end()); }
};

// The limit of births: fills each block, as a fresh page is, and writes the bursts.
struct SPlainBirths
{
    SPlainBlocks m_Blocks;
    u32 m_Count = 0;

    void Clear()
    {
        m_Blocks.Recycle();
        m_Count = 0;
    }
    void Birth(u32 count)
    {
        const u32 row = m_Count % g_PageSize;
        u8 *block = m_Blocks.Block(m_Count / g_PageSize);
        if (row == 0)
            std::memset(block, kFreshParticleByte, m_Blocks.m_BlockBytes);
        u8 *lives = block + g_PageSize * sizeof(CFloat3);
        WriteBorn(reinterpret_cast<CFloat3 *>(block) + row, reinterpret_cast<float *>(lives) + row, count);
        m_Count += count;
    }
};

// The limit of a steady life: the dead are listed, as a page's are.
struct SListedColumns : SColumns
{
    using SColumns::SColumns;
    std::vector<u32> m_Dead;

    void AgeAndRemove()
    {
        u32 count = ParticleCount();
        m_Dead.resize(count);
        for (u32 deadCount = Age(m_Life.data(), count, m_Dead.data()); deadCount > 0;)
            Move(--count, m_Dead[--deadCount]);
        Resize(count);
    }
};

struct SParticle
{
    CFloat3 m_Position, m_Velocity;
    CFloat4 m_Color;
    float m_Life, m_Size;
};

inline SParticle Born(u32 i)
{
    SParticle particle = {};
    particle.m_Position = BornPosition(i);
    particle.m_Life = kBornLife;
    return particle;
}

template <typename _Container>
struct TStructs
{
    _Container m_Particles;

    u32 ParticleCount() const { return u32(m_Particles.size()); }
    void Clear() { m_Particles.clear(); }
    template <typename _Fn>
    void ForEach(_Fn fn)
    {
        for (SParticle &particle : m_Particles)
            fn(particle.m_Position, particle.m_Velocity, particle.m_Life);
    }
};

struct SStructs : TStructs<std::vector<SParticle>>
{
    explicit SStructs(u32 count = 0) { Birth(count); }

    void Birth(u32 count)
    {
        for (u32 i = 0; i < count; ++i)
            m_Particles.push_back(Born(i));
    }
    void Move(u32 last, u32 i) { m_Particles[i] = m_Particles[last]; }
    void AgeAndRemove()
    {
        for (size_t i = 0; i < m_Particles.size();)
        {
            if (kIsOverNextFrame(m_Particles[i].m_Life))
            {
                m_Particles[i] = m_Particles.back();
                m_Particles.pop_back();
            }
            else
                ++i;
        }
    }
};

// A particle is made and then inserted, as most write it.
struct SColony : TStructs<plf::colony<SParticle>>
{
    explicit SColony(u32 count = 0) { Birth(count); }

    void Birth(u32 count)
    {
        for (u32 i = 0; i < count; ++i)
            m_Particles.insert(Born(i));
    }
    template <typename _IsOver>
    void RemoveIf(_IsOver isOver)
    {
        for (auto it = m_Particles.begin(); it != m_Particles.end();)
        {
            if (isOver(it->m_Life))
                it = m_Particles.erase(it);
            else
                ++it;
        }
    }
    void AgeAndRemove() { RemoveIf(kIsOverNextFrame); }
};

struct SEmplacedParticle : SParticle
{
    SEmplacedParticle(const CFloat3 &position, float life)
        : SParticle{position, {}, {}, life, 0.0f}
    {
    }
};

struct SEmplaceColony : TStructs<plf::colony<SEmplacedParticle>>
{
    void Birth(u32 count)
    {
        for (u32 i = 0; i < count; ++i)
            m_Particles.emplace(BornPosition(i), kBornLife);
    }
};

} // namespace Bench
