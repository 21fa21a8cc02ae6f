// What containers ask of their element types.
#pragma once

#include <type_traits>

namespace Tessaly
{
namespace TTypeTraits
{

// True when an element moves by copying its bytes, without constructor or destructor calls. A type that is not
// trivially copyable says so by a specialisation.
template <typename _Type>
inline constexpr bool HasTrivialRelocate = std::is_trivially_copyable<_Type>::value;

} // namespace TTypeTraits
} // namespace Tessaly
