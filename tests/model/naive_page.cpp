#include "naive_page.h"

#include <algorithm>
#include <cstring>

namespace Tessaly
{
namespace Model
{

namespace
{

constexpr u8 kFresh = 0xF3;

void CopyColumn(CNaivePage &dst, u32 column, u32 dstStart, const CNaivePage &src, u32 start, u32 count)
{
    const bool isAlive = u64(start) + count <= src.m_Count;
    if (src.m_Columns[column].m_Field.m_Size != dst.m_Columns[column].m_Field.m_Size || !isAlive)
        dst.Forget(column, dstStart);
    else
        dst.Overwrite(column, dstStart, std::vector<u8>(src.Row(column, start), src.Row(column, start + count)).data(),
                      count);
}

// Takes slots and copies into them, unless the range lies outside src or dst refuses.
bool CopyRun(CNaivePage &dst, const CNaivePage &src, u32 start, u32 count, bool checksConstants)
{
    SNaiveWorld &world = dst.m_World;
    if (u64(start) + count > src.m_Capacity)
    {
        world.m_AnyReports = true;
        return false;
    }
    if (!world.Check(count <= dst.Free() && dst.IsWritable(), "dstStartId.Valid() && dst.PrepareForWriting()"))
        return false;
    const u32 dstStart = dst.m_Count;
    dst.Append(count);
    for (u32 i = 0; i < std::min(src.m_Columns.size(), dst.m_Columns.size()); ++i)
    {
        const bool isStored = dst.m_Columns[i].m_Field.m_Size != 0;
        if (isStored || checksConstants)
            world.Check(src.m_Columns[i].m_Field == dst.m_Columns[i].m_Field,
                        "srcField.m_Definition == dstField.m_Definition");
        if (isStored)
            CopyColumn(dst, i, dstStart, src, start, count);
    }
    return true;
}

} // namespace

CNaivePage::CNaivePage(SNaiveWorld &world, u32 capacity, u64 blockBytes)
    : m_World(world)
    , m_Capacity(capacity)
    , m_BlockBytes(blockBytes)
{
    m_World.m_BlockBytes += blockBytes;
    ++m_World.m_BlockCount;
}

CNaivePage::~CNaivePage()
{
    m_World.m_BlockBytes -= m_BlockBytes;
    --m_World.m_BlockCount;
}

void CNaivePage::SetCount(u32 count)
{
    m_Count = count;
    m_Touched = std::max(m_Touched, count);
    for (SNaiveColumn &column : m_Columns)
        column.m_Rows.resize(size_t(column.m_Field.m_Size) * count, kFresh);
}

void CNaivePage::Append(u32 count)
{
    const u32 first = m_Count, recycledEnd = std::min(m_Touched, m_Count + count);
    SetCount(m_Count + count);
    for (u32 i = 0; first < recycledEnd && i < m_Columns.size(); ++i)
        m_Unknown.push_back({i, first, recycledEnd - first});
}

const u8 *CNaivePage::Row(u32 column, u32 row) const
{
    return m_Columns[column].m_Rows.data() + size_t(m_Columns[column].m_Field.m_Size) * row;
}

u8 *CNaivePage::Row(u32 column, u32 row)
{
    return m_Columns[column].m_Rows.data() + size_t(m_Columns[column].m_Field.m_Size) * row;
}

void CNaivePage::Overwrite(u32 column, u32 first, const u8 *rows, u32 count)
{
    const size_t bytes = size_t(m_Columns[column].m_Field.m_Size) * count;
    if (bytes != 0)
        std::memcpy(Row(column, first), rows, bytes);
    m_Unknown.erase(std::remove_if(m_Unknown.begin(), m_Unknown.end(),
                                   [=](const SUnknownRows &unknown)
                                   { return unknown.m_Column == column && unknown.m_First >= first; }),
                    m_Unknown.end());
}

void CNaivePage::Forget(u32 column, u32 first) { m_Unknown.push_back({column, first, m_Count - first}); }

bool CopySubRange(CNaivePage &dst, const CNaivePage &src, u32 start, u32 count)
{
    dst.m_World.Check(count <= dst.Free(), "transferCount <= dst.Capacity() - dst.ParticleCount()");
    return count == 0 || CopyRun(dst, src, start, count, true);
}

bool CopyPage(CNaivePage &dst, const SNaiveView &src)
{
    dst.m_World.Check(src.m_Count <= dst.Free(), "src.ParticleCount() <= dst.Capacity() - dst.ParticleCount()");
    return src.m_Count == 0 || dst.m_Columns.empty() || CopyRun(dst, *src.m_Page, src.m_First, src.m_Count, false);
}

u32 Transfer(CNaivePage &dst, const SNaiveView &src, u32 start)
{
    if (start > src.m_Count)
        return start;
    const u32 count = std::min(src.m_Count - start, dst.Free());
    if (count == 0 || !CopySubRange(dst, *src.m_Page, src.m_First + start, count))
        return start;
    return start + count;
}

} // namespace Model
} // namespace Tessaly
