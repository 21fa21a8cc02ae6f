// TArray: the growable contiguous array. It owns its elements and its buffer.
//
//   Count() <= Capacity();  elements [0, Count()) are constructed, the rest of the buffer is raw memory
//
// Elements move by copying their bytes (TTypeTraits::HasTrivialRelocate). Capacities grow 0, 9, 23, 44, ...: room for
// one more of n elements is asked as (n + 1) + (n + 1) / 2 + 8. Not for concurrent change; Count() and Empty() alone
// may be read while another thread changes the array under its owner's lock.
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
    using Type = _Type; // of an element

    TArray_BaseContainerImpl() = default;
    ~TArray_BaseContainerImpl() = default;

    // The buffer, its elements, its room.
    _Type *_Data() const { return m_Data; }
    u32 _Count() const { return __atomic_load_n(&m_Count, __ATOMIC_RELAXED); }
    u32 _MaxCount() const { return m_MaxCount; }
    void _SetCount(u32 count) { __atomic_store_n(&m_Count, count, __ATOMIC_RELAXED); }

    // Makes room for wishedSize elements, with the growth factor. False, and nothing changed, when it cannot.
    bool _Grow(u32 wishedSize);
    // Makes room for exactly newMaxCount elements. False, after a report, and nothing changed when memory is refused.
    bool _ReallocBuffer(u32 newMaxCount);
    void _FreeBuffer();
    void _Swap(TArray_BaseContainerImpl &other);

    _Type *m_Data = null; // null: never allocated
    u32 m_Count = 0;      // elements
    u32 m_MaxCount = 0;   // elements that fit
};

// What does not depend on how an array is made.
template <typename _Type, typename _BaseImpl>
class TArray_Base : public _BaseImpl
{
protected:
    using BaseImpl = _BaseImpl; // the buffer

    TArray_Base() = default;
    ~TArray_Base() { Clean(); }

public:
    // An iterator that checks itself against its array at each step and each access.
    template <typename _Type1, typename _ContainerType>
    class TDebugContiguousBaseIterator;

    // Iterators of an array and of one that is not to be changed.
    using Iterator = TDebugContiguousBaseIterator<_Type, TArray_Base>;
    using ConstIterator = TDebugContiguousBaseIterator<const _Type, const TArray_Base>;

    TArray_Base(const TArray_Base &) = delete;
    TArray_Base &operator=(const TArray_Base &) = delete;

    u32 Count() const { return BaseImpl::_Count(); }       // elements
    bool Empty() const { return BaseImpl::_Count() == 0; } // no element
    u32 Capacity() const { return BaseImpl::_MaxCount(); } // elements that fit before the buffer grows
    // The first element's place; null before there is a buffer.
    _Type *RawDataPointer() { return BaseImpl::_Data(); }
    const _Type *RawDataPointer() const { return BaseImpl::_Data(); }
    // The first and the last element; of an empty array a zeroed stand-in.
    _Type &First() { return Empty() ? Last() : _Element(0); }
    const _Type &First() const { return Empty() ? Last() : _Element(0); }
    _Type &Last() { return _Element(BaseImpl::_Count() - 1); }
    const _Type &Last() const { return _Element(BaseImpl::_Count() - 1); }
    // All elements, good until the array changes its buffer.
    TMemoryView<const _Type> View() const { return TMemoryView<const _Type>(BaseImpl::_Data(), BaseImpl::_Count()); }
    TMemoryView<_Type> ViewForWriting() { return TMemoryView<_Type>(BaseImpl::_Data(), BaseImpl::_Count()); }

    // For loops; the last two give plain pointers.
    Iterator begin() { return Iterator(_RawBegin(), this); }
    Iterator end() { return Iterator(_RawEnd(), this); }
    ConstIterator begin() const { return ConstIterator(_RawBegin(), this); }
    ConstIterator end() const { return ConstIterator(_RawEnd(), this); }
    _Type *_RawBegin() const { return BaseImpl::_Data(); }
    _Type *_RawEnd() const { return BaseImpl::_Data() + BaseImpl::_Count(); }

    // An index out of range is reported and gives what lies there within the capacity, whether or not it has been
    // constructed; beyond it a zeroed stand-in.
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

    // Makes room for exactly n elements in all. True when there is; a refusal is reported and changes nothing.
    bool Reserve(u32 n) { return BaseImpl::_MaxCount() >= n || BaseImpl::_ReallocBuffer(n); }

    // Appends a copy of element and returns its index, or CGuid::INVALID when the array cannot grow. An element that
    // lives inside the array is reported; its value is appended all the same. Amortised O(1).
    template <typename _Other = _Type>
    CGuid PushBack(const _Other &element);

    // The same into capacity that was reserved before; constructs the element from any type that it can be made of.
    // A full array is reported, stays as it is, and gives the value of CGuid::INVALID.
    template <typename _Other = _Type>
    u32 PushBackUnsafe(const _Other &element);

    // Destroys the element at index and moves the last one into its place. O(1). Out of range: reported, no change.
    void Remove(u32 index);
    // Destroys the elements [indexStart, indexEnd) and closes the gap. Out of range: reported, no change.
    void Remove_AndKeepOrder(u32 index);
    void Remove_AndKeepOrder(u32 indexStart, u32 indexEnd);

    void Clear(); // destroys all elements, keeps the buffer
    void Clean(); // the same, and frees the buffer

protected:
    // The element's place within the capacity, or a zeroed stand-in.
    _Type &_Element(u32 pos) const
    {
        return pos < BaseImpl::_MaxCount() ? BaseImpl::_Data()[pos] : Internal::MissingElement<_Type>();
    }
    // All elements of the view or none: false when memory is refused.
    template <typename _View>
    bool _AppendView(const _View &view);

private:
    static void _Destroy(_Type *data, u32 start, u32 end);
    // Offset in bytes of an object that lies among the elements; the largest ureg for any other.
    ureg _OffsetInside(const void *start, const void *end) const;
};

// The array: owns its elements and their buffer.
template <typename _Type, typename _Controller = TArrayStaticController<0, 8, 8, 0, 2>>
class TArray
    : public TArray_Base<_Type, TArray_BaseContainerImpl<_Type, _Controller, TTypeTraits::HasTrivialRelocate<_Type>>>
{
public:
    TArray() = default;
    // count default-constructed elements; none when the memory is refused.
    explicit TArray(u32 count);
    // Copies of the view's elements; none when the memory is refused.
    explicit TArray(const TMemoryView<const _Type> &view) { this->_AppendView(view); }
    explicit TArray(const TStridedMemoryView<const _Type> &view) { this->_AppendView(view); }
    template <typename _Container, typename = Internal::TEnableIfContainerOf<const _Container, const _Type>>
    explicit TArray(const _Container &container)
        : TArray(TMemoryView<const _Type>(container))
    {
    }

    // Replaces the elements by copies of the view's, which may lie in this array. Unchanged when memory is refused.
    TArray &operator=(const TMemoryView<const _Type> &view) { return _Assign(view); }
    TArray &operator=(const TStridedMemoryView<const _Type> &view) { return _Assign(view); }
    template <typename _Container, typename = Internal::TEnableIfContainerOf<const _Container, const _Type>>
    TArray &operator=(const _Container &container)
    {
        return _Assign(TMemoryView<const _Type>(container));
    }

    // Exchanges buffers; no element moves.
    void Swap(TArray &other) { this->_Swap(other); }

private:
    template <typename _View>
    TArray &_Assign(const _View &view);
};

// Exchanges buffers; no element moves.
template <typename _Type, typename _Controller>
void TZSwap(TArray<_Type, _Controller> &a, TArray<_Type, _Controller> &b)
{
    a.Swap(b);
}

namespace TTypeTraits
{
// An array moves it by copying its bytes.
template <typename _Type, typename _Controller>
inline constexpr bool HasTrivialRelocate<TArray<_Type, _Controller>> = true;
} // namespace TTypeTraits

} // namespace Tessaly

#include "kr_containers_array.inl"
