// The model of a stream: every operation as its description reads, one step after the other, on rows of bytes.
//
// What it predicts: pages, their order, capacities, counts and bytes, the live count, pending resizes, block bytes in
// use, and every report, in order. Operations have the names of the library's.
#pragma once

#include "naive_page.h"

namespace Tessaly::Model
{

class CNaiveStream : public CNonCopyable
{
public:
    CNaiveStream(SNaiveWorld &world, const void *real, u32 pageSize);
    ~CNaiveStream() { Cleanup(); }

    void Clear();
    void Cleanup();
    void Swap(CNaiveStream &other);
    void SetPageSize(u32 size);
    PNaivePage AllocNewPage(u32 capacity, bool isListed);
    u32 StreamId(u32 name);
    SNaiveView AllocateParticlesIFP(u32 wishedCount, u32 minCountHint);
    void RegisterDeadCount(u32 count);
    void RegisterBornCount(u32 count);
    static bool CopySubRangeToPage(CNaivePage &dst, CNaivePage &src, u32 start, u32 count);
    static bool CopyPageToPage(CNaivePage &dst, const SNaiveView &src);
    static u32 TransferPageToPage(CNaivePage &dst, const SNaiveView &src, u32 start);
    void ComputePendingResizes_NoLock();
    void ResizePending(u32 maxPageCount);
    void DeepCopy(const CNaiveStream &other);
    void BindStreamDef(const PNaiveDefinition &definition, const PNaiveDefinition &constants);
    void GarbageCollectOldPages(std::vector<u32> *reindexer);

    u32 RowSum() const; // of the pages' counts
    // Bytes of a page's columns, in 64 bits and in 32, which may wrap around.
    static u64 TruePageBytes(u32 capacity, const SNaiveDefinition &definition);
    static u32 PageBytes(u32 capacity, const SNaiveDefinition &definition)
    {
        return u32(TruePageBytes(capacity, definition));
    }

    SNaiveWorld &m_World;
    const void *m_Real; // the library's stream
    u32 m_PageSize;     // particles
    u32 m_PageBytes = 0;
    PNaiveDefinition m_Definition;                                       // null while unbound
    PNaiveDefinition m_Constants = std::make_shared<SNaiveDefinition>(); // whose constants and slots it uses
    std::vector<PNaivePage> m_Pages;
    u32 m_OutOfSync = 0;
    u32 m_Count = 0;

private:
    void _CheckCount() { m_World.Check(RowSum() == m_Count, "realPCount == m_ParticleCount.Load()"); }
    void _CheckOutOfSync() { m_World.Check(m_OutOfSync <= m_Pages.size(), "m_PageCount_OutOfSync <= m_Pages.Count()"); }
    u32 _Slot(u32 field);
    bool _Clamp();
    void _RemoveSwapping(size_t index); // the last page takes the place
    std::vector<PNaivePage>::iterator _FirstOldPage();
    PNaivePage _Destination(const std::set<PNaivePage> &excluded);
    void _RebuildPages();
    void _RebuildColumn(CNaivePage &page, u32 column, const CNaivePage &old);
};

} // namespace Tessaly::Model
