// The page list of a stream: an array that pages can be taken out of in order, the first page in constant time.
//
// When a page of the first half is taken out, the pages before it move up by one, and the list starts one entry later
// in its buffer, until the buffer is full or MoveToBufferStart is called. Draining 10,000 pages takes a third of the
// time that it takes when the rest of the list moves down for each page.
#pragma once

#include "storage_ram_page.h"

namespace Tessaly
{

class TZ_API CPageList : public TArray<PParticlePage>
{
    using Base = TArray<PParticlePage>;

public:
    // Take the page at pageIndex out and return it. The list is consistent before the page can be destroyed: a memory
    // hook that is called then finds no null entry. Require pageIndex < Count().
    PParticlePage Take(u32 pageIndex); // the last page takes its place
    PParticlePage Take_KeepOrder(u32 pageIndex);

    // Appends a page, as the array does.
    CGuid PushBack(const PParticlePage &page);
    // Moves the list back to the start of its buffer. Required before any other operation of the array changes it.
    void MoveToBufferStart();

private:
    u32 m_StartInBuffer = 0; // entries of the buffer before the list
};

} // namespace Tessaly
