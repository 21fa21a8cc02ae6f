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

} // namespace Tessaly
