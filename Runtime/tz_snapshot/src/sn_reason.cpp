#include "sn_reason.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace Tessaly::Snapshot
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
    int length = std::snprintf(m_Text, sizeof(m_Text), "%llu", static_cast<unsigned long long>(number));
    for (int i = length - 3; i > 0; i -= 3)
    {
        std::memmove(m_Text + i + 1, m_Text + i, size_t(++length - i));
        m_Text[i] = ',';
    }
}

bool CBytes::Alloc(u64 byteCount, CReason &reason)
{
    m_Data = static_cast<u8 *>(Mem::_RawAlloc(byteCount, 0, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag,
                                              __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE));
    return m_Data != null || reason.Set("%s bytes of memory are refused", SNumberText(byteCount).m_Text);
}

CBytes::~CBytes()
{
    Mem::_RawFree(m_Data, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
}

} // namespace Tessaly::Snapshot
