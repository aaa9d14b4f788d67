#pragma once

// The default gradient of the two interfaces. Private to their sources.

#include <bit>
#include <cstdint>

#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/position_loop.h"

namespace zel::detail {

/// The step factors of the default gradients.
inline constexpr float kUpperStep = 1.01F;
inline constexpr float kLowerStep = 0.990099F;          // 1 / kUpperStep
inline constexpr float kStepDifference = 0.019900978F;  // kUpperStep - kLowerStep
static_assert(std::bit_cast<std::uint32_t>(kUpperStep) == 0x3F8147AE);
static_assert(std::bit_cast<std::uint32_t>(kLowerStep) == 0x3F7D7721);
static_assert(std::bit_cast<std::uint32_t>(kStepDifference) == 0x3CA30760);

struct Steps {
    float up, down;  ///< the coordinates a step above and below
    float divisor;   ///< of the difference between the values there
};

/// The relative step around a coordinate, or an absolute one at 0.
ZEL_ALWAYS_INLINE inline Steps stepAround(float c) {
    float const d = c == 0.0F ? 0.0001F : 0.0F;
    float const h = c + d;
    return {h * kUpperStep, h * kLowerStep, (d + c) * kStepDifference};
}

/// The default gradient: hands `set(axis, f1, f2, divisor)` the values a relative step above and
/// below the position along each axis, in the order x, y, z, and the divisor of their difference.
template <class Interface, class Set>
void differences(Interface const& field, Orvane::Math::float3 const& position, long long index,
                 Set const& set) {
    for (int axis = 0; axis < 3; ++axis) {
        Steps const steps = stepAround(position[axis]);
        Orvane::Math::float3 up = position;
        Orvane::Math::float3 down = position;
        up[axis] = steps.up;
        down[axis] = steps.down;
        auto const f1 = field.eval(up, index);
        auto const f2 = field.eval(down, index);
        set(axis, f1, f2, steps.divisor);
    }
}

}  // namespace zel::detail
