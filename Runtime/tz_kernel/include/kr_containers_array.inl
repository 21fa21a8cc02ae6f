// Bodies of kr_containers_array.h.
#pragma once

#include "kr_containers_array.h"

namespace Tessaly
{

template <typename _Type, typename _Controller, bool _HasTrivialRelocate>
bool TArray_BaseContainerImpl<_Type, _Controller, _HasTrivialRelocate>::_ReallocBuffer(u32 newMaxCount)
{
    const u64 newBytes = u64(newMaxCount) * sizeof(_Type);
    if (__atomic_load_n(&g_KRContainersConfig_MonitorTArrays, __ATOMIC_RELAXED))
        CContainersMonitorTArrays::RegisterNewMemoryMovement((s64(newMaxCount) - s64(m_MaxCount)) * s64(sizeof(_Type)));

    void *data = Mem::_RawRealloc(m_Data, newBytes, _Controller::Alignment(), Mem::AllocType_Generic, Mem::kDefaultTag,
                                  __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE);
    if (data == null)
    {
        TZ_ASSERT_MESSAGE(false, "could not grow array of TArray<%s> to %d elements (%llu bytes)\n", "", newMaxCount,
                          static_cast<unsigned long long>(newBytes));
        return false;
    }
    m_Data = static_cast<_Type *>(data);
    m_MaxCount = newMaxCount;
    return true;
}

template <typename _Type, typename _BaseImpl>
template <typename _Type1, typename _ContainerType>
class TArray_Base<_Type, _BaseImpl>::TDebugContiguousBaseIterator
    : public TContiguousBaseIterator<_Type1>,
      public TRandomAccessOperators<TDebugContiguousBaseIterator<_Type1, _ContainerType>, _Type1>
{
    using RealType = TContiguousBaseIterator<_Type1>;

public:
    TDebugContiguousBaseIterator(_Type1 *ptr = null, _ContainerType *owner = null)
        : RealType{ptr}
        , m_Owner(owner)
    {
    }
    // From an iterator over mutable elements to one over const elements.
    template <typename _Other, typename _OtherContainer,
              typename = std::enable_if_t<std::is_same<const _Other, _Type1>::value>>
    TDebugContiguousBaseIterator(const TDebugContiguousBaseIterator<_Other, _OtherContainer> &other)
        : TDebugContiguousBaseIterator(other.m_Ptr, other.m_Owner)
    {
    }

    _Type1 &operator*() const
    {
        _CheckDeref();
        return _IsReadable() ? *RealType::m_Ptr : Internal::MissingElement<_Type1>();
    }
    TDebugContiguousBaseIterator &operator+=(std::ptrdiff_t count)
    {
        if (count == 0)
            return *this;
        _Check();
        if (RealType::m_Ptr != null)
            RealType::m_Ptr += count;
        return *this;
    }
    friend std::ptrdiff_t operator-(const TDebugContiguousBaseIterator &a, const TDebugContiguousBaseIterator &b)
    {
        return a.m_Ptr - b.m_Ptr;
    }

    _ContainerType *m_Owner;

private:
    void _CheckBase() const
    {
        TZ_ASSERT(m_Owner != null && RealType::m_Ptr >= m_Owner->_RawBegin() && RealType::m_Ptr <= m_Owner->_RawEnd());
    }
    void _Check() const
    {
        _CheckBase();
        TZ_ASSERT(RealType::m_Ptr != null);
    }
    void _CheckDeref() const
    {
        _Check();
        TZ_ASSERT_TEXT_MESSAGE("RealType::m_Ptr != m_Owner->_RawEnd()",
                               m_Owner == null || RealType::m_Ptr != m_Owner->_RawEnd(),
                               "invalid operation: trying to dereference Iterator::End()");
    }
    bool _IsReadable() const
    {
        return m_Owner != null && RealType::m_Ptr >= m_Owner->_RawBegin() && RealType::m_Ptr < m_Owner->_RawEnd();
    }
};

template <typename _Type, typename _BaseImpl>
template <typename _Other>
CGuid TArray_Base<_Type, _BaseImpl>::PushBack(const _Other &element)
{
    TZ_ASSERT(ureg(&element + 1) <= ureg(BaseImpl::_Data()) ||
              ureg(&element) >= ureg(BaseImpl::_Data() + BaseImpl::_Count()));
    const u32 insertionIndex = BaseImpl::_Count();
    const _Other *source = &element;
    if (insertionIndex >= BaseImpl::_MaxCount())
    {
        const ureg offset = ureg(&element) - ureg(BaseImpl::_Data());
        if (!BaseImpl::_Grow(insertionIndex + 1))
            return CGuid::INVALID;
        if (offset < insertionIndex * sizeof(_Type)) // inside the array: the element moved with the buffer
            source = reinterpret_cast<const _Other *>(reinterpret_cast<const u8 *>(BaseImpl::_Data()) + offset);
    }
    BaseImpl::_SetCount(insertionIndex + 1);
    Mem::Construct<_Type>(BaseImpl::_Data() + insertionIndex, *source);
    return CGuid(insertionIndex);
}

template <typename _Type, typename _BaseImpl>
template <typename _Other>
inline u32 TArray_Base<_Type, _BaseImpl>::PushBackUnsafe(const _Other &element)
{
    TZ_ASSERT(ureg(&element + 1) <= ureg(BaseImpl::_Data()) ||
              ureg(&element) >= ureg(BaseImpl::_Data() + BaseImpl::_Count()));
    const u32 insertionIndex = BaseImpl::_Count();
    TZ_ASSERT(insertionIndex < BaseImpl::_MaxCount());
    if (insertionIndex >= BaseImpl::_MaxCount())
        return CGuid::INVALID;
    BaseImpl::_SetCount(insertionIndex + 1);
    Mem::Construct<_Type>(BaseImpl::_Data() + insertionIndex, element);
    return insertionIndex;
}

template <typename _Type, typename _BaseImpl>
void TArray_Base<_Type, _BaseImpl>::Remove(u32 index)
{
    const u32 oldCount = BaseImpl::_Count();
    TZ_ASSERT(index < oldCount);
    if (index >= oldCount)
        return;
    _Type *data = BaseImpl::_Data();
    RangeDestructor::Destroy(data, index, index + 1);
    BaseImpl::_SetCount(oldCount - 1);
    if (index != oldCount - 1)
        std::memcpy(static_cast<void *>(data + index), static_cast<const void *>(data + oldCount - 1), sizeof(_Type));
}

template <typename _Type, typename _BaseImpl>
void TArray_Base<_Type, _BaseImpl>::Remove_AndKeepOrder(u32 indexStart, u32 indexEnd)
{
    TZ_ASSERT(indexStart < indexEnd);
    TZ_ASSERT(indexEnd <= BaseImpl::_Count());
    const u32 count = BaseImpl::_Count();
    if (indexStart >= indexEnd || indexEnd > count)
        return;
    _Type *data = BaseImpl::_Data();
    RangeDestructor::Destroy(data, indexStart, indexEnd);
    if (count - indexEnd > 0)
        Internal::SRelocationHelper::Relocate_OverlappedCompact(data + indexStart, data + indexEnd, count - indexEnd);
    BaseImpl::_SetCount(count - (indexEnd - indexStart));
}

} // namespace Tessaly
