// The index over a long page list.
#include <tz_particles/include/Storage/MainMemory/storage_ram_page_index.h>

#include <cstring>

namespace Tessaly
{

CGuid CPageListIndex::FindFirst(u32 minCount)
{
    const bool isAnswered = minCount >= m_SearchedCount &&
                            (m_FirstCandidate >= m_PageCount || m_Nodes[m_LeafCount + m_FirstCandidate] >= minCount);
    if (!isAnswered)
    {
        const CGuid found = _Search(minCount);
        m_FirstCandidate = found.Valid() ? found.Get() : m_PageCount;
        m_SearchedCount = minCount;
    }
    return m_FirstCandidate < m_PageCount ? CGuid(m_FirstCandidate) : CGuid::INVALID;
}

CGuid CPageListIndex::_Search(u32 minCount)
{
    u32 node = 1;
    while (m_Nodes[node] >= minCount)
    {
        if (node >= m_LeafCount)
            return CGuid(node - m_LeafCount);
        const u32 left = 2 * node;
        const u32 bound = TZMax(m_Nodes[left], m_Nodes[left + 1]);
        m_Nodes[node] = bound;
        if (m_Nodes[left] >= minCount)
            node = left;
        else if (bound >= minCount)
            node = left + 1;
        else if (node != 1) // it was too high: back to where it misled
            node /= 2;
    }
    return CGuid::INVALID;
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
    m_FirstCandidate = 0;
    m_SearchedCount = 0;
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

void CPageListIndex::Update(u32 pageIndex, u32 freeCount, u32 oldParticleCount, u32 newParticleCount)
{
    if (pageIndex >= m_PageCount)
        return;
    m_ParticleCount += newParticleCount - oldParticleCount;
    m_Nodes[m_LeafCount + pageIndex] = freeCount;
    for (u32 node = (m_LeafCount + pageIndex) / 2; node != 0 && m_Nodes[node] < freeCount; node /= 2)
        m_Nodes[node] = freeCount;
    if (pageIndex < m_FirstCandidate && freeCount >= m_SearchedCount)
        m_FirstCandidate = pageIndex;
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

void CPageListIndex::RemoveEmpty(u32 pageIndex)
{
    if (pageIndex >= m_PageCount)
        return;
    const u32 last = --m_PageCount;
    Update(pageIndex, m_Nodes[m_LeafCount + last], 0, 0); // nothing when the page itself was the last
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
