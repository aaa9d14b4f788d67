#pragma once

#include <functional>

#include "zel_platform/orvane_geometry_volume/channel.h"

// Builds volumes from a function of position: a tree that is refined where a predicate holds, and a
// channel with data at every depth, in which each coarse sample is a restriction of finer samples.
namespace ORV::TileTree3D {

/// Returns whether the tree is to have a tile of `depth` over the box from `low` to `high`, in
/// world units. Called from many threads at once.
using RefinePredicate = std::function<bool(float3 const& low, float3 const& high, int depth)>;

/// Adds the root, and below each tile the children for which the predicate holds, down to
/// `maxDepth`. The order of the tiles does not depend on the number of threads. Throws the
/// exceptions of addTile and of the predicate; the tree is then unchanged.
template <class Traits>
void refineTree(Container<Traits>& container, int maxDepth, RefinePredicate const& wanted);

/// A function of world position. Called from many threads at once.
template <class T> using PositionFunction = std::function<T(float3 const& position)>;

/// Fills a channel, in parallel: a sample that no finer tile of the channel covers is set to the
/// function's value at the sample's place; all others are restricted. Throws std::invalid_argument
/// if the channel is not sized to the topology's present tiles. An exception of the function is
/// passed on, and leaves part of the samples unchanged.
template <class Traits, class T>
void fillChannel(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology,
                 PositionFunction<T> const& function);

/// Sets each sample that a finer tile covers to a restriction of the finer samples, from the
/// deepest depth upwards. Along an axis whose samples lie on voxel faces, a coarse sample is a copy
/// of the fine sample at the same place; along the other axes it is the mean of the fine samples in
/// its voxel. Both reproduce a linear function. Throws std::invalid_argument like fillChannel.
template <class Traits, class T>
void restrictChannel(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology);
/// The same, with a call of `pause` between parts of the work. An exception of it is passed on, and
/// leaves part of the samples unchanged.
template <class Traits, class T>
void restrictChannel(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology,
                     std::function<void()> const& pause);

/// The components of a volume of one channel.
template <class Traits, class T> struct Volume {
    Quern::Ptr<Container<Traits>> container;
    Quern::Ptr<VoxelTopology<Traits>> topology;
    Quern::Ptr<DataChannel<Traits, T>> channel;
};

/// Makes the tree, the topology and the filled channel of a volume.
template <class Traits, class T>
Volume<Traits, T> buildVolume(float voxelSize, int maxDepth, RefinePredicate const& wanted,
                              PositionFunction<T> const& function, T const& defaultValue = T(),
                              VoxelOffsetType type = kOnVoxelCorners);

#define ZEL_DETAIL_BUILDER(prefix, Traits, T)                                                      \
    prefix template ZEL_PLATFORM_API void fillChannel<Traits, T>(                                  \
        DataChannel<Traits, T>&, VoxelTopology<Traits> const&, PositionFunction<T> const&);        \
    prefix template ZEL_PLATFORM_API void restrictChannel<Traits, T>(                              \
        DataChannel<Traits, T>&, VoxelTopology<Traits> const&);                                    \
    prefix template ZEL_PLATFORM_API void restrictChannel<Traits, T>(                              \
        DataChannel<Traits, T>&, VoxelTopology<Traits> const&, std::function<void()> const&);      \
    prefix template ZEL_PLATFORM_API Volume<Traits, T> buildVolume<Traits, T>(                     \
        float, int, RefinePredicate const&, PositionFunction<T> const&, T const&, VoxelOffsetType)
#define ZEL_DETAIL_BUILDERS(prefix)                                                                \
    prefix template ZEL_PLATFORM_API void refineTree(Container<BinaryTraits>&, int,                \
                                                     RefinePredicate const&);                      \
    prefix template ZEL_PLATFORM_API void refineTree(Container<QuinaryTraits>&, int,               \
                                                     RefinePredicate const&);                      \
    ZEL_DETAIL_BUILDER(prefix, BinaryTraits, float);                                               \
    ZEL_DETAIL_BUILDER(prefix, BinaryTraits, float3);                                              \
    ZEL_DETAIL_BUILDER(prefix, QuinaryTraits, float);                                              \
    ZEL_DETAIL_BUILDER(prefix, QuinaryTraits, float3)
ZEL_DETAIL_BUILDERS(extern);

}  // namespace ORV::TileTree3D
