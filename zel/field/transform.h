#pragma once

#include <cmath>

#include "zel/field/math.h"

// What the scalar and the vector transform nodes do with their parameters.
namespace zel::detail {

using Orvane::Math::float3;
using Orvane::Math::float4;

/// `scale` with each component nearer to 0 than 2^-23 replaced by +2^-23, so that dividing by it is
/// never dividing by 0. A NaN stays.
inline float3 limitedScale(float3 const& scale) {
    constexpr float kLeast = 0x1p-23F;
    return mapComponents([](float s) { return std::fabs(s) < kLeast ? kLeast : s; }, scale);
}

/// The quaternion of a rotation vector, whose length is an angle in radians. It turns by the
/// negative of the vector. No length above 0 gives the identity.
inline float4 rotationOf(float3 const& vector) {
    float const l = std::sqrt(vector.x * vector.x + vector.y * vector.y + vector.z * vector.z);
    if (!(l > 0)) return {0, 0, 0, 1};
    float3 const axis = -vector / l;
    float const s = std::sin(l / 2);
    return {s * axis.x, s * axis.y, s * axis.z, std::cos(l / 2)};
}

}  // namespace zel::detail
