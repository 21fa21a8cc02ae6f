// What spares a stream the walk over a long page list: the sum of its pages' counts, and which page is the first with
// room for so many particles. A tree of maxima over the pages' free slots, in page order.
//
// Kept up to date by each change of a listed page's count and each page appended; anything else that happens to the
// list invalidates it, and the next question builds it anew by one walk. Guarded by the page lock of its stream.
#pragma once

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
    CGuid FindFirst(u32 minCount) const;

    // Makes room for a list of that many pages. False when memory is refused: then there is no index.
    bool Reserve(u32 pageCount);
    // Building: clears it, takes the pages in order, ends.
    void Begin();
    void Add(u32 freeCount, u32 particleCount);
    void End();

    void Update(u32 pageIndex, u32 freeCount, u32 oldParticleCount, u32 newParticleCount);
    void Append(u32 freeCount, u32 particleCount); // invalidates itself when its room is used up
    void Invalidate() { m_PageCount = 0; }
    void Release(); // gives the memory back

private:
    void _RaiseTo(u32 node);

    u32 *m_Nodes = null;  // node n has children 2n and 2n + 1; the leaves start at m_LeafCount
    u32 m_LeafCount = 0;  // a power of two
    u32 m_PageCount = 0;  // 0: not valid
    u32 m_AddedCount = 0; // while building
    u32 m_ParticleCount = 0;
};

} // namespace Tessaly
