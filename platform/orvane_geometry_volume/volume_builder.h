#pragma once

#include <functional>

#include "zel_platform/orvane_geometry_volume/channel.h"

// Volumes made from a function of position: a tree refined where a predicate wants it, and a
// channel with data at every depth, each coarse sample a restriction of the finer ones.
namespace ORV::TileTree3D {

/// Whether the tree shall have a tile of `depth` over the box from `low` to `high`, in world units.
/// Called from many threads at once.
using RefinePredicate = std::function<bool(float3 const& low, float3 const& high, int depth)>;

/// Adds the root, and below each tile the children that the predicate wants, down to `maxDepth`.
/// The order of the tiles does not depend on the number of threads. Throws what addTile and the
/// predicate throw; the tree is then as it was.
template <class Traits>
void refineTree(Container<Traits>& container, int maxDepth, RefinePredicate const& wanted);

/// A function of world position. Called from many threads at once.
template <class T> using PositionFunction = std::function<T(float3 const& position)>;

/// Fills a channel, in parallel: a sample in no finer tile of the channel is the function's value
/// at the sample's place; all others are restricted. Throws std::invalid_argument if the channel is
/// not sized to the topology as it is, and what the function throws, which leaves the samples in
/// part as they were.
template <class Traits, class T>
void fillChannel(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology,
                 PositionFunction<T> const& function);

/// Restricts the deepest samples up the tree, and leaves those that no finer tile covers. Along an
/// axis whose samples lie on voxel faces, a coarse sample takes over the fine sample at the same
/// place; along the others it is the mean of the fine samples in its voxel. Either reproduces a
/// linear function. Throws std::invalid_argument like fillChannel.
template <class Traits, class T>
void restrictChannel(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology);

/// The components of a volume of one channel.
template <class Traits, class T> struct Volume {
    Quern::Ptr<Container<Traits>> container;
    Quern::Ptr<VoxelTopology<Traits>> topology;
    Quern::Ptr<DataChannel<Traits, T>> channel;
};

/// Tree, topology and filled channel in one call.
template <class Traits, class T>
Volume<Traits, T> buildVolume(float voxelSize, int maxDepth, RefinePredicate const& wanted,
                              PositionFunction<T> const& function, T const& defaultValue = T(),
                              VoxelOffsetType type = 7);

#define ZEL_DETAIL_BUILDER(prefix, Traits, T)                                                      \
    prefix template ZEL_PLATFORM_API void fillChannel<Traits, T>(                                  \
        DataChannel<Traits, T>&, VoxelTopology<Traits> const&, PositionFunction<T> const&);        \
    prefix template ZEL_PLATFORM_API void restrictChannel<Traits, T>(                              \
        DataChannel<Traits, T>&, VoxelTopology<Traits> const&);                                    \
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
