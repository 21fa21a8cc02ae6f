// The page list.
#include <tz_particles/include/Storage/MainMemory/storage_ram_page_list.h>

#include <tz_kernel/include/kr_mem_utils.h>

namespace Tessaly
{

PParticlePage CPageList::Take(u32 pageIndex)
{
    PParticlePage page = std::move(RawDataPointer()[pageIndex]);
    Remove(pageIndex);
    return page;
}

PParticlePage CPageList::Take_KeepOrder(u32 pageIndex)
{
    PParticlePage page = std::move(RawDataPointer()[pageIndex]);
    if (pageIndex >= Count() / 2)
        Remove_AndKeepOrder(pageIndex);
    else
    {
        Mem::Copy_Overlapped(m_Data + 1, m_Data, u64(pageIndex) * sizeof(PParticlePage));
        ++m_Data;
        --m_MaxCount;
        ++m_StartInBuffer;
        _SetCount(Count() - 1);
    }
    return page;
}

CGuid CPageList::PushBack(const PParticlePage &page)
{
    if (Count() == Capacity())
        MoveToBufferStart();
    return Base::PushBack(page);
}

void CPageList::MoveToBufferStart()
{
    if (m_StartInBuffer == 0)
        return;
    Mem::Copy_Overlapped(m_Data - m_StartInBuffer, m_Data, u64(Count()) * sizeof(PParticlePage));
    m_Data -= m_StartInBuffer;
    m_MaxCount += m_StartInBuffer;
    m_StartInBuffer = 0;
}

} // namespace Tessaly
