// What containers require of their element types.
#pragma once

#include <type_traits>

namespace Tessaly::TTypeTraits
{

// Whether an object can be moved to another address by copying its bytes, without constructor and destructor calls.
// Specialise it for a type that is not trivially copyable but can be moved so.
template <typename _Type>
inline constexpr bool HasTrivialRelocate = std::is_trivially_copyable<_Type>::value;

} // namespace Tessaly::TTypeTraits
