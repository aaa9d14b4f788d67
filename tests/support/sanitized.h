#pragma once

namespace support {

/// Whether this is built with a sanitizer, by which it runs up to twenty times as long: time for a
/// part of what is repeated without one.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kIsSanitized =
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool kIsSanitized = false;
#endif

/// How often a random test is repeated that takes minutes with a sanitizer.
constexpr int repeats(int withoutSanitizer) {
    return kIsSanitized ? withoutSanitizer / 4 : withoutSanitizer;
}

}  // namespace support
