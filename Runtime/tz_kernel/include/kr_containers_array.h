// TArray: the growable contiguous array. It owns its elements and its buffer.
//
//   Count() <= Capacity();  elements [0, Count()) are constructed, the rest of the buffer is raw memory
//
// Elements are relocated by copying their bytes (TTypeTraits::HasTrivialRelocate). A full array of n elements grows to
// (n + 1) + (n + 1) / 2 + 8: capacities are 0, 9, 23, 44, ... Arrays are not synchronised; only Count() and Empty() may
// be read while another thread changes the array under its owner's lock.
#pragma once

#include <tz_defs.h>
#include <tz_guid.h>

#include "kr_containers_internals.h"
#include "kr_memoryviews.h"

namespace Tessaly
{

// The buffer of an array.
template <typename _Type, typename _Controller, bool _HasTrivialRelocate>
class TArray_BaseContainerImpl : public _Controller
{
    static_assert(_HasTrivialRelocate, "elements are moved by copying their bytes");

protected:
    TArray_BaseContainerImpl() = default;
    ~TArray_BaseContainerImpl() = default;

    _Type *_Data() const { return m_Data; }
    u32 _Count() const { return __atomic_load_n(&m_Count, __ATOMIC_RELAXED); }
    u32 _MaxCount() const { return m_MaxCount; }
    void _SetCount(u32 count) { __atomic_store_n(&m_Count, count, __ATOMIC_RELAXED); }

    // Grows to GrowSize(wishedSize) elements. False, with nothing changed, when that overflows or memory is refused.
    TZ_NOINLINE bool _Grow(u32 wishedSize)
    {
        TZ_ASSERT(wishedSize > _MaxCount());
        const u32 newSize = _Controller::GrowSize(wishedSize);
        return newSize >= wishedSize && _ReallocBuffer(newSize);
    }
    // Changes the capacity to newMaxCount. False, after a report and with nothing changed, when memory is refused.
    bool _ReallocBuffer(u32 newMaxCount);
    void _FreeBuffer()
    {
        if (m_Data != null)
            Mem::_RawFree(m_Data, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                          TZ_FUNCTION_SIGNATURE);
        m_Data = null;
        m_MaxCount = 0;
    }
    void _Swap(TArray_BaseContainerImpl &other)
    {
        TZSwap(m_Data, other.m_Data);
        const u32 count = _Count();
        _SetCount(other._Count());
        other._SetCount(count);
        TZSwap(m_MaxCount, other.m_MaxCount);
    }

    _Type *m_Data = null;
    u32 m_Count = 0;
    u32 m_MaxCount = 0;
};

// The operations of an array, besides its construction.
template <typename _Type, typename _BaseImpl>
class TArray_Base : public _BaseImpl
{
protected:
    using BaseImpl = _BaseImpl;

    TArray_Base() = default;
    ~TArray_Base() { Clean(); }

public:
    // An iterator that asserts at each step and each access that it lies within its array.
    template <typename _Type1, typename _ContainerType>
    class TDebugContiguousBaseIterator;

    using Iterator = TDebugContiguousBaseIterator<_Type, TArray_Base>;
    using ConstIterator = TDebugContiguousBaseIterator<const _Type, const TArray_Base>;

    TArray_Base(const TArray_Base &) = delete;
    TArray_Base &operator=(const TArray_Base &) = delete;

    // Numbers of elements, and the buffer, which is null while the capacity is 0.
    u32 Count() const { return BaseImpl::_Count(); }
    bool Empty() const { return BaseImpl::_Count() == 0; }
    u32 Capacity() const { return BaseImpl::_MaxCount(); }
    _Type *RawDataPointer() { return BaseImpl::_Data(); }
    const _Type *RawDataPointer() const { return BaseImpl::_Data(); }
    // The first and the last element. Of an empty array a zeroed stand-in.
    _Type &First() { return Empty() ? Last() : _Element(0); }
    const _Type &First() const { return Empty() ? Last() : _Element(0); }
    _Type &Last() { return _Element(BaseImpl::_Count() - 1); }
    const _Type &Last() const { return _Element(BaseImpl::_Count() - 1); }
    // All elements. Growing and freeing the buffer invalidate the view.
    TMemoryView<const _Type> View() const { return TMemoryView<const _Type>(BaseImpl::_Data(), BaseImpl::_Count()); }
    TMemoryView<_Type> ViewForWriting() { return TMemoryView<_Type>(BaseImpl::_Data(), BaseImpl::_Count()); }

    // Checked iterators, and the same as plain pointers.
    Iterator begin() { return Iterator(_RawBegin(), this); }
    Iterator end() { return Iterator(_RawEnd(), this); }
    ConstIterator begin() const { return ConstIterator(_RawBegin(), this); }
    ConstIterator end() const { return ConstIterator(_RawEnd(), this); }
    _Type *_RawBegin() const { return BaseImpl::_Data(); }
    _Type *_RawEnd() const { return BaseImpl::_Data() + BaseImpl::_Count(); }

    // One element.
    // Fails: an index out of range is reported. Within the capacity the reference is to that place, constructed or not;
    //        beyond it to a zeroed stand-in.
    _Type &operator[](u32 pos)
    {
        TZ_ASSERT(pos < BaseImpl::_Count());
        return _Element(pos);
    }
    const _Type &operator[](u32 pos) const
    {
        TZ_ASSERT(pos < BaseImpl::_Count());
        return _Element(pos);
    }

    // Raises the capacity to n elements; a capacity that is larger stays.
    // Fails: false, after a report and with nothing changed, when memory is refused.
    bool Reserve(u32 n) { return BaseImpl::_MaxCount() >= n || BaseImpl::_ReallocBuffer(n); }

    // Appends a copy of element. An element that lies inside the array is reported; it is appended all the same.
    // Returns: its index.
    // Fails:   CGuid::INVALID when the array cannot grow.
    // Cost:    amortised O(1).
    template <typename _Other = _Type>
    CGuid PushBack(const _Other &element);

    // The same within the capacity. The new element is constructed from element, whose type may differ.
    // Fails:   a full array is reported and stays as it is; CGuid::INVALID.
    template <typename _Other = _Type>
    u32 PushBackUnsafe(const _Other &element);

    // Destroys the element at index and moves the last one into its place.
    // Fails: an index out of range is reported, and nothing changes.
    // Cost:  O(1).
    void Remove(u32 index);
    // Destroy the element at index or the elements [indexStart, indexEnd), and move the later ones down.
    // Fails: as Remove.
    void Remove_AndKeepOrder(u32 index)
    {
        TZ_ASSERT(index < BaseImpl::_Count());
        Remove_AndKeepOrder(index, index + 1);
    }
    void Remove_AndKeepOrder(u32 indexStart, u32 indexEnd);

    // Both destroy all elements. Clear keeps the buffer, Clean frees it.
    void Clear()
    {
        RangeDestructor::Destroy(BaseImpl::_Data(), 0, BaseImpl::_Count());
        BaseImpl::_SetCount(0);
    }
    void Clean()
    {
        Clear();
        BaseImpl::_FreeBuffer();
    }

protected:
    // What lies at pos within the capacity, else a zeroed stand-in.
    _Type &_Element(u32 pos) const
    {
        return pos < BaseImpl::_MaxCount() ? BaseImpl::_Data()[pos] : Internal::MissingElement<_Type>();
    }
    // Copies a view's elements into this empty array. False, with nothing copied, when memory is refused.
    template <typename _View>
    bool _CopyFrom(const _View &view)
    {
        if (!Reserve(view.Count()))
            return false;
        for (const _Type &element : view)
            PushBackUnsafe(element);
        return true;
    }

private:
    using RangeDestructor = Internal::TRangeDestructor<_Type, !std::is_trivially_destructible<_Type>::value>;
};

// An array: owns its elements and their buffer.
template <typename _Type, typename _Controller = TArrayStaticController<0, 8, 8, 0, 2>>
class TArray
    : public TArray_Base<_Type, TArray_BaseContainerImpl<_Type, _Controller, TTypeTraits::HasTrivialRelocate<_Type>>>
{
public:
    TArray() = default;
    // An array of count default-constructed elements, or of copies of a view's elements.
    // Fails: the array is empty when memory is refused.
    explicit TArray(u32 count)
    {
        if (!this->Reserve(count))
            return;
        for (u32 i = 0; i < count; ++i)
            Mem::Construct<_Type>(this->_Data() + i);
        this->_SetCount(count);
    }
    explicit TArray(const TMemoryView<const _Type> &view) { this->_CopyFrom(view); }
    explicit TArray(const TStridedMemoryView<const _Type> &view) { this->_CopyFrom(view); }
    template <typename _Container, typename = Internal::TEnableIfContainerOf<const _Container, const _Type>>
    explicit TArray(const _Container &container)
        : TArray(TMemoryView<const _Type>(container))
    {
    }

    // Replaces the elements by copies of the view's, which may lie in this array.
    // Fails: nothing changes when memory is refused.
    TArray &operator=(const TMemoryView<const _Type> &view) { return _Assign(view); }
    TArray &operator=(const TStridedMemoryView<const _Type> &view) { return _Assign(view); }
    template <typename _Container, typename = Internal::TEnableIfContainerOf<const _Container, const _Type>>
    TArray &operator=(const _Container &container)
    {
        return _Assign(TMemoryView<const _Type>(container));
    }

    // Exchanges the buffers.
    // Cost: O(1).
    void Swap(TArray &other) { this->_Swap(other); }

private:
    template <typename _View>
    TArray &_Assign(const _View &view)
    {
        TArray copy;
        if (copy._CopyFrom(view))
            Swap(copy);
        return *this;
    }
};

// TArray::Swap.
template <typename _Type, typename _Controller>
void TZSwap(TArray<_Type, _Controller> &a, TArray<_Type, _Controller> &b)
{
    a.Swap(b);
}

namespace TTypeTraits
{
template <typename _Type, typename _Controller>
inline constexpr bool HasTrivialRelocate<TArray<_Type, _Controller>> = true;
} // namespace TTypeTraits

} // namespace Tessaly

#include "kr_containers_array.inl"
