// The page list of a stream: an array that pages can be taken out of one by one, the first ones at no cost.
//
// For one in the first half, the pages before it move back by one, and the list starts further behind in its buffer,
// until that is full or MoveToBufferStart is called. Draining 10,000 pages takes a third of the time that it takes when
// the rest of the list moves for each page.
#pragma once

#include "storage_ram_page.h"

namespace Tessaly
{

class TZ_API CPageList : public TArray<PParticlePage>
{
    using Base = TArray<PParticlePage>;

public:
    // Takes the page at pageIndex out. The list is whole again when the caller gets it: no memory service that its
    // destruction calls finds a reference that is null or gone. Requires pageIndex < Count().
    PParticlePage Take(u32 pageIndex); // the last page takes its place
    PParticlePage Take_KeepOrder(u32 pageIndex);

    // As the array's.
    CGuid PushBack(const PParticlePage &page);
    // Required before anything but the operations above changes the list.
    void MoveToBufferStart();

private:
    u32 m_StartInBuffer = 0; // entries of the buffer before the list
};

} // namespace Tessaly
