#pragma once

#include <type_traits>

#include "zel/sampler/common/float4.h"
#include "zel_platform/orvane_math/float3x3.h"

namespace ORV::TileTree3D {

/// The derivative of a sample of type T by the position: a vector, or a matrix of which row r is
/// the gradient of component r.
template <class T>
using GradientOf =
    std::conditional_t<std::is_same_v<T, float>, Orvane::Math::float3, Orvane::Math::float3x3>;

namespace Internal {

/// The gradient from the derivatives along the axes, all of them times `scale`.
inline float3 gradientOf(float x, float y, float z, float scale) {
    return {x * scale, y * scale, z * scale};
}
inline Orvane::Math::float3x3 gradientOf(Float4 x, Float4 y, Float4 z, float scale) {
    x *= scale;
    y *= scale;
    z *= scale;
    return {{{x[0], y[0], z[0]}, {x[1], y[1], z[1]}, {x[2], y[2], z[2]}}};
}

}  // namespace Internal

}  // namespace ORV::TileTree3D
