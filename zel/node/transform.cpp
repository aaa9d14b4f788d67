#include "zel/node/transform.h"

#include <cmath>

#include "zel/field/math.h"

namespace zel::detail {

using Orvane::Math::float3;
using Orvane::Math::float4;

float3 limitedScale(float3 const& scale) {
    constexpr float kLeast = 0x1p-23F;
    return Orvane::Math::mapComponents([](float s) { return std::fabs(s) < kLeast ? kLeast : s; },
                                       scale);
}

float4 rotationOf(float3 const& vector) {
    float const l = std::sqrt(vector.x * vector.x + vector.y * vector.y + vector.z * vector.z);
    if (!(l > 0)) return {0, 0, 0, 1};
    float3 const axis = -vector / l;
    float const s = std::sin(l / 2);
    return {s * axis.x, s * axis.y, s * axis.z, std::cos(l / 2)};
}

}  // namespace zel::detail
