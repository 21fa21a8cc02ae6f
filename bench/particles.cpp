// Births, a steady life, removal; deep copies, resizes and rebinding.
#include <unistd.h>

#include "measure.h"
#include "peers.h"

using namespace Bench;

namespace
{

template <typename _Particles, bool _IsCold>
struct TSpawn
{
    _Particles m_Particles{};

    void Prepare() { _IsCold ? TrimHeap() : m_Particles.Clear(); }
    void Run() { Spawn(m_Particles, kParticleCount); }
};

template <typename _Particles>
void AddSpawn(const std::string &side)
{
    Add<TSpawn<_Particles, false>>("spawn_warm/" + side, kParticleCount);
    Add<TSpawn<_Particles, true>, false>("spawn_cold/" + side, kParticleCount);
}

constexpr u32 kLifeCount = TSteadyLife<CStream>::kFrameCount * TSteadyLife<CStream>::kAliveCount;

template <typename _Particles>
void AddLife(const std::string &side)
{
    Add<TSteadyLife<_Particles>>("life_ordered/" + side, kLifeCount, false);
    Add<TSteadyLife<_Particles>>("life_mixed/" + side, kLifeCount, true);
}

// Emptied pages go back to the page allocator and come from it; the main thread calls Update once a frame.
struct SCollectedLife : TSteadyLife<CStream>
{
    using TSteadyLife::TSteadyLife;
    void Run()
    {
        for (u32 i = 0; i < kFrameCount; ++i)
        {
            Frame();
            m_Particles.GarbageCollectOldPages(null);
            if (gettid() == getpid())
                Particles::PageAllocator()->Update();
        }
    }
};

// One particle in ten, in no order: a list of rows for each page.
std::vector<std::vector<u32>> RandomTenth(u32 pageSize)
{
    std::vector<std::vector<u32>> pages((kParticleCount + pageSize - 1) / pageSize);
    for (u32 i = 0; i < kParticleCount; ++i)
    {
        if (Scramble(i) % 10 == 0)
            pages[i / pageSize].push_back(i % pageSize);
    }
    return pages;
}

struct SRemoveTenth
{
    CStream m_Stream{kParticleCount};
    std::vector<std::vector<u32>> m_Tenth = RandomTenth(g_PageSize);

    void Prepare() { m_Stream.Refill(kParticleCount); }
    void Run()
    {
        for (u32 i = 0; i < m_Tenth.size(); ++i)
            m_Stream.RemoveParticles(CGuid(i), TMemoryView<const u32>(m_Tenth[i].data(), u32(m_Tenth[i].size())));
    }
};

template <typename _Particles>
struct TSwapRemoveTenth
{
    _Particles m_Particles{kParticleCount};
    std::vector<u32> m_Tenth = RandomTenth(kParticleCount)[0];

    void Run()
    {
        u32 count = kParticleCount;
        for (auto dead = m_Tenth.rbegin(); dead != m_Tenth.rend(); ++dead)
            m_Particles.Move(--count, *dead);
    }
};

void Copy(const CStream &source, CStream &copy) { copy.DeepCopy(source); }
void Copy(const CStream &source, SPlainBlocks &copy) { copy.CopyFrom(source); }
void Copy(const SColumns &source, SColumns &copy) { copy = source; }

template <typename _Source, typename _Copy, bool _IsCold>
struct TCopy
{
    u32 m_Count;
    _Source m_Source{m_Count};
    _Copy m_Copy{};

    void Prepare() { _IsCold ? TrimHeap() : m_Copy.Recycle(); }
    void Run() { Copy(m_Source, m_Copy); }
};

template <typename _Source, typename _Copy>
void AddDeepCopy(const std::string &side)
{
    for (const u32 count : {kParticleCount, 200000u, 100000u, 10000u})
    {
        const std::string row = "deep_copy_" + std::to_string(count) + "/";
        Add<TCopy<_Source, _Copy, false>>(row + side, count, count)->Iterations(kParticleCount / count);
    }
    Add<TCopy<_Source, _Copy, true>, false>("deep_copy_cold/" + side, kParticleCount, kParticleCount);
}

// Moves all particles to pages of 4,096, or only their bytes to blocks of that size.
template <bool _ByBlocks>
struct TResize
{
    u32 m_PageCount, m_PageSize, m_ParticlesInPage;
    const SDefinition &m_Definition;
    CStream m_Stream{0, m_PageSize, m_Definition};
    SPlainBlocks m_Blocks{4096 * ParticleBytes()};

    void Prepare()
    {
        m_Stream.Cleanup();
        m_Stream.SetPageSize(m_PageSize);
        m_Stream.AppendPages(m_PageCount, [this](u32) { return m_ParticlesInPage; });
        m_Stream.SetPageSize(4096);
        m_Blocks.Recycle();
    }
    void Run() { _ByBlocks ? m_Blocks.CopyFrom(m_Stream) : m_Stream.ResizePending(TNumericTraits<u32>::kMax); }
};

// A page that is rebound takes the block that the page before it has left, if both are of one size class.
struct SRebind
{
    const SDefinition &m_NewDefinition;
    CStream m_Stream{kParticleCount};

    void Prepare() { m_Stream.BindStreamDef(&Particle()); }
    void Run() { m_Stream.BindStreamDef(&m_NewDefinition); }
};

// The same bytes without conversion: what a page holds is copied column by column, what it gets more is cleared.
struct SRebindByBlocks
{
    u32 m_MoreBytes;
    CStream m_Stream{kParticleCount};
    SPlainBlocks m_Blocks{(ParticleBytes() + m_MoreBytes) * g_PageSize};

    void Prepare() { m_Blocks.Recycle(); }
    void Run()
    {
        for (u32 i = 0; i < m_Stream.PageCount(); ++i)
        {
            u8 *to = m_Blocks.Block(i);
            for (const SParticleStreamField &field : m_Stream._UnsafePage(CGuid(i))->Streams())
            {
                const size_t bytes = size_t(field.m_ParticleCount) * field.m_Definition.m_StorageSize;
                std::memcpy(to, field.m_RawDataPtr, bytes);
                to += bytes;
            }
            std::memset(to, 0, m_MoreBytes * g_PageSize);
        }
    }
};

const SDefinition kSmall{BaseType_Float};
const SDefinition kWholeLife{BaseType_Float3, BaseType_Float3, BaseType_Float4, BaseType_I32, BaseType_Float};
const SDefinition kWideVelocity{BaseType_Float3, BaseType_Float4, BaseType_Float4, BaseType_Float, BaseType_Float};
const SDefinition kOneMore{BaseType_Float3, BaseType_Float3, BaseType_Float4,
                           BaseType_Float,  BaseType_Float,  BaseType_Float4};

void AddRebind(const std::string &row, const SDefinition &newDefinition, u32 moreBytes)
{
    Add<SRebind>(row + "/ours", kParticleCount, std::cref(newDefinition));
    Add<SRebindByBlocks>(row + "/limit", kParticleCount, moreBytes);
}

[[maybe_unused]] const bool kAreRegistered = []
{
    AddSpawn<CStream>("ours");
    AddSpawn<SPlainBirths>("limit");
    AddSpawn<SColumns>("columns");
    AddSpawn<SStructs>("structs");
    AddSpawn<SColony>("colony");
    AddSpawn<SEmplaceColony>("emplace");
    AddLife<CStream>("ours");
    AddLife<SListedColumns>("limit");
    AddLife<SColumns>("columns");
    AddLife<SStructs>("structs");
    AddLife<SColony>("colony");
    Add<SCollectedLife>("life_threads/ours", kLifeCount, false)->Threads(2)->UseRealTime();
    Add<SCollectedLife>("life_threads/limit", kLifeCount, false);
    Add<SRemoveTenth>("remove_tenth/ours", kParticleCount / 10);
    Add<TSwapRemoveTenth<SColumns>>("remove_tenth/limit", kParticleCount / 10);
    Add<TSwapRemoveTenth<SStructs>>("remove_tenth/structs", kParticleCount / 10);
    AddDeepCopy<CStream, CStream>("ours");
    AddDeepCopy<CStream, SPlainBlocks>("limit");
    AddDeepCopy<SColumns, SColumns>("columns");
    Add<TResize<false>>("resize/ours", kParticleCount, 1953u, 512u, 512u, std::cref(Particle()));
    Add<TResize<true>>("resize/limit", kParticleCount, 1953u, 512u, 512u, std::cref(Particle()));
    // Draining is linear: a list of twice the length costs as much a page, both being larger than the caches.
    Add<TResize<false>>("drain/ours", 100000, 100000u, 64u, 16u, std::cref(kSmall));
    Add<TResize<false>>("drain/limit", 50000, 50000u, 64u, 16u, std::cref(kSmall))->Iterations(2);
    static SDefinition reordered{};
    for (const EField field : {Field_Size, Field_Color, Field_Life, Field_Velocity, Field_Position})
        reordered.Add(CStringId(field + 1), Particle().m_StreamDef[field].m_Type);
    AddRebind("rebind_reordered", reordered, 0);
    AddRebind("rebind_whole_life", kWholeLife, 0);
    AddRebind("rebind_wide_velocity", kWideVelocity, 4);
    AddRebind("rebind_one_more", kOneMore, 16);
    return true;
}();

} // namespace
