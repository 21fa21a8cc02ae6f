// Handles that find their particle wherever removal moved it: a table of slots with generations. Each particle carries
// the number of its slot in a column; the moves that RemoveParticles tells keep the slots right.
#include <cstdio>
#include <vector>

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>
#include <tz_particles/include/ps_runtime.h>
using namespace Tessaly;

struct SHandle
{
    u32 m_Slot, m_Generation;
};

class CHandles
{
public:
    SHandle Take(const CParticlePage &page, u32 row)
    {
        if (m_Free.empty())
            m_Free.push_back(u32(m_Slots.size())), m_Slots.emplace_back();
        const u32 slot = m_Free.back();
        m_Free.pop_back();
        m_Slots[slot].m_Particle = CParticlePageView(page, row, 1);
        m_Slots[slot].m_Particle.ColumnForWriting<u32>(CGuid(0))[0] = slot;
        return {slot, m_Slots[slot].m_Generation};
    }
    CParticlePageView Find(SHandle handle) const // empty: the particle is dead
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
            m_Slots[slots[row]] = {m_Slots[slots[row]].m_Generation + 1, {}}, m_Free.push_back(slots[row]);
        std::vector<SParticleMove> room(rows.size());
        TMemoryView<SParticleMove> moves(room);
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
    std::vector<u32> m_Free;
};

int main()
{
    Particles::Startup();
    SParticleStreamDef def;
    def.Add("slot", BaseType_U32);
    CParticleStream_MainMemory stream(64);
    stream.BindStreamDef(&def);
    CHandles table;
    std::vector<SHandle> handles; // of all that were ever born
    u32 found = 0, wrong = 0;
    for (u32 round = 0; round < 100; ++round, wrong += found != stream.ParticleCount(), found = 0)
    {
        const CParticlePageView born = stream.AllocateParticlesIFP(round == 0 ? 60 : 5, 0);
        for (u32 i = 0; i < born.ParticleCount(); ++i)
            handles.push_back(table.Take(*born.OriginalPage(), born.FirstParticle() + i));
        table.Remove(stream, CGuid(0), {round % 9, 20 + round % 9, 40, 58, 59});
        for (const SHandle &handle : handles)
            if (const CParticlePageView particle = table.Find(handle); !particle.Empty())
                ++found, wrong += particle.Column<u32>(CGuid(0))[0] != handle.m_Slot;
    }
    std::printf("%zu were born, %u are alive, %u faults\n", handles.size(), stream.ParticleCount(), wrong);
    return wrong != 0 || std::fflush(stdout) != 0; // the particle runtime and the stream go with the process
}
