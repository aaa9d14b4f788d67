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
    /// The samples with those across their tiles' high faces, or null.
    Quern::Ptr<ORV::TileTree3D::Channel<Traits, T, W + 1, 0, 0>> haloChannel;
    bool valid = false;  ///< whether the first three were found
};

template <class Traits, class T>
using VolumeStateOf = VolumeSamplerState<Traits, T, Traits::kSamples>;

/// Takes the components of a volume, which is not null, in place of what the state held, and says
/// whether all three are there; what there is of them stays in the state. With `wantHalo`, linear
/// sampling of samples on voxel corners (offset type 7) gets a halo channel, which any other
/// sampling does without. Throws what making it throws; the state is then valid and has none.
template <class Traits, class T, int W>
bool initSamplerState(Quern::Ptr<ORV::Object> const& object, Quern::String const& channelName,
                      SamplerType type, bool wantHalo, VolumeSamplerState<Traits, T, W>& state);

/// A channel for the halo of a channel of W samples, sized to `topology`, for tiles of the depths
/// `minDepth` to `maxDepth`. Any number of threads may call it. Throws std::out_of_range for depths
/// that no tree has, and std::bad_alloc. `pooled` takes it from
/// ChannelPool, or its memory from ChannelMemoryPool, where these are enabled. Without
/// `callElementConstructor`, and from a verbose level of 3, a warning goes to standard output.
template <class Traits, class T, int W>
Quern::Ptr<ORV::TileTree3D::Channel<Traits, T, W + 1, 0, 0>>
allocateHaloChannel(ORV::TileTree3D::VoxelTopology<Traits> const& topology, T defaultValue,
                    bool pooled, bool callElementConstructor, int minDepth, int maxDepth);

}  // namespace zel::detail
