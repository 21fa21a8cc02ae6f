// Non-owning views: TMemoryView on contiguous elements, TStridedMemoryView on elements a fixed number of bytes apart.
// Indexing is checked (two sites each); iteration is not.
#pragma once

#include <tz_defs.h>

#include "kr_iterators.h"
#include "kr_mem_utils.h"

namespace Tessaly
{

namespace Internal
{

// A contiguous container (data(), size()) whose elements a view on _Type can have: as const, or more so.
template <typename _Container, typename _Type>
using TEnableIfContainerOf =
    std::enable_if_t<std::is_convertible<std::remove_pointer_t<decltype(std::declval<_Container &>().data())> (*)[],
                                         _Type (*)[]>::value &&
                     std::is_convertible<decltype(std::declval<_Container &>().size()), size_t>::value>;

// What a view counts of size elements: none, after a report, when 32 bits do not hold their number.
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
    // As const as the elements.
    using Byte = typename std::conditional<std::is_const<_Type>::value, const u8, u8>::type;

    // No elements; or count of them from data on, which stay the caller's.
    constexpr TMemoryView()
        : m_Data(null)
        , m_Count(0)
    {
    }
    TMemoryView(_Type *data, u32 count)
        : m_Data(reinterpret_cast<Byte *>(data))
        , m_Count(count)
    {
    }

    // The elements of a contiguous container, which keeps them: a std::vector, a std::array. More of them than 32 bits
    // count are reported and give a view without elements. Only a view on const elements takes a temporary one.
    template <typename _Container, typename = Internal::TEnableIfContainerOf<_Container, _Type>>
    TMemoryView(_Container &container)
        : TMemoryView(container.data(), Internal::ViewCount(container.size()))
    {
    }
    template <typename _Container, typename = Internal::TEnableIfContainerOf<const _Container, _Type>,
              typename = std::enable_if_t<std::is_const<_Type>::value, _Container>>
    TMemoryView(const _Container &container)
        : TMemoryView(container.data(), Internal::ViewCount(container.size()))
    {
    }

    // A view on const elements from one on mutable ones.
    template <typename _Other,
              typename = std::enable_if_t<std::is_same<const _Other, _Type>::value && !std::is_const<_Other>::value>>
    TMemoryView(const TMemoryView<_Other> &other)
        : m_Data(other.m_Data)
        , m_Count(other.m_Count)
    {
    }

    _Type *Data() const { return reinterpret_cast<_Type *>(m_Data); } // the first element
    _Type *DataEnd() const { return Data() + m_Count; }               // behind the last one
    u32 Count() const { return m_Count; }                             // elements
    bool Empty() const { return m_Count == 0; }                       // none
    // For loops.
    _Type *begin() const { return Data(); }
    _Type *end() const { return DataEnd(); }

    // One element. An index outside the view is reported and gives what lies there all the same; of a view without
    // data, a zeroed stand-in.
    _Type &operator[](u32 index) const
    {
        _AssertAccessible(index);
        return m_Data != null ? Data()[index] : Internal::MissingElement<_Type>();
    }

    // The check of operator[] alone.
    void _AssertAccessible(u32 index) const
    {
        TZ_ASSERT(m_Data != null);
        TZ_ASSERT(index < m_Count);
    }

    Byte *m_Data; // the first element
    u32 m_Count;  // elements
};

// What a strided view consists of.
struct SStridedMemoryViewRawStorage
{
    u8 *m_RawDataPtr; // the first element
    u32 m_Count;      // elements
    u32 m_Stride;     // bytes between consecutive elements; 0 repeats one element
};

// Holds it.
template <typename _Type>
class TStridedMemoryViewBase
{
public:
    SStridedMemoryViewRawStorage m_Storage; // where the elements are

protected:
    // data is the first element's place.
    constexpr TStridedMemoryViewBase(u8 *data, u32 count, u32 stride)
        : m_Storage{data, count, stride}
    {
    }
};

// Steps from element to element of a strided view. Two of the same view compare by their index: a stride may be 0.
template <typename _Type>
class TStridedIterator : public TRandomAccessOperators<TStridedIterator<_Type>, _Type>
{
public:
    using Byte = typename std::conditional<std::is_const<_Type>::value, const u8, u8>::type;

    TStridedIterator() = default;
    TStridedIterator(Byte *element, u32 stride, u32 index)
        : m_Element(element)
        , m_Stride(stride)
        , m_Index(index)
    {
    }
    // To const elements from one to mutable ones.
    template <typename _Other, typename = std::enable_if_t<std::is_same<const _Other, _Type>::value>>
    TStridedIterator(const TStridedIterator<_Other> &other)
        : m_Element(other.m_Element)
        , m_Stride(other.m_Stride)
        , m_Index(other.m_Index)
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
    using Base::m_Storage; // where the elements are

    using CIterator = TStridedIterator<_Type>; // steps from element to element

    // No elements; count of them from data on, stride bytes apart; or those of a view without gaps.
    constexpr TStridedMemoryView()
        : Base(null, 0, 0)
    {
    }
    TStridedMemoryView(_Type *data, u32 count, u32 stride = sizeof(_Type))
        : Base(const_cast<u8 *>(reinterpret_cast<const u8 *>(data)), count, stride)
    {
    }
    TStridedMemoryView(const TMemoryView<_Type> &view)
        : TStridedMemoryView(view.Data(), view.Count())
    {
    }

    // The elements of a contiguous container, as TMemoryView takes them.
    template <typename _Container,
              typename = std::enable_if_t<std::is_constructible<TMemoryView<_Type>, _Container>::value,
                                          decltype(std::declval<_Container>().data())>>
    TStridedMemoryView(_Container &&container)
        : TStridedMemoryView(TMemoryView<_Type>(container))
    {
    }

    // A view on const elements from one on mutable ones.
    template <typename _Other,
              typename = std::enable_if_t<std::is_same<const _Other, _Type>::value && !std::is_const<_Other>::value>>
    TStridedMemoryView(const TStridedMemoryView<_Other> &other)
        : Base(other.m_Storage.m_RawDataPtr, other.m_Storage.m_Count, other.m_Storage.m_Stride)
    {
    }

    _Type *Data() const { return reinterpret_cast<_Type *>(m_Storage.m_RawDataPtr); } // the first element
    u32 Count() const { return m_Storage.m_Count; }                                   // elements
    u32 Stride() const { return m_Storage.m_Stride; } // bytes from one element to the next; 0: one element, repeated
    bool Empty() const { return m_Storage.m_Count == 0; } // none
    // For loops.
    CIterator begin() const { return CIterator(m_Storage.m_RawDataPtr, m_Storage.m_Stride, 0); }
    CIterator end() const { return begin() + Count(); }

    // One element, as on a view without gaps. The product of index and stride is taken in 32 bits.
    _Type &operator[](u32 index) const
    {
        _AssertAccessible(index);
        if (m_Storage.m_RawDataPtr == null)
            return Internal::MissingElement<_Type>();
        return *reinterpret_cast<_Type *>(m_Storage.m_RawDataPtr + index * m_Storage.m_Stride);
    }

    // The check of operator[] alone.
    void _AssertAccessible(u32 index) const
    {
        TZ_ASSERT(m_Storage.m_RawDataPtr != null);
        TZ_ASSERT(index < m_Storage.m_Count);
    }
};

} // namespace Tessaly
