// Atomics: TAtomic, whose read-modify-writes are full barriers; LoadShared and StoreShared for members of plain types
// that a lock guards but that may also be read without it.
#pragma once

#include <type_traits>

#include <tz_defs.h>

namespace Tessaly
{

template <typename _Type, u32 _Size>
struct SInterlockedPrimitives;

// Full-barrier atomic instructions on 32-bit integers. The first five return the old value, _xinc and _xdec the new.
template <typename _Type>
struct SInterlockedPrimitives<_Type, 4>
{
    static_assert(sizeof(_Type) == 4, "32-bit integers only");

    static _Type _cmpxchg(volatile _Type *ptr, _Type desired, _Type expected)
    {
        __atomic_compare_exchange_n(ptr, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
        return expected;
    }
    static _Type _xchg(volatile _Type *ptr, _Type value) { return __atomic_exchange_n(ptr, value, __ATOMIC_SEQ_CST); }
    static _Type _xadd(volatile _Type *ptr, _Type value) { return __atomic_fetch_add(ptr, value, __ATOMIC_SEQ_CST); }
    static _Type _and(volatile _Type *ptr, _Type value) { return __atomic_fetch_and(ptr, value, __ATOMIC_SEQ_CST); }
    static _Type _or(volatile _Type *ptr, _Type value) { return __atomic_fetch_or(ptr, value, __ATOMIC_SEQ_CST); }
    static _Type _xor(volatile _Type *ptr, _Type value) { return __atomic_fetch_xor(ptr, value, __ATOMIC_SEQ_CST); }
    static _Type _xinc(volatile _Type *ptr) { return __atomic_add_fetch(ptr, _Type(1), __ATOMIC_SEQ_CST); }
    static _Type _xdec(volatile _Type *ptr) { return __atomic_sub_fetch(ptr, _Type(1), __ATOMIC_SEQ_CST); }
};

template <typename _Type>
class TAtomic
{
    using Primitives = SInterlockedPrimitives<_Type, sizeof(_Type)>;

public:
    volatile _Type m_Value;

    constexpr TAtomic()
        : m_Value(0)
    {
    }
    constexpr TAtomic(_Type value)
        : m_Value(value)
    {
    }
    TAtomic(const TAtomic &other)
        : m_Value(other.Load())
    {
    }
    TAtomic &operator=(const TAtomic &) = delete;

    _Type Load() const { return __atomic_load_n(&m_Value, __ATOMIC_ACQUIRE); }
    void Store(_Type value) { Primitives::_xchg(&m_Value, value); } // an exchange: sequentially consistent
    _Type FetchAdd(_Type value) { return Primitives::_xadd(&m_Value, value); }
    _Type FetchSub(_Type value) { return Primitives::_xadd(&m_Value, static_cast<_Type>(_Type(0) - value)); }
    void Add(_Type value) { Primitives::_xadd(&m_Value, value); }
    _Type Inc() { return Primitives::_xinc(&m_Value); } // the new value
    _Type Dec() { return Primitives::_xdec(&m_Value); } // the new value
};

// Reads both, then stores each side; the exchange as a whole is not one atomic step.
template <typename _Type>
void TZSwap(TAtomic<_Type> &a, TAtomic<_Type> &b)
{
    const _Type aValue = a.Load();
    const _Type bValue = b.Load();
    a.Store(bValue);
    b.Store(aValue);
}

namespace Threads
{

// A member of a plain type that is written under a lock and may be read without it: one atomic load or store each.
template <int _Order = __ATOMIC_RELAXED, typename _Type>
_Type LoadShared(const _Type &member)
{
    _Type value;
    __atomic_load(&member, &value, _Order);
    return value;
}

template <int _Order = __ATOMIC_RELAXED, typename _Type>
void StoreShared(_Type &member, std::common_type_t<_Type> value)
{
    __atomic_store(&member, &value, _Order);
}

} // namespace Threads

// A field that is written under a lock and may be read without it: every access is one atomic load or store of the
// given order, and it has the size and alignment of its value. It has no atomic read-modify-write.
template <typename _Type, int _LoadOrder = __ATOMIC_RELAXED, int _StoreOrder = __ATOMIC_RELAXED>
class TSharedField
{
public:
    constexpr TSharedField()
        : m_Value()
    {
    }
    constexpr TSharedField(_Type value)
        : m_Value(value)
    {
    }
    TSharedField(const TSharedField &other)
        : m_Value(other.Load())
    {
    }

    TSharedField &operator=(const TSharedField &other) { return *this = other.Load(); }
    TSharedField &operator=(_Type value)
    {
        __atomic_store(&m_Value, &value, _StoreOrder);
        return *this;
    }

    _Type Load() const
    {
        _Type value;
        __atomic_load(&m_Value, &value, _LoadOrder);
        return value;
    }
    operator _Type() const { return Load(); }
    _Type operator->() const { return Load(); }

    // A load and a store each, not one atomic step: for the holder of the lock.
    TSharedField &operator+=(_Type value) { return *this = _Type(Load() + value); }
    TSharedField &operator-=(_Type value) { return *this = _Type(Load() - value); }
    TSharedField &operator++() { return *this += _Type(1); }
    TSharedField &operator--() { return *this -= _Type(1); }

    // Records compare by their own operators; integers and pointers convert.
    template <typename _Other, typename _Record = _Type, typename = std::enable_if_t<std::is_class<_Record>::value>>
    bool operator==(const _Other &other) const
    {
        return Load() == other;
    }

private:
    _Type m_Value;
};

// A pointer that publishes what it points at.
template <typename _Type>
using TSharedPointer = TSharedField<_Type *, __ATOMIC_ACQUIRE, __ATOMIC_RELEASE>;

} // namespace Tessaly
