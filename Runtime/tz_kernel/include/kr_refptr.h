// Intrusive reference counting. A new object has no reference; the first TRefPtr makes the count 1; the object dies
// with its last one. Counts change atomically (sequentially consistent), so references may be dropped on any thread.
#pragma once

#include <tz_defs.h>

#include "kr_mem.h"
#include "kr_threads_atomic.h"
#include "kr_type_traits.h"

namespace Tessaly
{

// The count of references.
class CRefCountedObjectBase : public CNonCopyable
{
public:
    u32 StrongRefCount() const { return m_StrongRefCount.Load(); } // references at this moment

    // One reference more.
    void _InternalAddStrongRef() const { m_StrongRefCount.Add(1); }

    // Drops a reference and returns the new count; never destroys.
    u32 _InternalRemoveReference() const
    {
        // A last reference is the caller's own, so that no other thread can copy it: a store does what the atomic step
        // would. Collecting a page takes a fourth less.
        if (TZ_LIKELY(m_StrongRefCount.Load() == 1))
        {
            __atomic_store_n(&m_StrongRefCount.m_Value, 0u, __ATOMIC_RELAXED);
            return 0;
        }
        const u32 nrc = m_StrongRefCount.Dec();
        TZ_ASSERT_MESSAGE(s32(nrc) >= 0, "/!\\ strong refcount underflow /!\\");
        return nrc;
    }

protected:
    constexpr CRefCountedObjectBase() = default;
    ~CRefCountedObjectBase() = default;

private:
    mutable TAtomic<u32> m_StrongRefCount;
};

// The base of shared objects. They are made by the kernel's new.
class TZ_API CRefCountedObject : public CRefCountedObjectBase
{
public:
    virtual ~CRefCountedObject() {}

    // Keeps the object alive until the reference is dropped. Any thread that has one already.
    void AddReference() const { _InternalAddStrongRef(); }

    // Drops a reference; the last one destroys the object. Null is allowed.
    template <typename _Type>
    static void RemoveReference(_Type *object)
    {
        if (object == null || object->_InternalRemoveReference() != 0)
            return;
        CRefCountedObject *dead = const_cast<typename std::remove_const<_Type>::type *>(object);
        _DeleteObject(dead, dead);
    }

    // The service that ends an object: runs the destructor and frees memory, which came from the kernel's new.
    static void _DeleteObject(CRefCountedObject *object, void *memory);
};

// The parts of a reference.
template <typename _Type, bool _IsWeak>
class TRefModifier
{
    static_assert(!_IsWeak, "only strong references exist");

public:
    _Type *m_Ptr = null; // the object, or null

    // Add or drop a reference; null is allowed.
    static void AddRef(_Type *object)
    {
        if (object != null)
            object->AddReference();
    }
    static void DelRef(_Type *object) { CRefCountedObject::RemoveReference(object); }
};

// The parts of a reference.
template <typename _Type, bool _IsWeak>
class TBaseRefPtr : public TRefModifier<_Type, _IsWeak>
{
public:
    using TRefModifier<_Type, _IsWeak>::m_Ptr;

    _Type *Get() const { return m_Ptr; }                     // null: no object
    explicit operator bool() const { return m_Ptr != null; } // there is an object

    // Lets its object go and refers to another one, or to none. The new object gets its reference before the old one
    // loses its own: the old one may own the new one.
    void Copy(_Type *object)
    {
        if (object == m_Ptr)
            return;
        this->AddRef(object);
        TZSwap(m_Ptr, object);
        this->DelRef(object);
    }
};

// A reference: keeps its object alive.
template <typename _Type>
class TRefPtr : public TBaseRefPtr<_Type, false>
{
    using _P = TBaseRefPtr<_Type, false>;

public:
    // A reference to an object, or to none.
    TRefPtr() = default;
    TRefPtr(std::nullptr_t) {}
    TRefPtr(_Type *object)
    {
        _P::m_Ptr = object;
        _P::AddRef(object);
    }
    TRefPtr(const TRefPtr &other)
        : TRefPtr(other.m_Ptr)
    {
    }
    TRefPtr(TRefPtr &&other) noexcept { TZSwap(_P::m_Ptr, other.m_Ptr); }

    // From a reference to a derived or less const type.
    template <typename _Other, typename = std::enable_if_t<std::is_convertible<_Other *, _Type *>::value>>
    TRefPtr(const TRefPtr<_Other> &other)
        : TRefPtr(static_cast<_Type *>(other.m_Ptr))
    {
    }
    ~TRefPtr() { _P::DelRef(_P::m_Ptr); }

    // Lets its object go and refers to another one, or to none.
    TRefPtr &operator=(_Type *object)
    {
        _P::Copy(object);
        return *this;
    }
    TRefPtr &operator=(std::nullptr_t)
    {
        _P::Copy(null);
        return *this;
    }
    TRefPtr &operator=(const TRefPtr &other)
    {
        _P::Copy(other.m_Ptr);
        return *this;
    }
    TRefPtr &operator=(TRefPtr &&other) noexcept
    {
        TRefPtr taken(std::move(other));
        TZSwap(_P::m_Ptr, taken.m_Ptr);
        return *this;
    }

    // The object. Requires that there is one (asserted).
    _Type *operator->() const
    {
        TZ_ASSERT(_P::m_Ptr != null);
        return _P::m_Ptr;
    }
    _Type &operator*() const
    {
        TZ_ASSERT(_P::m_Ptr != null);
        return *_P::m_Ptr;
    }
};

// Equal when they refer to the same object.
template <typename _A, typename _B>
bool operator==(const TRefPtr<_A> &a, const TRefPtr<_B> &b)
{
    return a.m_Ptr == b.m_Ptr;
}
template <typename _A, typename _B>
bool operator!=(const TRefPtr<_A> &a, const TRefPtr<_B> &b)
{
    return a.m_Ptr != b.m_Ptr;
}
template <typename _A, typename _B>
bool operator==(const TRefPtr<_A> &a, _B *b)
{
    return a.m_Ptr == b;
}
template <typename _A, typename _B>
bool operator!=(const TRefPtr<_A> &a, _B *b)
{
    return a.m_Ptr != b;
}
template <typename _A, typename _B>
bool operator==(_A *a, const TRefPtr<_B> &b)
{
    return a == b.m_Ptr;
}
template <typename _A, typename _B>
bool operator!=(_A *a, const TRefPtr<_B> &b)
{
    return a != b.m_Ptr;
}
template <typename _A>
bool operator==(const TRefPtr<_A> &a, std::nullptr_t)
{
    return a.m_Ptr == null;
}
template <typename _A>
bool operator!=(const TRefPtr<_A> &a, std::nullptr_t)
{
    return a.m_Ptr != null;
}
template <typename _A>
bool operator==(std::nullptr_t, const TRefPtr<_A> &a)
{
    return a.m_Ptr == null;
}
template <typename _A>
bool operator!=(std::nullptr_t, const TRefPtr<_A> &a)
{
    return a.m_Ptr != null;
}

namespace TTypeTraits
{
// An array moves it by copying its bytes.
template <typename _Type>
inline constexpr bool HasTrivialRelocate<TRefPtr<_Type>> = true;
} // namespace TTypeTraits

} // namespace Tessaly
