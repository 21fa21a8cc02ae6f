// The model of a stream: every operation as its description reads, one step after the other, on rows of bytes.
//
// What it predicts: pages, their order, capacities, counts and bytes, the live count, pending resizes, block bytes in
// use, and every report, in order.
#pragma once

#include <vector>

#include "naive_page.h"

namespace Tessaly
{
namespace Model
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
    PNaivePage AllocNewPage(u32 capacity, u32 bytes, bool isListed);
    u32 StreamId(u32 name);
    SNaiveView AllocateIfPossible(u32 wishedCount, u32 minCountHint);
    void RegisterDeadCount(u32 count);
    void RegisterBornCount(u32 count);
    void Recount();
    void ResizePending(u32 maxPageCount);
    void DeepCopy(CNaiveStream &other);
    void Bind(const PLoan &loan, const PLoan &constants);
    void Collect(std::vector<u32> *reindexer);

    u32 RowSum() const; // of the pages' counts
    void CheckCount() { m_World.Check(RowSum() == m_Count, "realPCount == m_ParticleCount.Load()"); }
    // Bytes of a page's columns, in 32 and in 64 bits.
    static u32 PageBytes(u32 capacity, const SLoan &loan);
    static u64 TruePageBytes(u32 capacity, const SLoan &loan);

    SNaiveWorld &m_World;
    const void *m_Real; // the library's stream
    u32 m_PageSize;     // particles
    u32 m_PageBytes = 0;
    PLoan m_Loan;      // of the definition; null while unbound
    PLoan m_Constants; // of constant data and slot table
    std::vector<PNaivePage> m_Pages;
    u32 m_OutOfSync = 0;
    u32 m_Count = 0;

private:
    struct SPass;

    u32 _SlotCount() const { return m_Constants != null ? m_Constants->m_SlotCount : 0; }
    u32 _ConstantCount() const { return m_Constants != null ? u32(m_Constants->m_Constants.size()) : 0; }
    u32 _Slot(u32 field);
    bool _Clamp();
    PNaivePage _Destination(const SPass &pass);
    bool _TakeOldPage(SPass &pass);
    bool _MoveInto(SPass &pass, const PNaivePage &dst);
    void _RebuildPages(const std::vector<u32> &remap);
    void _RebuildColumn(CNaivePage &page, u32 column, const CNaivePage &old, u32 oldColumn);
};

} // namespace Model
} // namespace Tessaly
