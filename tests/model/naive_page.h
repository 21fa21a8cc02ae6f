// A page of the model: a plain vector of bytes for each column.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "naive_definition.h"

namespace Tessaly::Model
{

class CNaivePage;

// What the model's streams and pages share.
struct SNaiveWorld
{
    // Adds a report of the failed check unless the condition holds, which is returned.
    bool Check(bool holds, const char *text)
    {
        if (!holds)
            m_Reports.push_back(text);
        return holds;
    }

    std::vector<std::string> m_Reports;        // that the library has to make in this operation
    std::set<CNaivePage *> m_Pages;            // all that exist: each has one block
    u64 m_BlockBytes = 0;                      // in use
    u64 m_Budget = 0;                          // for these; 0: none
    u64 m_ServedCount = 0, m_RefusedCount = 0; // requests for blocks
    std::function<void()> m_AtPageMade = [] {};
};

struct SNaiveColumn
{
    SParticleStreamFieldDef m_Field;
    const u8 *m_Constant;
    std::vector<u8> m_Bytes; // of all slots, up to the column's end
};

class CNaivePage : public CNonCopyable, public std::enable_shared_from_this<CNaivePage>
{
public:
    CNaivePage(SNaiveWorld &world, u32 capacity, u64 blockBytes)
        : m_World(world)
        , m_Capacity(capacity)
        , m_BlockBytes(blockBytes)
    {
        m_World.m_Pages.insert(this);
        m_World.m_BlockBytes += m_BlockBytes;
    }
    ~CNaivePage()
    {
        m_World.m_Pages.erase(this);
        m_World.m_BlockBytes -= m_BlockBytes;
    }

    // With slots that were never used.
    void AddColumn(const SParticleStreamFieldDef &field, const u8 *constant)
    {
        const u64 bytes = (u64(field.m_StorageSize) * m_Capacity + 15) / 16 * 16;
        m_Columns.push_back({field, constant, std::vector<u8>(bytes, 0xF3)});
    }
    u32 Free() const { return m_Capacity - m_Count; }
    bool IsWritable() const { return m_ReaderCount == 0; }
    size_t RowBytes(u32 column) const { return m_Columns[column].m_Field.m_StorageSize; }
    size_t LiveBytes(u32 column) const { return RowBytes(column) * m_Count; }
    u8 *Row(u32 column, u32 row) { return m_Columns[column].m_Bytes.data() + RowBytes(column) * row; } // its first byte

    SNaiveWorld &m_World;
    const u32 m_Capacity;
    const u64 m_BlockBytes;
    u32 m_Count = 0;
    u32 m_ReaderCount = 0;
    std::vector<SNaiveColumn> m_Columns;
    PNaiveDefinition m_Constants; // keeps alive what the columns point at
    const void *m_Parent = null;
    const void *m_Real = null; // the library's page, once it has been seen
};

using PNaivePage = std::shared_ptr<CNaivePage>;

struct SNaiveView
{
    PNaivePage m_Page;
    u32 m_First = 0;
    u32 m_Count = 0;
};

} // namespace Tessaly::Model
