#pragma once

#include <cstdint>

namespace Orvane::Geometry::Query {

/// How a volume is read between its samples. Other values exist, and fields answer 0 for them.
enum class SamplerType : std::int32_t {
    kLinear = 0,   ///< trilinear; continuous
    kCubicC0 = 1,  ///< cubic, from 4 samples along each axis; continuous
    kCubicC1 = 2,  ///< cubic; continuous with its first derivatives where the resolution is even
};

}  // namespace Orvane::Geometry::Query
