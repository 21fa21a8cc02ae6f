// What spares a stream the walk over a long page list: the sum of its pages' counts, and which page is the first with
// room for so many particles. A tree of bounds over the pages' free slots, in page order, and the last answer.
//
// A page that loses slots leaves the bounds above it as they are: the search that they mislead lowers them. So births
// into the page that was found last, which are most, cost no way through the tree.
//
// Kept up to date by each change of a listed page's count, each page appended and each empty one collected; anything
// else that happens to the list invalidates it, and the next question but one builds it anew by one walk. Guarded by
// the page lock of its stream.
#pragma once

#include <utility>

#include <tz_kernel/include/kr_mem.h>
#include <tz_particles/include/ps_stream.h>

namespace Tessaly
{

class TZ_API CPageListIndex : public CNonCopyable
{
public:
    static constexpr u32 kMinPageCount = 32; // shorter lists are walked

    CPageListIndex() = default;
    ~CPageListIndex() { Release(); }

    bool IsValidFor(u32 pageCount) const { return m_PageCount == pageCount; }
    u32 ParticleCount() const { return m_ParticleCount; } // in all pages
    // Index of the first page with minCount free slots, or CGuid::INVALID.
    CGuid FindFirst(u32 minCount);

    // False for the first question since it was invalidated, which a walk answers for less. To be asked once for each.
    bool IsWorthBuilding() { return std::exchange(m_WasWanted, true); }
    // Makes room for a list of that many pages. False when memory is refused: then there is no index.
    bool Reserve(u32 pageCount);
    // Building: clears it, takes the pages in order, ends.
    void Begin();
    void Add(u32 freeCount, u32 particleCount);
    void End();

    void Update(u32 pageIndex, u32 freeCount, u32 oldParticleCount, u32 newParticleCount);
    void Append(u32 freeCount, u32 particleCount); // invalidates itself when its room is used up
    void RemoveEmpty(u32 pageIndex);               // a page without particles; the last one takes its place
    void Invalidate()
    {
        m_PageCount = 0;
        m_WasWanted = false;
    }
    void Release(); // gives the memory back

private:
    CGuid _Search(u32 minCount);

    // Node n has children 2n and 2n + 1, and holds no less than both; the leaves start at m_LeafCount, and are exact
    // for the pages that there are. Those behind them are found last, and mean that there is no room.
    u32 *m_Nodes = null;
    u32 m_LeafCount = 0;  // a power of two
    u32 m_PageCount = 0;  // 0: not valid
    u32 m_AddedCount = 0; // while building
    bool m_WasWanted = false;
    u32 m_ParticleCount = 0;
    // No page before this one has m_SearchedCount free slots; m_PageCount and above: no page at all.
    u32 m_FirstCandidate = 0;
    u32 m_SearchedCount = 0;
};

} // namespace Tessaly
