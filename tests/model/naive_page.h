// A page as the model has it: rows of bytes in plain vectors, one vector a column.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "loan.h"

namespace Tessaly
{
namespace Model
{

// What the model's streams and pages share: the reports that the library should make, and the block bytes in use.
struct SNaiveWorld
{
    std::vector<std::string> m_Reports;
    bool m_AnyReports = false; // what is reported now is not told
    u64 m_BlockBytes = 0, m_BlockCount = 0;
    u64 m_TakenCount = 0, m_RefusedCount = 0; // requests for blocks that were served, and that the budget refused
    u64 m_Budget = 0;                         // 0: none
    std::function<void()> m_AtPageMade;
    bool Check(bool holds, const char *text)
    {
        if (!holds)
            m_Reports.push_back(text);
        return holds;
    }
};

struct SNaiveColumn
{
    SNaiveField m_Field;
    const u8 *m_Constant = null;
    std::vector<u8> m_Rows;
};

// Rows that hold what nobody tells: slots that were in use before, and copies between unlike columns.
struct SUnknownRows
{
    u32 m_Column, m_First, m_Count;
};

class CNaivePage : public CNonCopyable
{
public:
    CNaivePage(SNaiveWorld &world, u32 capacity, u64 blockBytes);
    ~CNaivePage();

    u32 Free() const { return m_Capacity - m_Count; }
    bool IsWritable() const { return m_ReaderCount == 0; }
    // New slots: fresh where no particle has been, unknown elsewhere.
    void Append(u32 count);
    void SetCount(u32 count); // as Append, without a thought for the rows
    // Of one row, counted from the page's first particle.
    const u8 *Row(u32 column, u32 row) const;
    u8 *Row(u32 column, u32 row);
    // Rows of src over rows of one column, which are then known.
    void Overwrite(u32 column, u32 first, const u8 *rows, u32 count);
    // Marks all rows from first on as unknown, in one column.
    void Forget(u32 column, u32 first);

    SNaiveWorld &m_World;
    const u32 m_Capacity;
    const u64 m_BlockBytes;
    u32 m_Count = 0;
    u32 m_Touched = 0; // rows from here on are as they were made
    u32 m_ReaderCount = 0;
    std::vector<SNaiveColumn> m_Columns;
    std::vector<SUnknownRows> m_Unknown;
    PLoan m_Constants; // keeps alive what the columns point at
    const void *m_Parent = null;
    const void *m_Real = null; // the page of the library, once it has been seen
};

using PNaivePage = std::shared_ptr<CNaivePage>;

struct SNaiveView
{
    PNaivePage m_Page;
    u32 m_First = 0;
    u32 m_Count = 0;
};

bool CopySubRange(CNaivePage &dst, const CNaivePage &src, u32 start, u32 count);
bool CopyPage(CNaivePage &dst, const SNaiveView &src);
u32 Transfer(CNaivePage &dst, const SNaiveView &src, u32 start);

} // namespace Model
} // namespace Tessaly
