// The index of a long page list, and the pages' members that refer to it.
#include <tz_particles/include/Storage/MainMemory/storage_ram_page.h>

#include <cstring>
#include <utility>

namespace Tessaly
{

CPageListIndex::~CPageListIndex()
{
    if (m_Nodes != null)
        Mem::_RawFree(m_Nodes, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                      TZ_FUNCTION_SIGNATURE);
}

CGuid CPageListIndex::FindFirst(const PageList &pages, u32 minCount)
{
    const bool isAnswered =
        minCount >= m_SearchedCount &&
        (m_FirstCandidate >= m_PageCount || pages.Data()[m_FirstCandidate].Get()->FreeCount() >= minCount);
    if (!isAnswered && _HasTree())
    {
        const CGuid found = _Search(minCount);
        m_FirstCandidate = found.Valid() ? found.Get() : m_PageCount;
    }
    else if (!isAnswered)
    {
        m_FirstCandidate = 0;
        while (m_FirstCandidate < m_PageCount && pages.Data()[m_FirstCandidate].Get()->FreeCount() < minCount)
            ++m_FirstCandidate;
    }
    if (!isAnswered)
        m_SearchedCount = minCount;
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
        else if (node != 1) // the upper bound was stale: search again from the node above
            node /= 2;
    }
    return CGuid::INVALID;
}

void CPageListIndex::Reserve(u32 pageCount)
{
    if (pageCount <= kMaxWalkedPageCount || pageCount <= m_LeafCount || pageCount > 1u << 30)
        return;
    // The memory service may call a hook that queries the index: meanwhile it has no nodes.
    Invalidate();
    u32 *oldNodes = std::exchange(m_Nodes, null);
    const u32 oldLeafCount = std::exchange(m_LeafCount, 0u);
    const u32 leafCount = 2u << IntegerTools::Log2(pageCount); // the next power of two
    void *nodes = Mem::_RawRealloc(oldNodes, u64(leafCount) * 2 * sizeof(u32), 0, Mem::AllocType_Generic,
                                   Mem::kDefaultTag, __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE);
    m_Nodes = nodes != null ? static_cast<u32 *>(nodes) : oldNodes;
    m_LeafCount = nodes != null ? leafCount : oldLeafCount;
}

bool CPageListIndex::Build(const PageList &pages)
{
    const bool hasTree = pages.Count() > kMaxWalkedPageCount;
    if (hasTree && pages.Count() > m_LeafCount)
        return false;
    m_ParticleCount = 0;
    for (u32 i = 0; i < pages.Count(); ++i)
    {
        CParticlePage &page = *pages.Data()[i].Get();
        m_ParticleCount += page.ParticleCount();
        page.m_ListIndex = this;
        page.m_IndexInList = i;
        if (hasTree)
            m_Nodes[m_LeafCount + i] = page.FreeCount();
    }
    if (hasTree)
    {
        std::memset(m_Nodes + m_LeafCount + pages.Count(), 0, size_t(m_LeafCount - pages.Count()) * sizeof(u32));
        for (u32 node = m_LeafCount - 1; node != 0; --node)
            m_Nodes[node] = TZMax(m_Nodes[2 * node], m_Nodes[2 * node + 1]);
    }
    m_PageCount = pages.Count();
    m_FirstCandidate = 0;
    m_SearchedCount = 0;
    return true;
}

void CPageListIndex::Swap(CPageListIndex &other)
{
    Invalidate();
    other.Invalidate();
    TZSwap(m_Nodes, other.m_Nodes);
    TZSwap(m_LeafCount, other.m_LeafCount);
}

void CPageListIndex::Attach(CParticlePage &page, u32 pageIndex)
{
    const bool hasNodes = pageIndex < kMaxWalkedPageCount || (_HasTree() && pageIndex < m_LeafCount);
    if (m_PageCount == 0 || m_PageCount != pageIndex || !hasNodes)
        return Invalidate();
    m_PageCount = pageIndex + 1;
    page.m_ListIndex = this;
    page.m_IndexInList = pageIndex;
    Update(pageIndex, page.FreeCount(), 0, page.ParticleCount());
}

void CPageListIndex::Detach(CParticlePage &page)
{
    if (page.m_ListIndex != null)
        page.m_ListIndex->Invalidate();
    page.m_ListIndex = null;
}

void CPageListIndex::DetachEmpty(CParticlePage &page, CParticlePage &lastPage)
{
    CPageListIndex *index = std::exchange(page.m_ListIndex, nullptr);
    if (index == null || index->m_PageCount == 0)
        return;
    --index->m_PageCount;
    lastPage.m_IndexInList = page.m_IndexInList;
    index->Update(page.m_IndexInList, lastPage.FreeCount(), 0, 0); // does nothing when page is the last one
}

void CPageListIndex::Update(u32 pageIndex, u32 freeCount, u32 oldParticleCount, u32 newParticleCount)
{
    if (pageIndex >= m_PageCount)
        return;
    m_ParticleCount += newParticleCount - oldParticleCount;
    if (_HasTree())
    {
        m_Nodes[m_LeafCount + pageIndex] = freeCount;
        for (u32 node = (m_LeafCount + pageIndex) / 2; node != 0 && m_Nodes[node] < freeCount; node /= 2)
            m_Nodes[node] = freeCount;
    }
    if (pageIndex < m_FirstCandidate && freeCount >= m_SearchedCount)
        m_FirstCandidate = pageIndex;
}

} // namespace Tessaly
