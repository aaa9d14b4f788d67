#pragma once

#include <cstdint>

#include "zel/sampler/common/voxel_sampler.h"
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
    /// 0 for a voxel size of 0, so that gradients are 0.
    float invVoxelSize = container.voxelSize() == 0.0F ? 0.0F : 1.0F / container.voxelSize();
    typename Container<Traits>::ConstTileAccessor accessor = container.tileAccessor();

    /// How many voxels of a depth one world unit is.
    float voxelsPerUnit(int depth) const { return voxelScale<Traits>(depth) * invVoxelSize; }

    /// The deepest tile over a lattice point that is no deeper than `depth`.
    TileOf<Traits> const& tileAt(int3 const& p, int depth) const {
        return accessor.tile(p.x, p.y, p.z, depth);
    }
};

}  // namespace ORV::TileTree3D::Internal
