#include "sn_reason.h"

#include <cstdarg>
#include <cstdio>

namespace Tessaly
{
namespace Snapshot
{

bool CReason::Set(const char *format, ...)
{
    if (Empty())
    {
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(m_Text, sizeof(m_Text), format, arguments);
        va_end(arguments);
    }
    return false;
}

SNumberText::SNumberText(u64 number)
{
    char digits[24];
    const int digitCount = std::snprintf(digits, sizeof(digits), "%llu", static_cast<unsigned long long>(number));
    char *out = m_Text;
    for (int i = 0; i < digitCount; ++i)
    {
        if (i != 0 && (digitCount - i) % 3 == 0)
            *out++ = ',';
        *out++ = digits[i];
    }
    *out = 0;
}

bool CBytes::Alloc(u64 byteCount, CReason &reason)
{
    _Free();
    m_Data = static_cast<u8 *>(Mem::_RawAlloc(byteCount, 0, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag,
                                              __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE));
    return m_Data != null || reason.Set("%s bytes of memory are refused", SNumberText(byteCount).m_Text);
}

void CBytes::_Free()
{
    Mem::_RawFree(m_Data, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
    m_Data = null;
}

} // namespace Snapshot
} // namespace Tessaly
