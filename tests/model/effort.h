// How much the tests that run by default do.
#pragma once

namespace Tessaly
{
namespace Model
{

#if defined(__has_feature)
#    if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#        define TZ_MODEL_IS_SANITIZED
#    endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(TZ_MODEL_IS_SANITIZED)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

} // namespace Model
} // namespace Tessaly
