// Atomics: TAtomic, whose read-modify-writes are full barriers; LoadShared and StoreShared, for members of plain types
// that are written under a lock and may be read without it.
#pragma once

#include <type_traits>

#include <tz_defs.h>

namespace Tessaly
{

// Full-barrier atomic instructions on 32-bit integers. _xinc and _xdec return the new value, all others the old one.
template <typename _Type, u32 _Size>
struct SInterlockedPrimitives
{
    static_assert(sizeof(_Type) == 4 && _Size == 4, "32-bit integers only");

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

    constexpr TAtomic(_Type value = 0)
        : m_Value(value)
    {
    }
    TAtomic(const TAtomic &other)
        : m_Value(other.Load())
    {
    }
    TAtomic &operator=(const TAtomic &) = delete;

    _Type Load() const { return __atomic_load_n(&m_Value, __ATOMIC_ACQUIRE); }
    void Store(_Type value) { Primitives::_xchg(&m_Value, value); } // an exchange is sequentially consistent
    _Type FetchAdd(_Type value) { return Primitives::_xadd(&m_Value, value); }
    _Type FetchSub(_Type value) { return Primitives::_xadd(&m_Value, static_cast<_Type>(_Type(0) - value)); }
    void Add(_Type value) { Primitives::_xadd(&m_Value, value); }
    // Return the new value.
    _Type Inc() { return Primitives::_xinc(&m_Value); }
    _Type Dec() { return Primitives::_xdec(&m_Value); }
};

// Exchanges two values. Each load and each store is atomic, the exchange as a whole is not.
template <typename _Type>
void TZSwap(TAtomic<_Type> &a, TAtomic<_Type> &b)
{
    const _Type oldA = a.Load();
    a.Store(b.Load());
    b.Store(oldA);
}

namespace Threads
{

// One atomic load or store of a member that is written under a lock and may be read without it.
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
