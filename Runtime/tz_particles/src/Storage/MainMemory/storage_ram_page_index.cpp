// The index over a long page list.
#include <tz_particles/include/Storage/MainMemory/storage_ram_page_index.h>

#include <cstring>

namespace Tessaly
{

CGuid CPageListIndex::FindFirst(u32 minCount) const
{
    if (m_Nodes[1] < minCount)
        return CGuid::INVALID;
    u32 node = 1;
    while (node < m_LeafCount)
        node = m_Nodes[2 * node] >= minCount ? 2 * node : 2 * node + 1;
    return CGuid(node - m_LeafCount);
}

bool CPageListIndex::Reserve(u32 pageCount)
{
    if (pageCount <= m_LeafCount)
        return true;
    if (pageCount > 1u << 30)
        return false;
    Release();
    const u32 leafCount = 2u << IntegerTools::Log2(pageCount); // room to grow
    void *nodes = Mem::_RawAlloc(u64(leafCount) * 2 * sizeof(u32), 0, Mem::AllocType_Generic, Mem::Origin_Alloc,
                                 Mem::kDefaultTag, __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE);
    if (nodes == null)
        return false;
    m_Nodes = static_cast<u32 *>(nodes);
    m_LeafCount = leafCount;
    return true;
}

void CPageListIndex::Begin()
{
    m_PageCount = 0;
    m_AddedCount = 0;
    m_ParticleCount = 0;
}

void CPageListIndex::Add(u32 freeCount, u32 particleCount)
{
    m_Nodes[m_LeafCount + m_AddedCount++] = freeCount;
    m_ParticleCount += particleCount;
}

void CPageListIndex::End()
{
    std::memset(m_Nodes + m_LeafCount + m_AddedCount, 0, size_t(m_LeafCount - m_AddedCount) * sizeof(u32));
    for (u32 node = m_LeafCount - 1; node != 0; --node)
        m_Nodes[node] = TZMax(m_Nodes[2 * node], m_Nodes[2 * node + 1]);
    m_PageCount = m_AddedCount;
}

// Renews the maxima above a leaf, as far up as they change.
void CPageListIndex::_RaiseTo(u32 node)
{
    for (node /= 2; node != 0; node /= 2)
    {
        const u32 maximum = TZMax(m_Nodes[2 * node], m_Nodes[2 * node + 1]);
        if (m_Nodes[node] == maximum)
            return;
        m_Nodes[node] = maximum;
    }
}

void CPageListIndex::Update(u32 pageIndex, u32 freeCount, u32 oldParticleCount, u32 newParticleCount)
{
    if (pageIndex >= m_PageCount)
        return;
    m_ParticleCount += newParticleCount - oldParticleCount;
    m_Nodes[m_LeafCount + pageIndex] = freeCount;
    _RaiseTo(m_LeafCount + pageIndex);
}

void CPageListIndex::Append(u32 freeCount, u32 particleCount)
{
    if (m_PageCount == 0)
        return;
    if (m_PageCount == m_LeafCount)
        return Invalidate();
    const u32 pageIndex = m_PageCount++;
    Update(pageIndex, freeCount, 0, particleCount);
}

void CPageListIndex::Release()
{
    if (m_Nodes != null)
        Mem::_RawFree(m_Nodes, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                      TZ_FUNCTION_SIGNATURE);
    m_Nodes = null;
    m_LeafCount = 0;
    m_PageCount = 0;
}

} // namespace Tessaly
