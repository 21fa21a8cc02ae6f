// The reason of a failure as a text, and buffers whose memory may be refused.
#pragma once

#include <tz_kernel/include/kr_mem.h>

namespace Tessaly::Snapshot
{

// The reason of the first failure.
class CReason : public CNonCopyable
{
public:
    // Formats the reason, unless there is one already. Returns false, as the failing caller does.
    bool Set(const char *format, ...) TZ_PRINTF_FORMAT(2, 3);
    bool Empty() const { return m_Text[0] == 0; }
    const char *Text() const { return m_Text; }

private:
    char m_Text[256] = {};
};

// A number with separators: 1,200.
struct SNumberText
{
    char m_Text[28];

    explicit SNumberText(u64 number);
};

// A buffer from the memory services, freed by the destructor.
class CBytes : public CNonCopyable
{
public:
    ~CBytes();

    // Allocates the buffer, once. False when memory is refused.
    bool Alloc(u64 byteCount, CReason &reason);
    u8 *Data() const { return m_Data; }

private:
    u8 *m_Data = null;
};

} // namespace Tessaly::Snapshot
