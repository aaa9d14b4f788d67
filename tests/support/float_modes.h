#pragma once

#include <cfenv>
#ifdef __SSE__
#include <pmmintrin.h>
#endif

namespace support {

/// Calls `work()` in a rounding direction and, with SSE, with subnormal numbers read and written as
/// 0. Returns its result in the default modes.
template <class Work> auto inModes(int direction, Work const& work) {
    std::fesetround(direction);
#ifdef __SSE__
    _mm_setcsr(_mm_getcsr() | _MM_FLUSH_ZERO_ON | _MM_DENORMALS_ZERO_ON);
#endif
    auto result = work();
    std::fesetenv(FE_DFL_ENV);
    return result;
}
inline constexpr int kDirections[] = {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO};

}  // namespace support
