// Non-owning views: TMemoryView on contiguous elements, TStridedMemoryView on elements a fixed number of bytes apart.
// Indexing is checked (two sites each); iteration is not.
#pragma once

#include <tz_defs.h>

#include "kr_mem_utils.h"

namespace Tessaly
{

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

// A view on elements that are a fixed number of bytes apart.
template <typename _Type, s32 _FootprintInBytes = -1>
class TStridedMemoryView : public TStridedMemoryViewBase<_Type>
{
    static_assert(_FootprintInBytes == -1, "only views whose stride is known at run time");
    using Base = TStridedMemoryViewBase<_Type>;

public:
    using Base::m_Storage; // where the elements are

    // Steps from element to element.
    class CIterator
    {
    public:
        CIterator(u8 *base, u32 stride, u32 index)
            : m_Base(base)
            , m_Stride(stride)
            , m_Index(index)
            , m_Offset(index * stride)
        {
        }
        _Type &operator*() const { return *reinterpret_cast<_Type *>(m_Base + m_Offset); }
        _Type *operator->() const { return &**this; }
        CIterator &operator++()
        {
            ++m_Index;
            m_Offset += m_Stride; // in 32 bits, as operator[] multiplies
            return *this;
        }
        bool operator==(const CIterator &other) const { return m_Index == other.m_Index; }
        bool operator!=(const CIterator &other) const { return m_Index != other.m_Index; }

    private:
        u8 *m_Base;
        u32 m_Stride;
        u32 m_Index; // the end is told by it: a stride may be 0
        u32 m_Offset;
    };

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
    CIterator end() const { return CIterator(m_Storage.m_RawDataPtr, m_Storage.m_Stride, m_Storage.m_Count); }

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
