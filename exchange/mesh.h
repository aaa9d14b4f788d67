#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "zel_platform/orvane_math/vectors.h"

namespace zel {

using Orvane::Math::float3;

/// A surface of triangles and quads, whose corners are numbers of vertices. Normals and colours are
/// either as many as positions, or none.
struct Mesh {
    std::vector<float3> positions;
    std::vector<float3> normals;
    std::vector<float3> colours;  ///< red, green and blue, 0 to 1
    std::vector<std::array<std::uint32_t, 3>> triangles;
    std::vector<std::array<std::uint32_t, 4>> quads;
};

}  // namespace zel
