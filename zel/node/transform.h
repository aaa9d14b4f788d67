#pragma once

#include "zel/api.h"
#include "zel_platform/orvane_math/vectors.h"

// The parameters of the scalar and the vector transform nodes. The functions are not inline, so
// that the results do not depend on the flags by which a user's program is compiled.
namespace zel::detail {

/// `scale` with each component nearer to 0 than 2^-23 replaced by +2^-23, so that dividing by it is
/// never dividing by 0. A NaN stays.
ZEL_API Orvane::Math::float3 limitedScale(Orvane::Math::float3 const& scale);

/// The quaternion of a rotation vector, whose length is an angle in radians. It turns by the
/// negative of the vector. The identity where the length is not above 0: for a zero vector, one so
/// short that its square is 0, and one with a NaN in it. NaN for a vector too long to square.
ZEL_API Orvane::Math::float4 rotationOf(Orvane::Math::float3 const& vector);

}  // namespace zel::detail
