#include "naive_stream.h"

#include <algorithm>

namespace Tessaly::Model
{

constexpr u32 kNone = 0xFFFFFFFF;
constexpr u32 kMaxBlockBytes = 1048576; // of a block that is recycled

// Blocks come in sizes of 4, 5, 6 and 7 times a power of two, from 512 bytes to the largest; beyond it in any.
static u64 BlockBytes(u32 bytes)
{
    for (u64 unit = 128; bytes <= kMaxBlockBytes; unit *= 2)
    {
        for (u64 i = 4; i < 8; ++i)
        {
            if (unit * i >= bytes)
                return unit * i;
        }
    }
    return bytes;
}

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

u64 CNaiveStream::TruePageBytes(u32 capacity, const SNaiveDefinition &definition)
{
    u64 sum = 0;
    for (const SParticleStreamFieldDef &field : definition.m_Fields)
        sum += (u64(field.m_StorageSize) * capacity + 15u) / 16u * 16u;
    return sum;
}

void CNaiveStream::Clear()
{
    const std::vector<PNaivePage> pages = m_Pages;
    Cleanup();
    for (const PNaivePage &page : pages)
        page->m_Count = 0;
}

void CNaiveStream::Cleanup()
{
    _CheckCount();
    m_Pages.clear();
    m_Count = 0;
    m_OutOfSync = 0;
}

void CNaiveStream::Swap(CNaiveStream &other)
{
    _CheckCount();
    m_World.Check(this != &other, "other.m_PagesLocked == 0");
    std::swap(m_PageSize, other.m_PageSize);
    std::swap(m_PageBytes, other.m_PageBytes);
    std::swap(m_Definition, other.m_Definition);
    std::swap(m_Count, other.m_Count);
    std::swap(m_OutOfSync, other.m_OutOfSync);
    m_Pages.swap(other.m_Pages);
    for (const PNaivePage &page : m_Pages)
        page->m_Parent = m_Real;
    for (const PNaivePage &page : other.m_Pages)
        page->m_Parent = other.m_Real;
    _CheckCount();
}

// Lowers a page size whose block could not be recycled to a power of two.
bool CNaiveStream::_Clamp()
{
    const u64 trueBytes = TruePageBytes(m_PageSize, *m_Definition);
    if (m_PageBytes == 0 || trueBytes <= kMaxBlockBytes)
        return false;
    const u64 maxCount = kMaxBlockBytes / (trueBytes / m_PageSize);
    m_PageSize = 1;
    while (u64(m_PageSize) * 2 <= maxCount)
        m_PageSize *= 2;
    m_PageBytes = PageBytes(m_PageSize, *m_Definition);
    m_World.Check(m_PageBytes <= kMaxBlockBytes, "m_PageSizeInBytes <= kMaxAllocSize");
    m_World.Check(m_PageBytes != 0, "m_PageSizeInBytes != 0");
    return true;
}

void CNaiveStream::SetPageSize(u32 size)
{
    if (m_PageSize == size)
        return;
    m_World.Check(m_Pages.empty() || m_Constants->m_SlotCount == m_Definition->m_Fields.size(),
                  "m_Pages.Empty() || m_ConstantDataFieldSlot.Count() == m_StreamDef->m_StreamDef.Count()");
    _CheckCount();
    m_PageSize = size == 0 ? 1024 : size;
    if (m_Definition != null)
    {
        m_World.Check(PageBytes(size, *m_Definition) != 0 || m_Definition->m_Fields.empty(),
                      "m_PageSizeInBytes != 0 || m_StreamDef->Empty()");
        m_PageBytes = PageBytes(m_PageSize, *m_Definition);
        _Clamp();
    }
    m_OutOfSync = 0;
    for (const PNaivePage &page : m_Pages)
        m_OutOfSync += page->m_Capacity != m_PageSize ? 1 : 0;
    _CheckCount();
}

u32 CNaiveStream::_Slot(u32 field)
{
    if (field < m_Constants->m_SlotCount)
        return m_Constants->Slot(field);
    m_World.Check(m_Constants->m_HasSlots, "m_Storage.m_RawDataPtr != null");
    m_World.Check(false, "index < m_Storage.m_Count");
    return kNone;
}

PNaivePage CNaiveStream::AllocNewPage(u32 capacity, bool isListed)
{
    if (m_Definition == null)
        return null;
    const u64 blockBytes = BlockBytes(PageBytes(capacity, *m_Definition));
    if (m_World.m_Budget != 0 && m_World.m_BlockBytes + blockBytes > m_World.m_Budget)
    {
        ++m_World.m_RefusedCount;
        return null;
    }
    ++m_World.m_ServedCount;
    if (TruePageBytes(capacity, *m_Definition) > blockBytes)
        return null;
    m_World.Check(m_Constants->m_SlotCount == m_Definition->m_Fields.size(),
                  "m_ConstantDataFieldSlot.Count() == streamDef.Count()");
    PNaivePage page = std::make_shared<CNaivePage>(m_World, capacity, blockBytes);
    m_World.m_AtPageMade();
    page->m_Parent = m_Real;
    page->m_Constants = m_Constants;
    for (const SParticleStreamFieldDef &field : m_Definition->m_Fields)
    {
        const u32 slot = field.m_StorageSize == 0 ? _Slot(u32(page->m_Columns.size())) : kNone;
        const bool hasConstant =
            slot != kNone && m_World.Check(slot < m_Constants->m_Constants.size(), "cstId < m_ConstantData.Count()");
        page->AddColumn(field, hasConstant ? m_Constants->Constant(slot) : null);
    }
    if (isListed)
        m_Pages.push_back(page);
    return page;
}

u32 CNaiveStream::StreamId(u32 name)
{
    _CheckCount();
    if (!m_World.Check(m_Definition != null, "m_StreamDef != null") || name == 0)
        return kNone;
    for (u32 i = 0; i < m_Definition->m_Fields.size(); ++i)
    {
        if (m_Definition->m_Fields[i].m_NameGUID.m_Id == name)
            return i;
    }
    return kNone;
}

SNaiveView CNaiveStream::AllocateParticlesIFP(u32 wishedCount, u32 minCountHint)
{
    const u32 minCount = minCountHint == 0 || minCountHint > wishedCount ? wishedCount : minCountHint;
    _CheckCount();
    const auto found = std::find_if(m_Pages.begin(), m_Pages.end(),
                                    [&](const PNaivePage &candidate) { return candidate->Free() >= minCount; });
    const PNaivePage page = found != m_Pages.end() ? *found : AllocNewPage(m_PageSize, true);
    SNaiveView view;
    if (page != null)
    {
        view = {page, page->m_Count, std::min(page->Free(), wishedCount)};
        page->m_Count += view.m_Count;
        m_Count += view.m_Count;
    }
    _CheckCount();
    return view;
}

void CNaiveStream::RegisterDeadCount(u32 count)
{
    RegisterBornCount(0 - count);
    m_World.Check(s32(m_Count) >= 0, "s32(m_ParticleCount.Load()) >= 0");
}

void CNaiveStream::RegisterBornCount(u32 count)
{
    m_Count += count;
    _CheckCount();
}

// Takes slots and copies into them, unless the range lies outside src or dst refuses.
static bool CopyRows(CNaivePage &dst, CNaivePage &src, u32 start, u32 count, bool checksConstants)
{
    SNaiveWorld &world = dst.m_World;
    if (u64(start) + count > src.m_Capacity ||
        !world.Check(count <= dst.Free() && dst.IsWritable(), "dstStartId.Valid() && dst.PrepareForWriting()"))
        return false;
    for (u32 i = 0; i < std::min(src.m_Columns.size(), dst.m_Columns.size()); ++i)
    {
        const SParticleStreamFieldDef &srcField = src.m_Columns[i].m_Field, &dstField = dst.m_Columns[i].m_Field;
        if (dstField.m_StorageSize != 0 || checksConstants)
            world.Check(srcField == dstField, "srcField.m_Definition == dstField.m_Definition");
        std::copy_n(src.Row(i, start), std::min(src.RowBytes(i), dst.RowBytes(i)) * count, dst.Row(i, dst.m_Count));
    }
    dst.m_Count += count;
    return true;
}

bool CNaiveStream::CopySubRangeToPage(CNaivePage &dst, CNaivePage &src, u32 start, u32 count)
{
    dst.m_World.Check(count <= dst.Free(), "transferCount <= dst.Capacity() - dst.ParticleCount()");
    return count == 0 || CopyRows(dst, src, start, count, true);
}

bool CNaiveStream::CopyPageToPage(CNaivePage &dst, const SNaiveView &src)
{
    dst.m_World.Check(src.m_Count <= dst.Free(), "src.ParticleCount() <= dst.Capacity() - dst.ParticleCount()");
    return src.m_Count == 0 || dst.m_Columns.empty() || CopyRows(dst, *src.m_Page, src.m_First, src.m_Count, false);
}

u32 CNaiveStream::TransferPageToPage(CNaivePage &dst, const SNaiveView &src, u32 start)
{
    if (start > src.m_Count)
        return start;
    const u32 count = std::min(src.m_Count - start, dst.Free());
    return count != 0 && CopySubRangeToPage(dst, *src.m_Page, src.m_First + start, count) ? start + count : start;
}

void CNaiveStream::ComputePendingResizes_NoLock()
{
    m_OutOfSync = 0;
    for (const PNaivePage &page : m_Pages)
        m_OutOfSync += page->m_Count != 0 && page->m_Capacity != m_PageSize ? 1 : 0;
}

std::vector<PNaivePage>::iterator CNaiveStream::_FirstOldPage()
{
    return std::find_if(m_Pages.begin(), m_Pages.end(),
                        [this](const PNaivePage &page) { return page->m_Capacity != m_PageSize; });
}

// The last page with enough free slots that is not excluded, else a new one.
PNaivePage CNaiveStream::_Destination(const std::set<PNaivePage> &excluded)
{
    for (size_t i = m_Pages.size(); i-- > 0;)
    {
        if (m_Pages[i]->m_Capacity == m_PageSize && m_Pages[i]->Free() >= 64 && excluded.count(m_Pages[i]) == 0)
            return m_Pages[i];
    }
    return AllocNewPage(m_PageSize, true);
}

void CNaiveStream::ResizePending(u32 maxPageCount)
{
    _CheckCount();
    _CheckOutOfSync();
    const bool hasWork = maxPageCount != 0 && m_OutOfSync != 0;
    PNaivePage old, dst; // the page that is being emptied, out of the list, and the one that is being filled
    u32 start = 0;       // the first particle of old that has not been moved
    u32 startedCount = 0, oldSum = 0, newSum = 0;
    std::set<PNaivePage> refusing;
    while (old != null || (startedCount < maxPageCount && m_OutOfSync != 0))
    {
        if (dst == null)
            _CheckOutOfSync();
        if (old == null && _FirstOldPage() == m_Pages.end())
        {
            m_OutOfSync = 0;
            break;
        }
        dst = dst != null ? dst : _Destination(refusing);
        if (!m_World.Check(dst != null, "newPage != null"))
            break;
        if (old == null)
        {
            old = *_FirstOldPage();
            m_Pages.erase(_FirstOldPage());
            --m_OutOfSync;
            startedCount += old->m_Count != 0 ? 1 : 0;
            oldSum += old->m_Count;
            start = 0;
        }
        const u32 wishedCount = std::min(old->m_Count - start, dst->Free());
        const u32 end = TransferPageToPage(*dst, {old, 0, old->m_Count}, start), count = end - start;
        m_World.Check(count == wishedCount, "actuallyTransferred == TZMin(totalToTransfer, dstSpaceLeft)");
        m_World.Check(end == old->m_Count || dst->Free() == 0, "dstSpaceLeft == 0");
        newSum += count;
        start = end;
        if (count != wishedCount)
            refusing.insert(dst);
        if (count != wishedCount || dst->Free() == 0)
            dst = null;
        if (end == old->m_Count)
            old = null;
    }
    if (hasWork)
        m_World.Check(oldSum <= m_Count, "oldAccCount <= m_ParticleCount.Load()");
    m_Count -= oldSum - newSum;
    _CheckCount();
}

void CNaiveStream::DeepCopy(const CNaiveStream &other)
{
    _CheckCount();
    Cleanup();
    m_Definition = other.m_Definition;
    m_Constants = other.m_Constants;
    m_PageSize = other.m_PageSize;
    m_PageBytes = other.m_PageBytes;
    m_OutOfSync = other.m_OutOfSync;
    m_World.Check(m_Definition != null, "streamDef != null");
    for (const PNaivePage &src : other.m_Pages)
    {
        if (src->m_Count == 0)
            continue;
        const PNaivePage dst = AllocNewPage(src->m_Capacity, true);
        if (dst == null)
            break;
        dst->m_Count = src->m_Count;
        for (u32 i = 0; i < src->m_Columns.size(); ++i)
            std::copy_n(src->m_Columns[i].m_Bytes.begin(), src->LiveBytes(i), dst->m_Columns[i].m_Bytes.begin());
    }
    m_Count = RowSum();
}

// Fields are found again by name: 256 of them, among the first 255 of the old ones.
static const SNaiveColumn *OldColumn(const CNaivePage &old, const SNaiveColumn &column, u32 index)
{
    for (u32 i = 0; index < 256 && i < std::min(old.m_Columns.size(), size_t(255)); ++i)
    {
        if (old.m_Columns[i].m_Field.m_NameGUID == column.m_Field.m_NameGUID)
            return &old.m_Columns[i];
    }
    return null;
}

void CNaiveStream::_RebuildColumn(CNaivePage &page, u32 column, const CNaivePage &old)
{
    SNaiveColumn &to = page.m_Columns[column];
    const u32 size = to.m_Field.m_StorageSize;
    if (size == 0)
    {
        const u32 slot = _Slot(column);
        m_World.Check(slot != kNone && slot < m_Constants->m_Constants.size(),
                      "cstId.Valid() && cstId < m_ConstantData.Count()");
        return;
    }
    const SNaiveColumn *from = OldColumn(old, to, column);
    const size_t liveBytes = page.LiveBytes(column);
    if (from == null || (from->m_Field.m_StorageSize == 0 && from->m_Constant == null))
        return void(std::fill_n(to.m_Bytes.begin(), liveBytes, u8(0)));
    const CBaseTypeTraits &srcType = CBaseTypeTraits::Traits(from->m_Field.m_Type);
    const CBaseTypeTraits &dstType = CBaseTypeTraits::Traits(to.m_Field.m_Type);
    if (from->m_Field.m_StorageSize == size && srcType.IsFp == dstType.IsFp)
        return void(std::copy_n(from->m_Bytes.begin(), liveBytes, to.m_Bytes.begin()));
    if (srcType.Size < dstType.Size)
        std::fill_n(to.m_Bytes.begin(), liveBytes, u8(0));
    const u32 stride = from->m_Field.m_StorageSize; // 0: one value for all
    const u8 *src = stride != 0 ? from->m_Bytes.data() : from->m_Constant;
    for (u32 i = 0; i < page.m_Count; ++i)
        ConvertRow(srcType, src + size_t(stride) * i, stride != 0 ? stride : u32(sizeof(S64Bytes)), dstType,
                   page.Row(column, i), size);
}

void CNaiveStream::_RemoveSwapping(size_t index)
{
    m_Pages[index] = m_Pages.back();
    m_Pages.pop_back();
}

void CNaiveStream::_RebuildPages()
{
    for (size_t i = 0; i < m_Pages.size();)
    {
        const PNaivePage old = m_Pages[i], page = old->m_Count != 0 ? AllocNewPage(old->m_Capacity, false) : null;
        if (page == null)
        {
            _RemoveSwapping(i);
            continue;
        }
        m_Pages[i++] = page;
        page->m_Count = old->m_Count;
        for (u32 j = 0; j < page->m_Columns.size(); ++j)
            _RebuildColumn(*page, j, *old);
    }
    m_Count = RowSum();
}

void CNaiveStream::BindStreamDef(const PNaiveDefinition &definition, const PNaiveDefinition &constants)
{
    _CheckCount();
    if (!m_World.Check(definition != null, "def != null") || definition == m_Definition)
        return;
    m_Constants = constants;
    m_World.Check(m_Constants->m_SlotCount == definition->m_Fields.size(),
                  "m_ConstantDataFieldSlot.Count() == def->m_StreamDef.Count()");
    m_Definition = definition;
    m_PageBytes = PageBytes(m_PageSize, *definition);
    m_World.Check(m_PageBytes != 0 || definition->m_Fields.empty(), "m_PageSizeInBytes != 0 || def->Empty()");
    if (_Clamp())
        Cleanup();
    else if (!m_Pages.empty())
        _RebuildPages();
    _CheckCount();
}

void CNaiveStream::GarbageCollectOldPages(std::vector<u32> *reindexer)
{
    m_World.Check(reindexer == null || reindexer->size() == m_Pages.size(),
                  "pageReindexer == null || pageReindexer->Count() == m_Pages.Count()");
    _CheckCount();
    const std::vector<PNaivePage> formerPages = m_Pages;
    for (size_t i = 0; i < m_Pages.size();)
        m_Pages[i]->m_Count != 0 ? void(++i) : _RemoveSwapping(i);
    _CheckCount();
    for (size_t i = 0; reindexer != null && i < reindexer->size(); ++i)
    {
        const auto page =
            i < formerPages.size() ? std::find(m_Pages.begin(), m_Pages.end(), formerPages[i]) : m_Pages.end();
        (*reindexer)[i] = page != m_Pages.end() ? u32(page - m_Pages.begin()) : kNone;
    }
}

} // namespace Tessaly::Model
