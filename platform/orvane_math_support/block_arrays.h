#pragma once

#include <array>
#include <cstddef>

namespace Orvane::Math {

/// The arrays of a noise function for a block of points: `inputs` arrays of coordinates and
/// `outputs` arrays of results, one element for each point.
template <class Real, std::size_t inputs, std::size_t outputs> struct BlockArrays {
    static constexpr std::size_t kInputs = inputs, kOutputs = outputs;
    using Number = Real;
    std::array<Real const*, inputs> in;
    std::array<Real*, outputs> out;

    /// The same arrays from point `i` on.
    BlockArrays from(int i) const {
        BlockArrays rest = *this;
        for (Real const*& array : rest.in) array += i;
        for (Real*& array : rest.out) array += i;
        return rest;
    }
};

}  // namespace Orvane::Math
