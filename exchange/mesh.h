#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "zel_platform/orvane_math/vectors.h"

namespace zel {

using Orvane::Math::float3;

/// A surface of triangles and quads. Seen from the side to which its normals point, the corners of
/// a face run counter-clockwise.
struct Mesh {
    std::vector<float3> positions;  ///< in world units
    std::vector<float3> normals;    ///< of length 1, one a position; or empty
    std::vector<float3> colours;    ///< red, green, blue from 0 to 1, one a position; or empty
    std::vector<std::array<std::uint32_t, 3>> triangles;  ///< indices of positions
    std::vector<std::array<std::uint32_t, 4>> quads;
};

}  // namespace zel
