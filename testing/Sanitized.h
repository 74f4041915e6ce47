#pragma once

namespace tarnwell::testing {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARNWELL_IS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARNWELL_IS_SANITIZED 1
#endif
#endif

/// The program was built with a sanitizer: it takes some ten times as long, and keeps what was freed for a while, so
/// that what a process holds says nothing of the program.
#ifdef TARNWELL_IS_SANITIZED
inline constexpr bool kIsSanitized = true;
#undef TARNWELL_IS_SANITIZED
#else
inline constexpr bool kIsSanitized = false;
#endif

}  // namespace tarnwell::testing
