#pragma once

// The default gradient, by differences.

#include <bit>
#include <cstdint>

#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/always_inline.h"

namespace zel::detail {

/// The factors of a coordinate that give the coordinates a step above and below it.
inline constexpr float kUpperStep = 1.01F;
inline constexpr float kLowerStep = 0.990099F;          // 1 / kUpperStep
inline constexpr float kStepDifference = 0.019900978F;  // kUpperStep - kLowerStep
static_assert(std::bit_cast<std::uint32_t>(kUpperStep) == 0x3F8147AE);
static_assert(std::bit_cast<std::uint32_t>(kLowerStep) == 0x3F7D7721);
static_assert(std::bit_cast<std::uint32_t>(kStepDifference) == 0x3CA30760);

struct Steps {
    float up, down;  ///< the coordinates a step above and below
    float divisor;   ///< of the difference of the values there
};

/// The steps around a coordinate, which are relative to it. A coordinate of 0 is taken as 0.0001.
ZEL_ALWAYS_INLINE inline Steps stepAround(float c) {
    float const d = c == 0.0F ? 0.0001F : 0.0F;
    float const h = c + d;
    return {h * kUpperStep, h * kLowerStep, (d + c) * kStepDifference};
}

/// The derivative by the values `f1` a step above a coordinate and `f2` a step below it.
ZEL_ALWAYS_INLINE inline float differenceQuotient(float f1, float f2, float divisor) {
    return (f1 - f2) / divisor;
}

inline void setDerivative(Orvane::Math::float3& gradient, int axis, float f1, float f2,
                          float divisor) {
    gradient[axis] = differenceQuotient(f1, f2, divisor);
}
inline void setDerivative(Orvane::Math::float3x3& gradient, int axis,
                          Orvane::Math::float3 const& f1, Orvane::Math::float3 const& f2,
                          float divisor) {
    for (int r = 0; r < 3; ++r) gradient[r][axis] = differenceQuotient(f1[r], f2[r], divisor);
}

/// The gradient of `field` at `position` by six calls of `field.eval(position, index)`: a step
/// above and below along x, then y, then z.
template <class Gradient, class F>
Gradient gradientByDifferences(F const& field, Orvane::Math::float3 const& position,
                               long long index) {
    Gradient gradient;
    for (int axis = 0; axis < 3; ++axis) {
        Steps const steps = stepAround(position[axis]);
        Orvane::Math::float3 up = position;
        Orvane::Math::float3 down = position;
        up[axis] = steps.up;
        down[axis] = steps.down;
        auto const f1 = field.eval(up, index);
        auto const f2 = field.eval(down, index);
        setDerivative(gradient, axis, f1, f2, steps.divisor);
    }
    return gradient;
}

}  // namespace zel::detail
