#pragma once

#include "zel_platform/orvane_geometry/sampler_type.h"
#include "zel_platform/orvane_geometry_volume/channel.h"
#include "zel_platform/orvane_geometry_volume/object.h"

namespace zel::detail {

using Orvane::Geometry::Query::SamplerType;

/// What a node holds of a volume of one kind of tree, whose tiles have W samples along each axis.
/// The components share one volume; samplers have plain pointers to them.
template <class Traits, class T, int W> struct VolumeSamplerState {
    Quern::Ptr<ORV::TileTree3D::Container<Traits>> container;
    Quern::Ptr<ORV::TileTree3D::VoxelTopology<Traits>> topology;
    Quern::Ptr<ORV::TileTree3D::Channel<Traits, T, W, 0, 0>> channel;
    /// The samples of each tile, and those just across its high faces; or null.
    Quern::Ptr<ORV::TileTree3D::Channel<Traits, T, W + 1, 0, 0>> haloChannel;
    bool valid = false;  ///< whether the first three were found
};

template <class Traits, class T>
using VolumeStateOf = VolumeSamplerState<Traits, T, Traits::kSamples>;

/// Replaces a state by the components of a volume, which must not be null. Returns whether all
/// three are there; those that are stay in the state. With `wantHalo`, linear sampling of samples
/// on voxel corners gets a halo channel, which no other sampling needs. Throws if the halo cannot
/// be made; the state is then valid, without a halo.
template <class Traits, class T, int W>
bool initSamplerState(Quern::Ptr<ORV::Object> const& object, Quern::String const& channelName,
                      SamplerType type, bool wantHalo, VolumeSamplerState<Traits, T, W>& state);

/// A channel for the halo of a channel of W samples, sized to `topology`, for tiles of the depths
/// `minDepth` to `maxDepth`. Any number of threads may call it. Throws std::out_of_range for depths
/// that no tree has, and std::bad_alloc. With `pooled` the channel comes from ChannelPool, or its
/// memory from ChannelMemoryPool, where these are enabled. Without `callElementConstructor`, a
/// warning is printed to the standard output from a verbose level of 3 on.
template <class Traits, class T, int W>
Quern::Ptr<ORV::TileTree3D::Channel<Traits, T, W + 1, 0, 0>>
allocateHaloChannel(ORV::TileTree3D::VoxelTopology<Traits> const& topology, T defaultValue,
                    bool pooled, bool callElementConstructor, int minDepth, int maxDepth);

}  // namespace zel::detail
