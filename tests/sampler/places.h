#pragma once

#include <cmath>
#include <vector>

#include "platform/volume/trees.h"

// Places, and values at them, for the tests of samplers.
namespace trees {

/// The n-th place of a cube of places, `width` along each axis, from `low` along each on.
inline int3 inCube(int n, int width, int low = 0) {
    return {low + n % width, low + n / width % width, low + n / width / width};
}

/// A position on the lattice, in and around some tile: anywhere, on a face between voxels or tiles,
/// or one float to a side of it.
template <class Traits> float3 somePosition(Container<Traits> const& tree, Random& random) {
    int const depth = random(0, tree.depth());
    auto const& tile = tree.tile(random(0, static_cast<int>(tree.tileCount(depth)) - 1), depth);
    float3 p;
    for (int axis = 0; axis < 3; ++axis) {
        float const voxels = random(0, 1) == 0
                                 ? 0.5F * static_cast<float>(random(-1, 2 * Traits::kSamples + 1))
                                 : random.real(-0.7F, Traits::kSamples + 0.7F);
        float const c = static_cast<float>(tile.tijk()[axis]) +
                        voxels * static_cast<float>(tile.voxelDataWidth());
        int const side = random(-1, 1);
        p[axis] = side == 0 ? c : std::nextafter(c, side < 0 ? -INFINITY : INFINITY);
    }
    return p;
}

/// The polynomial through points at `x` with values `f`.
inline double lagrange(std::vector<double> const& x, std::vector<double> const& f, double at) {
    double sum = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        double weight = f[i];
        for (std::size_t j = 0; j < x.size(); ++j)
            weight *= i == j ? 1 : (at - x[j]) / (x[i] - x[j]);
        sum += weight;
    }
    return sum;
}

}  // namespace trees
