// Bodies of kr_containers_array.h.
#pragma once

#include "kr_containers_array.h"

namespace Tessaly
{

template <typename _Type, typename _Controller, bool _HasTrivialRelocate>
bool TArray_BaseContainerImpl<_Type, _Controller, _HasTrivialRelocate>::_Grow(u32 wishedSize)
{
    TZ_ASSERT(wishedSize > _MaxCount());
    const u32 newSize = _Controller::GrowSize(wishedSize);
    return newSize >= wishedSize && _ReallocBuffer(newSize);
}

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

template <typename _Type, typename _Controller, bool _HasTrivialRelocate>
void TArray_BaseContainerImpl<_Type, _Controller, _HasTrivialRelocate>::_FreeBuffer()
{
    if (m_Data != null)
        Mem::_RawFree(m_Data, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                      TZ_FUNCTION_SIGNATURE);
    m_Data = null;
    m_MaxCount = 0;
}

template <typename _Type, typename _Controller, bool _HasTrivialRelocate>
void TArray_BaseContainerImpl<_Type, _Controller, _HasTrivialRelocate>::_Swap(TArray_BaseContainerImpl &other)
{
    TZSwap(m_Data, other.m_Data);
    const u32 count = _Count();
    _SetCount(other._Count());
    other._SetCount(count);
    TZSwap(m_MaxCount, other.m_MaxCount);
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
        : RealType(ptr)
        , m_Owner(owner)
    {
    }
    // To const elements from one to mutable ones.
    template <typename _Other, typename _OtherContainer,
              typename = std::enable_if_t<std::is_same<const _Other, _Type1>::value>>
    TDebugContiguousBaseIterator(const TDebugContiguousBaseIterator<_Other, _OtherContainer> &other)
        : TDebugContiguousBaseIterator(other.m_Ptr, other.m_Owner)
    {
    }

    _Type1 &operator*() const
    {
        _CheckDeref();
        return _Readable() ? *RealType::m_Ptr : Internal::MissingElement<_Type1>();
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
    bool _Readable() const
    {
        return m_Owner != null && RealType::m_Ptr >= m_Owner->_RawBegin() && RealType::m_Ptr < m_Owner->_RawEnd();
    }
};

template <typename _Type, typename _BaseImpl>
void TArray_Base<_Type, _BaseImpl>::_Destroy(_Type *data, u32 start, u32 end)
{
    Internal::TRangeDestructor<_Type, !std::is_trivially_destructible<_Type>::value>::Destroy(data, start, end);
}

template <typename _Type, typename _BaseImpl>
ureg TArray_Base<_Type, _BaseImpl>::_OffsetInside(const void *start, const void *end) const
{
    const ureg begin = ureg(BaseImpl::_Data());
    const bool isInside = ureg(end) > begin && ureg(start) < ureg(_RawEnd());
    return isInside ? ureg(start) - begin : ureg(sreg(-1));
}

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
        const ureg offset = _OffsetInside(&element, &element + 1);
        if (!BaseImpl::_Grow(insertionIndex + 1))
            return CGuid::INVALID;
        if (offset != ureg(sreg(-1))) // the element moved with the buffer
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
    _Destroy(data, index, index + 1);
    BaseImpl::_SetCount(oldCount - 1);
    if (index != oldCount - 1)
        std::memcpy(static_cast<void *>(data + index), static_cast<const void *>(data + oldCount - 1), sizeof(_Type));
}

template <typename _Type, typename _BaseImpl>
void TArray_Base<_Type, _BaseImpl>::Remove_AndKeepOrder(u32 index)
{
    TZ_ASSERT(index < BaseImpl::_Count());
    Remove_AndKeepOrder(index, index + 1);
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
    _Destroy(data, indexStart, indexEnd);
    if (count - indexEnd > 0)
        Internal::SRelocationHelper::Relocate_OverlappedCompact(data + indexStart, data + indexEnd, count - indexEnd);
    BaseImpl::_SetCount(count - (indexEnd - indexStart));
}

template <typename _Type, typename _BaseImpl>
void TArray_Base<_Type, _BaseImpl>::Clear()
{
    _Destroy(BaseImpl::_Data(), 0, BaseImpl::_Count());
    BaseImpl::_SetCount(0);
}

template <typename _Type, typename _BaseImpl>
void TArray_Base<_Type, _BaseImpl>::Clean()
{
    Clear();
    BaseImpl::_FreeBuffer();
}

template <typename _Type, typename _BaseImpl>
template <typename _View>
bool TArray_Base<_Type, _BaseImpl>::_AppendView(const _View &view)
{
    const u32 count = BaseImpl::_Count();
    if (view.Count() > TNumericTraits<u32>::kMax - count || !Reserve(count + view.Count()))
        return false;
    for (const _Type &element : view)
        PushBackUnsafe(element);
    return true;
}

template <typename _Type, typename _Controller>
TArray<_Type, _Controller>::TArray(u32 count)
{
    if (!this->Reserve(count))
        return;
    for (u32 i = 0; i < count; ++i)
        Mem::Construct<_Type>(this->_Data() + i);
    this->_SetCount(count);
}

template <typename _Type, typename _Controller>
template <typename _View>
TArray<_Type, _Controller> &TArray<_Type, _Controller>::_Assign(const _View &view)
{
    TArray copy;
    if (copy._AppendView(view))
        Swap(copy);
    return *this;
}

} // namespace Tessaly
