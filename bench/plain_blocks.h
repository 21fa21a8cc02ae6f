// Blocks from the C library, for plain copies of what a stream holds; and the heap as a new process has it.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <malloc.h>

#include <tz_particles/include/ps_runtime.h>

#include "workloads.h"

namespace Bench
{

using namespace Workloads;

class CPlainBlocks : public CNonCopyable
{
public:
    explicit CPlainBlocks(size_t blockBytes)
        : m_BlockBytes(blockBytes)
    {
    }
    ~CPlainBlocks() { Free(); }

    // The block, which is made when it is first asked for.
    u8 *Block(size_t index)
    {
        while (m_Blocks.size() <= index)
            m_Blocks.push_back(static_cast<u8 *>(std::malloc(m_BlockBytes)));
        return m_Blocks[index];
    }
    // One memcpy a column and page, into the blocks one after the other.
    void CopyFrom(const CParticleStream_MainMemory &stream)
    {
        size_t index = 0, offset = 0;
        ForEachColumn(stream,
                      [&](const u8 *column, u32 rowCount, u32 rowBytes)
                      {
                          const size_t bytes = size_t(rowCount) * rowBytes;
                          index += offset + bytes > m_BlockBytes ? 1 : 0;
                          offset = offset + bytes > m_BlockBytes ? 0 : offset;
                          std::memcpy(Block(index) + offset, column, bytes);
                          offset += bytes;
                      });
    }
    // Blocks that come back to a free list are handed out last in, first out: the next round meets them in reverse.
    void Reverse() { std::reverse(m_Blocks.begin(), m_Blocks.end()); }
    void Free()
    {
        for (u8 *block : m_Blocks)
            std::free(block);
        m_Blocks.clear();
    }

private:
    size_t m_BlockBytes;
    std::vector<u8 *> m_Blocks;
};

// Gives free memory back to the system. From then on the C library maps large blocks and unmaps them, as it does in a
// new program: otherwise a peer's next block would be warm.
inline void TrimHeap()
{
    mallopt(M_MMAP_THRESHOLD, 128 << 10);
    Particles::PageAllocator()->CleanAllFreePages();
    malloc_trim(0);
}

} // namespace Bench
