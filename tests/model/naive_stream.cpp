#include "naive_stream.h"

#include <algorithm>
#include <cstring>

#include "naive_types.h"

namespace Tessaly
{
namespace Model
{

namespace
{

constexpr u32 kNone = 0xFFFFFFFF;
constexpr u32 kBlockCap = 1048576;

// Blocks come in sizes of 4, 5, 6 and 7 times a power of two, from 512 bytes to the cap.
u64 BlockBytes(u32 bytes)
{
    for (u64 unit = 128; bytes <= kBlockCap; unit *= 2)
    {
        for (u64 i = 4; i < 8; ++i)
        {
            if (unit * i >= bytes)
                return unit * i;
        }
    }
    return bytes;
}

} // namespace

CNaiveStream::CNaiveStream(SNaiveWorld &world, const void *real, u32 pageSize)
    : m_World(world)
    , m_Real(real)
    , m_PageSize(pageSize == 0 ? 1024 : pageSize)
{
}

u32 CNaiveStream::RowSum() const
{
    u32 sum = 0;
    for (const PNaivePage &page : m_Pages)
        sum += page->m_Count;
    return sum;
}

u32 CNaiveStream::PageBytes(u32 capacity, const SLoan &loan)
{
    u32 sum = 0;
    for (const SNaiveField &field : loan.m_Fields)
        sum += (field.m_Size * capacity + 15u) / 16u * 16u;
    return sum;
}

u64 CNaiveStream::TruePageBytes(u32 capacity, const SLoan &loan)
{
    u64 sum = 0;
    for (const SNaiveField &field : loan.m_Fields)
        sum += (u64(field.m_Size) * capacity + 15u) / 16u * 16u;
    return sum;
}

void CNaiveStream::Clear()
{
    CheckCount();
    for (const PNaivePage &page : m_Pages)
        page->SetCount(0);
    m_Pages.clear();
    m_Count = 0;
    m_OutOfSync = 0;
    CheckCount();
}

void CNaiveStream::Cleanup()
{
    CheckCount();
    m_Count = 0;
    m_OutOfSync = 0;
    m_Pages.clear();
    CheckCount();
}

void CNaiveStream::Swap(CNaiveStream &other)
{
    CheckCount();
    m_World.Check(this != &other, "other.m_PagesLocked == 0");
    std::swap(m_PageSize, other.m_PageSize);
    std::swap(m_PageBytes, other.m_PageBytes);
    std::swap(m_Loan, other.m_Loan);
    std::swap(m_Count, other.m_Count);
    m_Pages.swap(other.m_Pages);
    std::swap(m_OutOfSync, other.m_OutOfSync);
    for (const PNaivePage &page : m_Pages)
        page->m_Parent = m_Real;
    for (const PNaivePage &page : other.m_Pages)
        page->m_Parent = other.m_Real;
    CheckCount();
}

bool CNaiveStream::_Clamp()
{
    const u64 trueBytes = TruePageBytes(m_PageSize, *m_Loan);
    if (m_PageBytes == 0 || trueBytes <= kBlockCap)
        return false;
    const u64 maxCount = kBlockCap / (trueBytes / m_PageSize);
    m_PageSize = 1;
    while (u64(m_PageSize) * 2 <= maxCount)
        m_PageSize *= 2;
    m_PageBytes = PageBytes(m_PageSize, *m_Loan);
    m_World.Check(m_PageBytes <= kBlockCap, "m_PageSizeInBytes <= kMaxAllocSize");
    m_World.Check(m_PageBytes != 0, "m_PageSizeInBytes != 0");
    return true;
}

void CNaiveStream::SetPageSize(u32 size)
{
    if (m_PageSize == size)
        return;
    m_World.Check(m_Pages.empty() || _SlotCount() == m_Loan->m_Fields.size(),
                  "m_Pages.Empty() || m_ConstantDataFieldSlot.Count() == m_StreamDef->m_StreamDef.Count()");
    CheckCount();
    m_PageSize = size == 0 ? 1024 : size;
    if (m_Loan != null)
    {
        m_World.Check(PageBytes(size, *m_Loan) != 0 || m_Loan->m_Fields.empty(),
                      "m_PageSizeInBytes != 0 || m_StreamDef->Empty()");
        m_PageBytes = PageBytes(m_PageSize, *m_Loan);
        _Clamp();
    }
    m_OutOfSync = 0;
    for (const PNaivePage &page : m_Pages)
        m_OutOfSync += page->m_Capacity != m_PageSize ? 1 : 0;
    CheckCount();
}

u32 CNaiveStream::_Slot(u32 field)
{
    if (field < _SlotCount())
        return m_Constants->Slot(field);
    m_World.Check(m_Constants != null && m_Constants->m_HasSlots, "m_Storage.m_RawDataPtr != null");
    m_World.Check(false, "index < m_Storage.m_Count");
    return kNone;
}

PNaivePage CNaiveStream::AllocNewPage(u32 capacity, u32 bytes, bool isListed)
{
    if (m_Loan == null)
        return null;
    const u64 blockBytes = BlockBytes(bytes);
    if (m_World.m_Budget != 0 && m_World.m_BlockBytes + blockBytes > m_World.m_Budget)
    {
        ++m_World.m_RefusedCount;
        return null;
    }
    ++m_World.m_TakenCount;
    const bool isSlotCountRight = _SlotCount() == m_Loan->m_Fields.size();
    if (TruePageBytes(capacity, *m_Loan) > blockBytes)
    {
        m_World.m_AnyReports = m_World.m_AnyReports || !isSlotCountRight;
        return null;
    }
    m_World.Check(isSlotCountRight, "m_ConstantDataFieldSlot.Count() == streamDef.Count()");
    const PNaivePage page = std::make_shared<CNaivePage>(m_World, capacity, blockBytes);
    if (m_World.m_AtPageMade)
        m_World.m_AtPageMade();
    page->m_Parent = m_Real;
    page->m_Constants = m_Constants;
    for (u32 i = 0; i < m_Loan->m_Fields.size(); ++i)
    {
        page->m_Columns.push_back({m_Loan->m_Fields[i], null, {}});
        const u32 slot = m_Loan->m_Fields[i].m_Size == 0 ? _Slot(i) : kNone;
        if (slot != kNone && m_World.Check(slot < _ConstantCount(), "cstId < m_ConstantData.Count()"))
            page->m_Columns[i].m_Constant = m_Constants->Constant(slot);
    }
    if (isListed)
        m_Pages.push_back(page);
    return page;
}

u32 CNaiveStream::StreamId(u32 name)
{
    CheckCount();
    if (!m_World.Check(m_Loan != null, "m_StreamDef != null") || name == 0)
        return kNone;
    for (u32 i = 0; i < m_Loan->m_Fields.size(); ++i)
    {
        if (m_Loan->m_Fields[i].m_Name == name)
            return i;
    }
    return kNone;
}

SNaiveView CNaiveStream::AllocateIfPossible(u32 wishedCount, u32 minCountHint)
{
    const u32 minCount = minCountHint == 0 || minCountHint > wishedCount ? wishedCount : minCountHint;
    CheckCount();
    PNaivePage page;
    for (const PNaivePage &candidate : m_Pages)
    {
        if (page == null && candidate->Free() >= minCount)
            page = candidate;
    }
    if (page == null)
        page = AllocNewPage(m_PageSize, m_PageBytes, true);
    SNaiveView view;
    if (page != null)
    {
        view = {page, page->m_Count, std::min(page->Free(), wishedCount)};
        page->Append(view.m_Count);
        m_Count += view.m_Count;
    }
    CheckCount();
    return view;
}

void CNaiveStream::RegisterDeadCount(u32 count)
{
    m_Count -= count;
    CheckCount();
    m_World.Check(s32(m_Count) >= 0, "s32(m_ParticleCount.Load()) >= 0");
}

void CNaiveStream::RegisterBornCount(u32 count)
{
    m_Count += count;
    CheckCount();
}

void CNaiveStream::Recount()
{
    m_OutOfSync = 0;
    for (const PNaivePage &page : m_Pages)
        m_OutOfSync += page->m_Count != 0 && page->m_Capacity != m_PageSize ? 1 : 0;
}

struct CNaiveStream::SPass
{
    u32 m_MaxPageCount;
    u32 m_StartedCount = 0, m_OldSum = 0, m_NewSum = 0;
    u32 m_Index = 0; // where the search for the next old page goes on
    u32 m_Start = 0; // first particle of the old page that waits
    PNaivePage m_Old;
    std::vector<PNaivePage> m_LeftOut; // destinations that refused
};

PNaivePage CNaiveStream::_Destination(const SPass &pass)
{
    for (size_t i = m_Pages.size(); i-- > 0;)
    {
        const PNaivePage &page = m_Pages[i];
        const bool isLeftOut = std::find(pass.m_LeftOut.begin(), pass.m_LeftOut.end(), page) != pass.m_LeftOut.end();
        if (page->m_Capacity == m_PageSize && page->Free() >= 64 && !isLeftOut)
            return page;
    }
    return AllocNewPage(m_PageSize, m_PageBytes, true);
}

bool CNaiveStream::_TakeOldPage(SPass &pass)
{
    for (size_t seen = 0; seen <= m_Pages.size() && !m_Pages.empty(); ++seen)
    {
        if (m_Pages[pass.m_Index]->m_Capacity != m_PageSize)
        {
            pass.m_Old = m_Pages[pass.m_Index];
            m_Pages.erase(m_Pages.begin() + pass.m_Index);
            m_World.Check(m_OutOfSync > 0, "m_PageCount_OutOfSync > 0");
            --m_OutOfSync;
        }
        else
            ++pass.m_Index;
        if (pass.m_Index == m_Pages.size())
            pass.m_Index = 0;
        if (pass.m_Old != null)
            return true;
    }
    m_OutOfSync = 0;
    return false;
}

// One step of filling dst; false when there is nothing more to be done with it.
bool CNaiveStream::_MoveInto(SPass &pass, const PNaivePage &dst)
{
    if (pass.m_Old == null)
    {
        if (!_TakeOldPage(pass))
            return false;
        if (pass.m_Old->m_Count != 0)
        {
            ++pass.m_StartedCount;
            pass.m_OldSum += pass.m_Old->m_Count;
        }
        pass.m_Start = 0;
    }
    if (pass.m_Old->m_Count != 0)
    {
        const u32 room = dst->Free(), waiting = pass.m_Old->m_Count - pass.m_Start;
        const u32 end = Transfer(*dst, {pass.m_Old, 0, pass.m_Old->m_Count}, pass.m_Start);
        const u32 moved = end - pass.m_Start;
        m_World.Check(moved == std::min(waiting, room), "actuallyTransferred == TZMin(totalToTransfer, dstSpaceLeft)");
        pass.m_NewSum += moved;
        pass.m_Start = end;
        if (end != pass.m_Old->m_Count)
            m_World.Check(dst->Free() == 0, "dstSpaceLeft == 0");
        if (moved == 0)
        {
            pass.m_LeftOut.push_back(dst);
            return false;
        }
    }
    if (pass.m_Start == pass.m_Old->m_Count)
        pass.m_Old = null;
    return dst->Free() != 0 && (pass.m_Old != null || (pass.m_StartedCount < pass.m_MaxPageCount && m_OutOfSync != 0));
}

void CNaiveStream::ResizePending(u32 maxPageCount)
{
    CheckCount();
    m_World.Check(m_OutOfSync <= m_Pages.size(), "m_PageCount_OutOfSync <= m_Pages.Count()");
    SPass pass;
    pass.m_MaxPageCount = maxPageCount;
    const bool hasWork = maxPageCount != 0 && m_OutOfSync != 0;
    while (hasWork && (pass.m_Old != null || (pass.m_StartedCount < maxPageCount && m_OutOfSync != 0)))
    {
        m_World.Check(m_OutOfSync <= m_Pages.size(), "m_PageCount_OutOfSync <= m_Pages.Count()");
        const bool hasOld = std::any_of(m_Pages.begin(), m_Pages.end(),
                                        [this](const PNaivePage &page) { return page->m_Capacity != m_PageSize; });
        if (pass.m_Old == null && !hasOld)
        {
            m_OutOfSync = 0;
            break;
        }
        const PNaivePage dst = _Destination(pass);
        if (!m_World.Check(dst != null, "newPage != null"))
            break;
        while (_MoveInto(pass, dst))
        {
        }
    }
    if (hasWork)
        m_World.Check(pass.m_OldSum <= m_Count, "oldAccCount <= m_ParticleCount.Load()");
    m_Count -= pass.m_OldSum - pass.m_NewSum;
    pass.m_Old = null;
    CheckCount();
}

void CNaiveStream::DeepCopy(CNaiveStream &other)
{
    CheckCount();
    Cleanup();
    m_Loan = other.m_Loan;
    m_Constants = other.m_Constants;
    m_PageSize = other.m_PageSize;
    m_PageBytes = other.m_PageBytes;
    m_OutOfSync = other.m_OutOfSync;
    m_World.Check(m_Loan != null, "streamDef != null");
    u32 count = 0;
    for (size_t i = 0; i < other.m_Pages.size(); ++i)
    {
        const CNaivePage &src = *other.m_Pages[i];
        if (src.m_Count == 0)
            continue;
        const PNaivePage dst = AllocNewPage(src.m_Capacity, u32(src.m_BlockBytes), true);
        if (dst == null)
            break;
        dst->SetCount(src.m_Count);
        for (u32 j = 0; j < src.m_Columns.size(); ++j)
            dst->m_Columns[j].m_Rows = src.m_Columns[j].m_Rows;
        count += dst->m_Count;
    }
    m_Count = count;
    CheckCount();
}

void CNaiveStream::_RebuildColumn(CNaivePage &page, u32 column, const CNaivePage &old, u32 oldColumn)
{
    const SNaiveField &field = page.m_Columns[column].m_Field;
    if (field.m_Size == 0)
    {
        const u32 slot = _Slot(column);
        if (m_World.Check(slot != kNone && slot < _ConstantCount(), "cstId.Valid() && cstId < m_ConstantData.Count()"))
            page.m_Columns[column].m_Constant = m_Constants->Constant(slot);
        return;
    }
    std::vector<u8> &rows = page.m_Columns[column].m_Rows;
    const bool hasOld = oldColumn != kNone &&
                        (old.m_Columns[oldColumn].m_Field.m_Size != 0 || old.m_Columns[oldColumn].m_Constant != null);
    if (!hasOld)
    {
        std::fill(rows.begin(), rows.end(), u8(0));
        return;
    }
    const SNaiveColumn &from = old.m_Columns[oldColumn];
    const SNaiveType srcType = NaiveType(from.m_Field.m_Type), dstType = NaiveType(field.m_Type);
    if (from.m_Field.m_Size == field.m_Size && srcType.IsFp() == dstType.IsFp())
    {
        rows = from.m_Rows;
        return;
    }
    if (srcType.Bytes() < dstType.Bytes())
        std::fill(rows.begin(), rows.end(), u8(0));
    const bool isConstant = from.m_Field.m_Size == 0;
    for (u32 i = 0; i < page.m_Count; ++i)
        ConvertRow(srcType, isConstant ? from.m_Constant : old.Row(oldColumn, i),
                   isConstant ? u32(sizeof(S64Bytes)) : from.m_Field.m_Size, dstType, page.Row(column, i),
                   field.m_Size);
}

void CNaiveStream::_RebuildPages(const std::vector<u32> &remap)
{
    u32 count = 0;
    for (size_t i = 0; i < m_Pages.size();)
    {
        const PNaivePage old = m_Pages[i];
        PNaivePage page;
        if (old->m_Count != 0)
            page = AllocNewPage(old->m_Capacity, PageBytes(old->m_Capacity, *m_Loan), false);
        if (page == null)
        {
            m_Pages[i] = m_Pages.back();
            m_Pages.pop_back();
            continue;
        }
        m_Pages[i] = page;
        page->SetCount(old->m_Count);
        for (u32 j = 0; j < page->m_Columns.size(); ++j)
            _RebuildColumn(*page, j, *old, remap[j]);
        count += page->m_Count;
        ++i;
    }
    m_Count = count;
}

void CNaiveStream::Bind(const PLoan &loan, const PLoan &constants)
{
    CheckCount();
    if (!m_World.Check(loan != null, "def != null") || loan == m_Loan)
        return;
    m_Constants = constants;
    m_World.Check(_SlotCount() == loan->m_Fields.size(), "m_ConstantDataFieldSlot.Count() == def->m_StreamDef.Count()");
    std::vector<u32> remap(loan->m_Fields.size(), kNone);
    for (size_t i = 0; m_Loan != null && i < std::min(remap.size(), size_t(256)); ++i)
    {
        for (u32 j = 0; remap[i] == kNone && j < std::min(m_Loan->m_Fields.size(), size_t(255)); ++j)
            remap[i] = loan->m_Fields[i].m_Name == m_Loan->m_Fields[j].m_Name ? j : kNone;
    }
    const PLoan oldLoan = m_Loan;
    m_PageBytes = PageBytes(m_PageSize, *loan);
    m_World.Check(m_PageBytes != 0 || loan->m_Fields.empty(), "m_PageSizeInBytes != 0 || def->Empty()");
    m_Loan = loan;
    if (_Clamp())
        Cleanup();
    else if (!m_Pages.empty())
        _RebuildPages(remap);
    CheckCount();
}

void CNaiveStream::Collect(std::vector<u32> *reindexer)
{
    m_World.Check(reindexer == null || reindexer->size() == m_Pages.size(),
                  "pageReindexer == null || pageReindexer->Count() == m_Pages.Count()");
    CheckCount();
    std::vector<u32> formerIndices(m_Pages.size());
    for (u32 i = 0; i < formerIndices.size(); ++i)
        formerIndices[i] = i;
    for (size_t i = 0; i < m_Pages.size();)
    {
        if (m_Pages[i]->m_Count != 0)
        {
            ++i;
            continue;
        }
        m_Pages[i] = m_Pages.back();
        m_Pages.pop_back();
        formerIndices[i] = formerIndices.back();
        formerIndices.pop_back();
    }
    CheckCount();
    if (reindexer == null)
        return;
    std::fill(reindexer->begin(), reindexer->end(), kNone);
    for (u32 i = 0; i < formerIndices.size(); ++i)
    {
        if (formerIndices[i] < reindexer->size())
            (*reindexer)[formerIndices[i]] = i;
    }
}

} // namespace Model
} // namespace Tessaly
