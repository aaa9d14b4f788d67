#pragma once

#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/expect.h"

namespace Orvane::Math {

/// A matrix of floats, row after row. `M[r]` is row `r` and `M[r][c]` an entry. As the gradient of
/// a vector field, `M[r][c]` is the derivative of component `r` along coordinate `c`: row `r` is
/// the gradient of component `r`, and column `c` the derivative along one axis.
struct float3x3 {
    float3 rows[3];

    constexpr float3& operator[](int r) {
        ZEL_EXPECT(0 <= r && r < 3);
        return rows[r];
    }
    constexpr float3 const& operator[](int r) const {
        ZEL_EXPECT(0 <= r && r < 3);
        return rows[r];
    }
    constexpr bool operator==(float3x3 const&) const = default;
};

}  // namespace Orvane::Math
