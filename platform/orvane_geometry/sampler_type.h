#pragma once

#include <cstdint>

namespace Orvane::Geometry::Query {

/// How a volume is read between its samples. Other values exist, and fields answer 0 for them.
/// Fields limit the cubic ones to the range of the 8 samples around: where the limit acts, the
/// value may jump from one voxel to the next.
enum class SamplerType : std::int32_t {
    kLinear = 0,   ///< trilinear; continuous
    kCubicC0 = 1,  ///< cubic, from 4 samples along each axis
    kCubicC1 = 2,  ///< cubic; where the resolution is even, with continuous first derivatives
};

}  // namespace Orvane::Geometry::Query
