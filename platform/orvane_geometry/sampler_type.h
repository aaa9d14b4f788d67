#pragma once

#include <cstdint>

namespace Orvane::Geometry::Query {

/// How a volume is interpolated between its samples. Objects may name other types; fields are 0 for
/// them. Fields clamp cubic values to the range of the 8 surrounding samples: where they do, the
/// value may jump from one voxel to the next.
enum class SamplerType : std::int32_t {
    kLinear = 0,   ///< trilinear; continuous where the resolution is uniform
    kCubicC0 = 1,  ///< cubic, from 4 samples along each axis
    kCubicC1 = 2,  ///< cubic, with continuous first derivatives where the resolution is uniform
};

}  // namespace Orvane::Geometry::Query
