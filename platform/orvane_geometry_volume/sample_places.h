#pragma once

#include <cmath>
#include <limits>

#include "zel_platform/orvane_geometry_volume/voxel_topology.h"

// The places of samples in world units.
namespace ORV::TileTree3D::Internal {

/// A lattice coordinate, which may have a fraction, in world units; infinite beyond the range of
/// floats.
inline float toWorld(double lattice, float voxelSize) {
    constexpr double kMost = std::numeric_limits<float>::max();
    double const world = lattice * double{voxelSize};
    if (std::abs(world) > kMost)
        return std::copysign(std::numeric_limits<float>::infinity(), world < 0 ? -1.0f : 1.0f);
    return static_cast<float>(world);
}

/// The coordinates of a tile's samples along each axis, in world units.
template <class Traits> struct SamplePlaces {
    float x[Traits::kSamples], y[Traits::kSamples], z[Traits::kSamples];
};

template <class Traits>
SamplePlaces<Traits> samplePlaces(VoxelTopology<Traits> const& topology,
                                  TileOf<Traits> const& tile) {
    float3 const& offset = topology.offset();
    double const width = tile.voxelDataWidth();
    auto const place = [&](int corner, int voxel, float inVoxel) {
        return toWorld(corner + width * (voxel + double{inVoxel}),
                       topology.container().voxelSize());
    };
    SamplePlaces<Traits> places;
    for (int i = 0; i < Traits::kSamples; ++i) {
        places.x[i] = place(tile.m_tijk.x, i, offset.x);
        places.y[i] = place(tile.m_tijk.y, i, offset.y);
        places.z[i] = place(tile.m_tijk.z, i, offset.z);
    }
    return places;
}

}  // namespace ORV::TileTree3D::Internal
