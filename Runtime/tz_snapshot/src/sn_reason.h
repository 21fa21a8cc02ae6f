// Why an operation fails, in words; and memory for one that may be refused.
#pragma once

#include <tz_kernel/include/kr_mem.h>

namespace Tessaly
{
namespace Snapshot
{

// The first thing that went wrong.
class CReason : public CNonCopyable
{
public:
    // Keeps the text unless there is one. Returns false, which is what the caller returns then.
    bool Set(const char *format, ...) TZ_PRINTF_FORMAT(2, 3);
    bool Empty() const { return m_Text[0] == 0; }
    const char *Text() const { return m_Text; }

private:
    char m_Text[256] = {};
};

// A number as people write it: 1,200.
struct SNumberText
{
    char m_Text[28];

    explicit SNumberText(u64 number);
};

// Bytes of the memory services, freed with the object.
class CBytes : public CNonCopyable
{
public:
    CBytes() = default;
    ~CBytes() { _Free(); }

    // Asks for so many bytes in place of those it has. False when they are refused.
    bool Alloc(u64 byteCount, CReason &reason);
    u8 *Data() const { return m_Data; }

private:
    void _Free();

    u8 *m_Data = null;
};

} // namespace Snapshot
} // namespace Tessaly
