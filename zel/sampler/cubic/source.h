#pragma once

#include <cstdint>

#include "zel_platform/orvane_geometry_volume/channel.h"
#include "zel_platform/orvane_geometry_volume/voxel_topology.h"

namespace ORV::TileTree3D::Internal {

/// Marks, in 16 bits a voxel, voxels that are no degrees of freedom (DOF): these hold no value of
/// their own.
template <class Traits> using DofChannel = Channel<Traits, short, Traits::kSamples, 1, 0>;

/// What a cubic sampler reads, and how. Only the accessor's cursor changes from sample to sample.
template <class Traits, class T> struct CubicSource {
    Container<Traits> const& container;
    VoxelTopology<Traits> const& topology;
    DataChannel<Traits, T> const& channel;
    std::int32_t type;
    bool clamp;
    std::int32_t jumpHandling;
    DofChannel<Traits> const* dofChannel = nullptr;
    std::int32_t dofMask = 0;

    T defaultValue = channel.defaultValue();
    std::int32_t minDepth = channel.minDepth();
    std::int32_t maxDepth = channel.depth();
    typename Container<Traits>::ConstTileAccessor accessor = container.tileAccessor();

    /// The deepest tile over a lattice point that is no deeper than `depth`.
    TileOf<Traits> const& tileAt(int3 const& p, int depth) const {
        return accessor.tile(p.x, p.y, p.z, depth);
    }
};

}  // namespace ORV::TileTree3D::Internal
