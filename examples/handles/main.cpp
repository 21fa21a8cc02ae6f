// Handles that stay valid while removal moves particles: a table of slots with generations. Each particle stores the
// index of its slot in a column, so that the moves of RemoveParticles lead to the slots that have to be updated.
#include <cstdio>
#include <vector>

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>
#include <tz_particles/include/ps_runtime.h>
using namespace Tessaly;

struct SHandle
{
    u32 m_Slot, m_Generation;
};

class CHandleTable
{
public:
    SHandle Add(const CParticlePage &page, u32 row)
    {
        if (m_FreeSlots.empty())
        {
            m_FreeSlots.push_back(u32(m_Slots.size()));
            m_Slots.emplace_back();
        }
        const u32 slot = m_FreeSlots.back();
        m_FreeSlots.pop_back();
        m_Slots[slot].m_Particle = CParticlePageView(page, row, 1);
        m_Slots[slot].m_Particle.ColumnForWriting<u32>(CGuid(0))[0] = slot;
        return {slot, m_Slots[slot].m_Generation};
    }
    CParticlePageView Find(SHandle handle) const // empty: the particle was removed
    {
        const SSlot &slot = m_Slots[handle.m_Slot];
        return slot.m_Generation == handle.m_Generation ? slot.m_Particle : CParticlePageView();
    }
    void Remove(CParticleStream_MainMemory &stream, CGuid pageId, const std::vector<u32> &rows) // ascending
    {
        const CScopedPagesLock lock(stream);
        const CParticlePage &page = *stream.Page(pageId);
        const auto slots = CParticlePageView(page).DenseColumn<u32>(CGuid(0));
        for (const u32 row : rows)
        {
            m_Slots[slots[row]] = {m_Slots[slots[row]].m_Generation + 1, {}};
            m_FreeSlots.push_back(slots[row]);
        }
        std::vector<SParticleMove> buffer(rows.size());
        TMemoryView<SParticleMove> moves(buffer);
        stream.RemoveParticles(pageId, rows, &moves);
        for (const SParticleMove &move : moves)
            m_Slots[slots[move.m_To]].m_Particle = CParticlePageView(page, move.m_To, 1);
    }

private:
    struct SSlot
    {
        u32 m_Generation = 0;
        CParticlePageView m_Particle;
    };
    std::vector<SSlot> m_Slots;
    std::vector<u32> m_FreeSlots;
};

int main()
{
    Particles::Startup();
    SParticleStreamDef def;
    def.Add("slot", BaseType_U32);
    CParticleStream_MainMemory stream(64);
    stream.BindStreamDef(&def);
    CHandleTable table;
    std::vector<SHandle> handles; // of all particles ever allocated
    u32 faultCount = 0;
    for (u32 round = 0; round < 100; ++round)
    {
        const CParticlePageView born = stream.AllocateParticlesIFP(round == 0 ? 60 : 5, 0);
        for (u32 i = 0; i < born.ParticleCount(); ++i)
            handles.push_back(table.Add(*born.OriginalPage(), born.FirstParticle() + i));
        table.Remove(stream, CGuid(0), {round % 9, 20 + round % 9, 40, 58, 59});
        u32 foundCount = 0;
        for (const SHandle &handle : handles)
        {
            const CParticlePageView particle = table.Find(handle);
            if (particle.Empty())
                continue;
            ++foundCount;
            faultCount += particle.Column<u32>(CGuid(0))[0] != handle.m_Slot ? 1 : 0;
        }
        faultCount += foundCount != stream.ParticleCount() ? 1 : 0;
    }
    std::printf("%zu allocated, %u alive, %u faults\n", handles.size(), stream.ParticleCount(), faultCount);
    return faultCount != 0 || std::fflush(stdout) != 0; // no Shutdown: the process ends here
}
