// What all random-access iterators have in common, derived from three operations of each.
#pragma once

#include <cstddef>
#include <iterator>
#include <type_traits>

namespace Tessaly
{

// The standard iterator traits, and all operators that follow from operator*, operator+= and operator- (the distance
// between two iterators) of the derived class.
template <typename _Iterator, typename _Type>
class TRandomAccessOperators
{
public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = typename std::remove_cv<_Type>::type;
    using difference_type = std::ptrdiff_t;
    using pointer = _Type *;
    using reference = _Type &;

    _Type *operator->() const { return &*_Self(); }
    _Type &operator[](difference_type index) const { return *(_Self() + index); }
    _Iterator &operator++() { return _Self() += 1; }
    _Iterator &operator--() { return _Self() += -1; }
    _Iterator operator++(int)
    {
        const _Iterator old = _Self();
        ++*this;
        return old;
    }
    _Iterator operator--(int)
    {
        const _Iterator old = _Self();
        --*this;
        return old;
    }
    _Iterator &operator-=(difference_type count) { return _Self() += -count; }

    friend _Iterator operator+(_Iterator it, difference_type count) { return it += count; }
    friend _Iterator operator+(difference_type count, _Iterator it) { return it += count; }
    friend _Iterator operator-(_Iterator it, difference_type count) { return it += -count; }
    friend bool operator==(const _Iterator &a, const _Iterator &b) { return a - b == 0; }
    friend bool operator!=(const _Iterator &a, const _Iterator &b) { return a - b != 0; }
    friend bool operator<(const _Iterator &a, const _Iterator &b) { return a - b < 0; }
    friend bool operator>(const _Iterator &a, const _Iterator &b) { return a - b > 0; }
    friend bool operator<=(const _Iterator &a, const _Iterator &b) { return a - b <= 0; }
    friend bool operator>=(const _Iterator &a, const _Iterator &b) { return a - b >= 0; }

private:
    _Iterator &_Self() { return static_cast<_Iterator &>(*this); }
    const _Iterator &_Self() const { return static_cast<const _Iterator &>(*this); }
};

} // namespace Tessaly
