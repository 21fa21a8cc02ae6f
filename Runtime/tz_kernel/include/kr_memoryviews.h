// Non-owning views: TMemoryView on contiguous elements, TStridedMemoryView on elements a fixed number of bytes apart.
// Indexing is checked (for data, and for the range), iteration is not.
#pragma once

#include <tz_defs.h>

#include "kr_iterators.h"
#include "kr_mem_utils.h"

namespace Tessaly
{

namespace Internal
{

// Enables a function for contiguous containers (with data() and size()) whose elements are _Type or a less const _Type.
template <typename _Container, typename _Type>
using TEnableIfContainerOf =
    std::enable_if_t<std::is_convertible<std::remove_pointer_t<decltype(std::declval<_Container &>().data())> (*)[],
                                         _Type (*)[]>::value &&
                     std::is_convertible<decltype(std::declval<_Container &>().size()), size_t>::value>;

// A container's size as the count of a view. A size above 32 bits is reported and gives 0.
inline u32 ViewCount(size_t size)
{
    TZ_ASSERT_MESSAGE(size <= TNumericTraits<u32>::kMax, "a view has at most %u elements, not %zu",
                      TNumericTraits<u32>::kMax, size);
    return size <= TNumericTraits<u32>::kMax ? u32(size) : 0;
}

} // namespace Internal

// A view on contiguous elements: a pointer and a count.
template <typename _Type>
class TMemoryView
{
public:
    using Byte = typename std::conditional<std::is_const<_Type>::value, const u8, u8>::type;

    // The empty view, or count elements from data on.
    constexpr TMemoryView() = default;
    TMemoryView(_Type *data, u32 count)
        : m_Data(reinterpret_cast<Byte *>(data))
        , m_Count(count)
    {
    }

    // The elements of a contiguous container: a std::vector, a std::array. More elements than 32 bits can count are
    // reported and give an empty view. Only a view on const elements can be made from a temporary container.
    template <typename _Container, typename = Internal::TEnableIfContainerOf<_Container, _Type>,
              typename = std::enable_if_t<std::is_lvalue_reference<_Container>::value || std::is_const<_Type>::value>>
    TMemoryView(_Container &&container)
        : TMemoryView(container.data(), Internal::ViewCount(container.size()))
    {
    }

    // From a view on mutable elements to one on const elements.
    template <typename _Other,
              typename = std::enable_if_t<std::is_same<const _Other, _Type>::value && !std::is_const<_Other>::value>>
    TMemoryView(const TMemoryView<_Other> &other)
        : TMemoryView(other.Data(), other.Count())
    {
    }

    // The elements are [Data(), DataEnd()).
    _Type *Data() const { return reinterpret_cast<_Type *>(m_Data); }
    _Type *DataEnd() const { return Data() + m_Count; }
    u32 Count() const { return m_Count; }
    bool Empty() const { return m_Count == 0; }
    _Type *begin() const { return Data(); }
    _Type *end() const { return DataEnd(); }

    // One element.
    // Fails: an index outside the view is reported; the reference is to what lies at that address. Of a view without
    //        data it is to a zeroed stand-in.
    _Type &operator[](u32 index) const
    {
        _AssertAccessible(index);
        return m_Data != null ? Data()[index] : Internal::MissingElement<_Type>();
    }

    // Reports an index that operator[] would report.
    void _AssertAccessible(u32 index) const
    {
        TZ_ASSERT(m_Data != null);
        TZ_ASSERT(index < m_Count);
    }

    Byte *m_Data = null;
    u32 m_Count = 0;
};

// The members of a strided view.
struct SStridedMemoryViewRawStorage
{
    u8 *m_RawDataPtr = null;
    u32 m_Count = 0;
    u32 m_Stride = 0; // bytes from one element to the next; 0: all elements are the same one
};

// Holds the members of a strided view.
template <typename _Type>
class TStridedMemoryViewBase
{
public:
    SStridedMemoryViewRawStorage m_Storage;
};

// Iterates over a strided view. Two iterators of a view compare by index, because the stride may be 0.
template <typename _Type>
class TStridedIterator : public TRandomAccessOperators<TStridedIterator<_Type>, _Type>
{
public:
    using Byte = typename std::conditional<std::is_const<_Type>::value, const u8, u8>::type;

    TStridedIterator() = default;
    TStridedIterator(Byte *element, std::ptrdiff_t stride, std::ptrdiff_t index)
        : m_Element(element)
        , m_Stride(stride)
        , m_Index(index)
    {
    }
    // From an iterator over mutable elements to one over const elements.
    template <typename _Other, typename = std::enable_if_t<std::is_same<const _Other, _Type>::value>>
    TStridedIterator(const TStridedIterator<_Other> &other)
        : TStridedIterator(other.m_Element, other.m_Stride, other.m_Index)
    {
    }

    _Type &operator*() const { return *reinterpret_cast<_Type *>(m_Element); }
    TStridedIterator &operator+=(std::ptrdiff_t count)
    {
        m_Element += m_Stride * count;
        m_Index += count;
        return *this;
    }
    friend std::ptrdiff_t operator-(const TStridedIterator &a, const TStridedIterator &b)
    {
        return a.m_Index - b.m_Index;
    }

    Byte *m_Element = null;
    std::ptrdiff_t m_Stride = 0; // bytes
    std::ptrdiff_t m_Index = 0;
};

// A view on elements that are a fixed number of bytes apart.
template <typename _Type, s32 _FootprintInBytes = -1>
class TStridedMemoryView : public TStridedMemoryViewBase<_Type>
{
    static_assert(_FootprintInBytes == -1, "only views whose stride is known at run time");
    using Base = TStridedMemoryViewBase<_Type>;

public:
    using Base::m_Storage;

    using CIterator = TStridedIterator<_Type>;

    // The empty view; count elements from data on, stride bytes apart; the elements of a contiguous view.
    constexpr TStridedMemoryView() = default;
    TStridedMemoryView(_Type *data, u32 count, u32 stride = sizeof(_Type))
        : Base{{const_cast<u8 *>(reinterpret_cast<const u8 *>(data)), count, stride}}
    {
    }
    TStridedMemoryView(const TMemoryView<_Type> &view)
        : TStridedMemoryView(view.Data(), view.Count())
    {
    }

    // The elements of a contiguous container, as for TMemoryView.
    template <typename _Container,
              typename = std::enable_if_t<std::is_constructible<TMemoryView<_Type>, _Container>::value,
                                          decltype(std::declval<_Container>().data())>>
    TStridedMemoryView(_Container &&container)
        : TStridedMemoryView(TMemoryView<_Type>(container))
    {
    }

    // From a view on mutable elements to one on const elements.
    template <typename _Other,
              typename = std::enable_if_t<std::is_same<const _Other, _Type>::value && !std::is_const<_Other>::value>>
    TStridedMemoryView(const TStridedMemoryView<_Other> &other)
        : Base{other.m_Storage}
    {
    }

    // Element i is at Data() plus i * Stride() bytes. A stride of 0 repeats one element.
    _Type *Data() const { return reinterpret_cast<_Type *>(m_Storage.m_RawDataPtr); }
    u32 Count() const { return m_Storage.m_Count; }
    u32 Stride() const { return m_Storage.m_Stride; }
    bool Empty() const { return m_Storage.m_Count == 0; }
    CIterator begin() const { return CIterator(m_Storage.m_RawDataPtr, m_Storage.m_Stride, 0); }
    CIterator end() const { return begin() + Count(); }

    // One element, as for TMemoryView. The product of index and stride wraps around in 32 bits.
    _Type &operator[](u32 index) const
    {
        _AssertAccessible(index);
        if (m_Storage.m_RawDataPtr == null)
            return Internal::MissingElement<_Type>();
        return *reinterpret_cast<_Type *>(m_Storage.m_RawDataPtr + index * m_Storage.m_Stride);
    }

    // Reports an index that operator[] would report.
    void _AssertAccessible(u32 index) const
    {
        TZ_ASSERT(m_Storage.m_RawDataPtr != null);
        TZ_ASSERT(index < m_Storage.m_Count);
    }
};

} // namespace Tessaly
