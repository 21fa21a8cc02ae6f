#include "interpreter.h"

#include <algorithm>
#include <cstring>

#include <tz_particles/include/ps_runtime.h>

namespace Tessaly
{
namespace Model
{

namespace
{

std::string Join(const std::vector<std::string> &texts)
{
    std::string all;
    for (const std::string &text : texts)
        all += "\n    " + text;
    return all.empty() ? " none" : all;
}

bool IsFresh(const u8 *bytes, u64 count)
{
    static const std::vector<u8> fresh(4096, 0xF3);
    for (; count > fresh.size(); bytes += fresh.size(), count -= fresh.size())
    {
        if (std::memcmp(bytes, fresh.data(), fresh.size()) != 0)
            return false;
    }
    return std::memcmp(bytes, fresh.data(), count) == 0;
}

u64 ColumnBytes(const SNaiveColumn &column, u32 capacity)
{
    return (u64(column.m_Field.m_Size) * capacity + 15) / 16 * 16;
}

bool HoldsSameRows(const CNaivePage &naive, const CParticlePage &real)
{
    bool isSame = naive.m_Capacity == real.Capacity() && naive.m_Count == real.ParticleCount() &&
                  naive.m_Columns.size() == real.StreamsCount();
    for (u32 i = 0; isSame && i < naive.m_Columns.size(); ++i)
    {
        const std::vector<u8> &rows = naive.m_Columns[i].m_Rows;
        isSame = rows.empty() || std::memcmp(rows.data(), real.Stream(CGuid(i)).m_RawDataPtr, rows.size()) == 0;
    }
    return isSame;
}

} // namespace

void CInterpreter::_Tell(const std::string &what, u64 real, u64 expected)
{
    m_Difference = what + ": " + std::to_string(real) + " instead of " + std::to_string(expected);
}

std::string CInterpreter::_Compare()
{
    if (m_Adoption != EAdoption::None)
        _Adopt();
    _CompareReports();
    for (const SPair &stream : m_Streams)
        _CompareStream(stream);
    for (const SHeldView &view : m_Views)
        _ComparePage(*view.m_Naive.m_Page, *view.m_Real.OriginalPage());
    for (const SHeldReader &reader : m_Readers)
        _ComparePage(*reader.m_Naive, *reader.m_Page);
    _Differ("block bytes in use", Particles::PageAllocator()->TotalMemoryAllocated(), m_World.m_BlockBytes);
    if (m_Recorder.Count() != 0)
        _Tell("reports while comparing, as " + m_Recorder.Take()[0].m_Text, 1, 0);
    m_Adoption = EAdoption::None;
    std::string difference;
    difference.swap(m_Difference);
    return difference;
}

void CInterpreter::_CompareReports()
{
    std::vector<std::string> real;
    for (const Tests::SSeenReport &report : m_Recorder.Take())
        real.push_back(report.m_Text);
    const bool isTold = !m_World.m_AnyReports && !m_NeedsReport && !_WasRefused();
    if (m_NeedsReport)
        _Differ("reports of a refusal", real.empty() ? 0 : 1, 1);
    else if (isTold && real != m_World.m_Reports && m_Difference.empty())
        m_Difference = "reports:" + Join(real) + "\n  instead of:" + Join(m_World.m_Reports);
    m_World.m_Reports.clear();
    m_World.m_AnyReports = false;
    m_NeedsReport = false;
}

void CInterpreter::_CompareStream(const SPair &stream)
{
    const CParticleStream_MainMemory &real = *stream.m_Real;
    const CNaiveStream &naive = *stream.m_Naive;
    _Differ("particle count", real.ParticleCount(), naive.m_Count);
    _Differ("emptiness", real.Empty(), naive.m_Count == 0);
    _Differ("page size", real.PageSize(), naive.m_PageSize);
    _Differ("pending resizes", real.HasPendingResizes(), naive.m_OutOfSync != 0);
    _Differ("a held lock", real.LockedByCurrentThread(), false);
    _Differ("the definition", real.GetStreamDef() == (naive.m_Loan != null ? &naive.m_Loan->m_Def : null), true);
    _Differ("field count", real.StreamsCount(), naive.m_Loan != null ? naive.m_Loan->m_Fields.size() : 0);
    const PLoan &constants = naive.m_Constants;
    const SStridedMemoryViewRawStorage slots = real.ConstantDataFieldSlot().m_Storage;
    const SStridedMemoryViewRawStorage lent =
        constants != null ? constants->Slots().m_Storage : SStridedMemoryViewRawStorage{null, 0, 0};
    _Differ("constants", real.ConstantData().Count(), constants != null ? constants->m_Constants.size() : 0);
    _Differ("slots", slots.m_Count, lent.m_Count);
    _Differ("the slot table", slots.m_RawDataPtr == lent.m_RawDataPtr && slots.m_Stride == lent.m_Stride, true);
    _Differ("page count", real.PageCount(), naive.m_Pages.size());
    for (u32 i = 0; i < naive.m_Pages.size() && m_Difference.empty(); ++i)
        _ComparePage(*naive.m_Pages[i], *real._UnsafePage(CGuid(i)));
}

void CInterpreter::_ComparePage(CNaivePage &naive, const CParticlePage &real)
{
    const bool isNew = naive.m_Real == null;
    if (isNew)
        naive.m_Real = &real;
    _Differ("the page object at its place", naive.m_Real == &real, true);
    _Differ("capacity", real.Capacity(), naive.m_Capacity);
    _Differ("particles in a page", real.ParticleCount(), naive.m_Count);
    _Differ("fields in a page", real.StreamsCount(), naive.m_Columns.size());
    _Differ("parent", real.ParentStream() == naive.m_Parent, true);
    _Differ("readers", real.RawPage()->ReadersCount(), naive.m_ReaderCount);
    _Differ("readiness to be written", real.ReadyToWrite(), naive.IsWritable());
    _Differ("block size", real.RawPage()->Size(), naive.m_BlockBytes);
    if (!m_Difference.empty())
        return;
    const u8 *block = real.RawPage()->BeginRead();
    real.RawPage()->EndRead();
    _Differ("alignment of a block", ureg(block) % 64, 0);
    u64 offset = 0;
    for (u32 i = 0; i < naive.m_Columns.size() && m_Difference.empty(); ++i)
    {
        const SParticleStreamField &field = real.Stream(CGuid(i));
        const SNaiveColumn &column = naive.m_Columns[i];
        const bool isStored = column.m_Field.m_Size != 0;
        _Differ("place of column", field.m_RawDataPtr == (isStored ? block + offset : column.m_Constant), true, i);
        if (isStored && m_Difference.empty())
            _CompareRows(naive, i, field, isNew);
        const SParticleStreamFieldDef &def = field.m_Definition;
        _Differ("field record", SNaiveField{def.m_StorageSize, def.m_Type, def.m_NameGUID.m_Id} == column.m_Field,
                true);
        _Differ("particles of a field", field.m_ParticleCount, naive.m_Count);
        offset += ColumnBytes(column, naive.m_Capacity);
    }
    naive.m_Unknown.clear();
}

void CInterpreter::_CompareRows(CNaivePage &naive, u32 column, const SParticleStreamField &field, bool isNew)
{
    SNaiveColumn &expected = naive.m_Columns[column];
    const u64 size = expected.m_Field.m_Size;
    for (const SUnknownRows &unknown : naive.m_Unknown)
    {
        if (unknown.m_Column == column && unknown.m_Count != 0)
            std::memcpy(naive.Row(column, unknown.m_First), field.m_RawDataPtr + size * unknown.m_First,
                        size * unknown.m_Count);
    }
    for (u64 i = 0; i < expected.m_Rows.size() && m_Difference.empty(); i += size)
    {
        // Rows are compared one by one only to say which one differs.
        if (i == 0 && std::memcmp(field.m_RawDataPtr, expected.m_Rows.data(), expected.m_Rows.size()) == 0)
            break;
        const auto difference = std::mismatch(&expected.m_Rows[i], &expected.m_Rows[i] + size, field.m_RawDataPtr + i);
        if (difference.first != &expected.m_Rows[i] + size)
            _Tell("column " + std::to_string(column) + ", row " + std::to_string(i / size) + ", byte " +
                      std::to_string(difference.first - &expected.m_Rows[i]),
                  *difference.second, *difference.first);
    }
    const u64 end = ColumnBytes(expected, naive.m_Capacity), touched = size * naive.m_Touched;
    const u64 seen = isNew ? end - touched : std::min(end - touched, u64(64));
    _Differ("fresh rows of column", IsFresh(field.m_RawDataPtr + touched, seen), true, column);
    _Differ("the end of column", IsFresh(field.m_RawDataPtr + end - seen, seen), true, column);
}

void CInterpreter::_CompareSums(const SPair &stream)
{
    const CNaiveStream &naive = *stream.m_Naive;
    m_World.m_AnyReports = naive.RowSum() != naive.m_Count;
    const SParticleStreamStats stats = stream.m_Real->ComputeStats();
    u64 footprint = 0, rowBytes = 0, slotBytes = 0, blockBytes = 0, slotCount = 0, outOfSync = 0, rowCount = 0;
    u32 tenths[10] = {};
    for (const PNaivePage &page : naive.m_Pages)
    {
        footprint += sizeof(CParticlePage) + sizeof(CParticleRawPage_MainMemory) + page->m_BlockBytes +
                     page->m_Columns.size() * sizeof(SParticleStreamField);
        for (const SNaiveColumn &column : page->m_Columns)
        {
            rowBytes += u64(column.m_Field.m_Size) * page->m_Count;
            slotBytes += u64(column.m_Field.m_Size) * page->m_Capacity;
        }
        blockBytes += page->m_BlockBytes;
        slotCount += page->m_Capacity;
        rowCount += page->m_Count;
        outOfSync += page->m_Capacity != naive.m_PageSize ? 1 : 0;
        ++tenths[std::min(u64(page->m_Count) * 10 / page->m_Capacity, u64(9))];
    }
    _Differ("memory report", stream.m_Real->ComputeMemoryUsage().m_ParticleBytes, footprint);
    _Differ("memory report in all", stream.m_Real->ComputeMemoryUsage().Total(), footprint);
    _Differ("pages told", stats.m_PageCount, naive.m_Pages.size());
    _Differ("pages out of sync told", stats.m_PageCount_OutOfSync, outOfSync);
    _Differ("particles told", stats.m_ParticleCount, rowCount);
    _Differ("slots told", stats.m_SlotCount, slotCount);
    _Differ("live bytes told", stats.m_LiveBytes, rowBytes);
    _Differ("free bytes told", stats.m_FreeBytes, slotBytes - rowBytes);
    _Differ("padding told", stats.m_PaddingBytes, blockBytes - slotBytes);
    for (u32 i = 0; i < 10; ++i)
        _Differ("pages of tenth", stats.m_PagesByTenth[i], tenths[i], i);
}

// The library's pages become the model's, after a refusal of which only this is certain: that the count is theirs, and
// that a page which was rebuilt or copied holds what it would have held anyway.
void CInterpreter::_Adopt()
{
    std::map<const void *, PNaivePage> known;
    for (const SHeldView &view : m_Views)
        known[view.m_Naive.m_Page->m_Real] = view.m_Naive.m_Page;
    for (const SHeldReader &reader : m_Readers)
        known[reader.m_Naive->m_Real] = reader.m_Naive;
    for (SPair &stream : m_Streams)
    {
        for (const PNaivePage &page : stream.m_Naive->m_Pages)
        {
            if (page->m_Real != null)
                known[page->m_Real] = page;
        }
    }
    for (SPair &stream : m_Streams)
        _AdoptPages(stream, known);
}

void CInterpreter::_AdoptPages(SPair &stream, std::map<const void *, PNaivePage> &known)
{
    CNaiveStream &naive = *stream.m_Naive;
    std::vector<PNaivePage> pages;
    for (u32 i = 0; i < stream.m_Real->PageCount(); ++i)
    {
        const CParticlePage &real = *stream.m_Real->_UnsafePage(CGuid(i));
        const bool isAsTold = std::any_of(naive.m_Pages.begin(), naive.m_Pages.end(),
                                          [&](const PNaivePage &page) { return HoldsSameRows(*page, real); });
        if (m_Adoption == EAdoption::Pages)
            _Differ("a page that survived a refusal", isAsTold, true);
        PNaivePage &page = known[&real];
        if (page == null)
        {
            page = std::make_shared<CNaivePage>(m_World, real.Capacity(), real.RawPage()->Size());
            page->m_Touched = page->m_Capacity;
            page->m_Parent = stream.m_Real.get();
            page->m_Constants = naive.m_Constants;
            for (const SNaiveField &field : naive.m_Loan->m_Fields)
                page->m_Columns.push_back({field, null, {}});
        }
        page->m_Unknown.clear();
        page->SetCount(real.ParticleCount());
        for (u32 j = 0; j < page->m_Columns.size(); ++j)
        {
            if (page->m_Columns[j].m_Field.m_Size == 0)
                page->m_Columns[j].m_Constant = real.Stream(CGuid(j)).m_RawDataPtr;
            page->Forget(j, 0);
        }
        pages.push_back(page);
    }
    naive.m_Pages.swap(pages);
    naive.m_Count = naive.RowSum();
    const CScopedPagesLock lock(*stream.m_Real);
    stream.m_Real->ComputePendingResizes_NoLock();
    naive.Recount();
}

} // namespace Model
} // namespace Tessaly
