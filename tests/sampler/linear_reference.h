#pragma once

#include <optional>

#include "platform/volume/trees.h"
#include "zel/sampler/common/gradient.h"

// What a linear sampler must give, in the words of its documentation.
namespace trees {

/// Coordinates that no tree covers.
inline constexpr float kFar[] = {6.2e8F, -6.2e8F, 1.1e9F,   0x1p31F,   -0x1p31F, 3e9F,
                                 1e38F,  -1e38F,  INFINITY, -INFINITY, NAN};

/// What a position is turned into.
template <class Traits> struct Place {
    TileOf<Traits> const* tile;
    int3 lijk;
    float3 frac;
};

template <class Traits>
std::optional<Place<Traits>> locate(VoxelTopology<Traits> const& topology, float3 const& position,
                                    int depth) {
    int3 point;
    for (int axis = 0; axis < 3; ++axis) {
        if (!(std::fabs(position[axis]) < 1e9F)) return {};
        point[axis] = static_cast<int>(std::floor(position[axis]));
    }
    auto const& tile = topology.container().tileAccessor().tile(point.x, point.y, point.z, depth);
    if (!tile.exists()) return {};
    Place<Traits> place{&tile, {}, {}};
    auto const perVoxel = static_cast<float>(1.0 / static_cast<double>(tile.voxelDataWidth()));
    for (int axis = 0; axis < 3; ++axis) {
        bool const onCorner = (topology.offsetType() >> axis & 1) != 0;
        float const above = position[axis] - static_cast<float>(tile.tijk()[axis]);
        float l = above * perVoxel - (onCorner ? 0.0F : 0.5F);
        if (l > -1e-5F && l <= 0) l = 0;
        float const below = std::clamp(std::floor(l), onCorner ? 0.0F : -1.0F,
                                       static_cast<float>(Traits::kSamples - 1));
        place.lijk[axis] = static_cast<int>(below);
        place.frac[axis] = l - below;
    }
    return place;
}

/// A value and its gradient by world units.
template <class T> struct LinearSample {
    T value;
    GradientOf<T> gradient{};
};

/// Between the eight samples `cell(x, y, z)` around a place, to the bit.
template <class T, class Traits>
LinearSample<T> interpolate(Place<Traits> const& place, float voxelSize, auto const& cell) {
    LinearSample<T> sample{trilinear(cell, place.frac)};
    auto const& t = place.frac;
    float const inverse = 1.0F / static_cast<float>(place.tile->voxelDataWidth()) * (1 / voxelSize);
    for (int axis = 0; axis < 3; ++axis) {
        // The differences along the axis, between those along the two others.
        int const u = axis == 0 ? 1 : 0, w = axis == 2 ? 1 : 2;
        auto const difference = [&](int, int a, int b) {
            int3 low, high;
            low[u] = high[u] = a, low[w] = high[w] = b, high[axis] = 1;
            return cell(high.x, high.y, high.z) - cell(low.x, low.y, low.z);
        };
        T const slope = trilinear(difference, float3{0, t[u], t[w]}) * inverse;
        if constexpr (std::is_same_v<T, float>)
            sample.gradient[axis] = slope;
        else
            for (int r = 0; r < 3; ++r) sample.gradient[r][axis] = slope[r];
    }
    return sample;
}

}  // namespace trees
