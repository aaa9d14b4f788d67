#pragma once

#include <cassert>

#include "zel_platform/platform_api.h"

namespace Quern::Internal {

/// Writes the broken precondition to stderr, and aborts.
[[noreturn]] ZEL_PLATFORM_API void failExpectation(char const* condition, char const* file,
                                                   int line) noexcept;

}  // namespace Quern::Internal

/// A precondition of an inline function, such as a bound of an array: checked in a build with
/// ZEL_HARDENED, whatever the build type, and else as an assertion.
#ifdef ZEL_HARDENED
#define ZEL_EXPECT(...)                                                                            \
    ((__VA_ARGS__) ? void() : Quern::Internal::failExpectation(#__VA_ARGS__, __FILE__, __LINE__))
#else
#define ZEL_EXPECT(...) assert((__VA_ARGS__))
#endif
