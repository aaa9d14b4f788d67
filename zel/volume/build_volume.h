#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

#include "zel/field/scalar_field.h"
#include "zel/field/stopped.h"
#include "zel/field/vector_field.h"
#include "zel_platform/orvane_geometry_volume/object.h"
#include "zel_platform/orvane_geometry_volume/volume_builder.h"

// Volumes made of fields: a channel that batches fill, a tree that is fine where a field is near 0,
// and the object that holds both. Positions and lengths are in world units.
//
// Values have the bits of a batch `eval`, on any number of threads. Each call runs `preSampleField`
// once, before it evaluates anything, and `postSampleField` once, at the end, both on the calling
// thread. An exception of a node, or of `progress`, reaches the caller with its type, and leaves
// `postSampleField` uncalled. If a node cancels the task group in which it is evaluated, the call
// throws std::runtime_error. If the stop token asks for it, the call ends after the next thousand
// positions or so of each thread and throws zel::Stopped; but not while it clears the memory of a
// channel or restricts its samples, which takes some nanoseconds a sample.
//
// Any number of threads may call these functions at once, also for the same field. No other thread
// may use a channel while it is filled, nor add tiles to its tree.
namespace zel {

using Core::Fields::ScalarField;
using Core::Fields::VectorField;
using ORV::TileTree3D::BinaryTraits;
using ORV::TileTree3D::QuinaryTraits;
using Orvane::Math::float3;

struct FillOptions {
    bool parallel = true;    ///< false: on the calling thread alone
    std::stop_token stop{};  ///< asks the call to stop
    /// Reports that `done` of `all` positions are evaluated: at most every 20 ms, from one thread
    /// at a time, and at the end, with `done` equal to `all`.
    std::function<void(std::size_t done, std::size_t all)> progress{};
};

/// Fills a channel with a field: a sample that no finer tile of the channel covers is set to the
/// field's value at the sample's place; all others are restricted, as by
/// ORV::TileTree3D::restrictChannel. The field is evaluated at all samples of a tile, unless finer
/// tiles cover all of them. The element index of a sample is its number at its depth: the tile's
/// number times the samples of a tile, plus the sample's place in the tile.
///
/// Throws std::invalid_argument if the channel is not sized to the topology's present tiles. After
/// any other exception the samples of the channel are unspecified.
template <class Traits>
void fillChannel(ORV::TileTree3D::DataChannel<Traits, float>& channel,
                 ORV::TileTree3D::VoxelTopology<Traits> const& topology, ScalarField const& field,
                 FillOptions const& options = {});
template <class Traits>
void fillChannel(ORV::TileTree3D::DataChannel<Traits, float3>& channel,
                 ORV::TileTree3D::VoxelTopology<Traits> const& topology, VectorField const& field,
                 FillOptions const& options = {});

/// A box whose edges are parallel to the axes.
struct Box {
    float3 low, high;
};

struct BuildOptions {
    /// Down to this depth, all tiles that meet the box are made. The default is the deepest depth
    /// whose tiles are at least an eighth of the box's longest edge wide, or 0. A greater depth
    /// finds parts of the band that are far smaller than the box.
    std::optional<int> minDepth{};
    /// No tile is deeper. The default is Traits::kMaxDepth, the depth of voxels of `voxelSize`.
    std::optional<int> maxDepth{};
    /// The number of tiles at which the call gives up.
    long long maxTiles = 1LL << 31;
    float outside = 0;       ///< the value outside the root
    bool parallel = true;    ///< as in FillOptions
    std::stop_token stop{};  ///< as in FillOptions
    /// As in FillOptions; `all` grows while the tree is refined.
    std::function<void(std::size_t done, std::size_t all)> progress{};
};

/// Makes a volume that is fine where |field| < band * voxelSize, as around a surface, and coarse
/// elsewhere. `voxelSize` is the width of the finest voxels, whose corners lie on its multiples.
/// The root is Traits::kRootWidth voxels wide, with its centre at the origin; only tiles that meet
/// the box are refined. So coarse samples of the field are taken far outside the box, too. Samples
/// lie on the low corners of their voxels.
///
/// A tile is made if it may contain a point of the band. The field is evaluated at its centre,
/// with the gradient, and at its corners. A tile of width w is made if
///
///     |c| < band * voxelSize + 1.1 * (g * w * sqrt(3) / 2 + d)
///
/// where c is the value at the centre, and g the length of a gradient: of the field's gradient
/// there, or of the slope of the plane through the centre that fits the corners best, whichever is
/// longer. d is the largest deviation of a corner from that plane. So no part of the band is lost
/// of a sphere, a plane or another field whose variation in a tile shows at the nine points; it is
/// no matter if the gradient is computed by differences, or is NaN. An infinite one makes the tile.
/// A part that lies between the points of all tiles of `minDepth` is lost. A tile is also made if
/// some of the nine values are finite and others not.
///
/// Time and memory are those of the band: the deepest tiles take most of both.
/// While the tree is refined, the element indices mean nothing.
///
/// Throws std::invalid_argument for a `voxelSize` that is not positive and finite, a `band` that is
/// negative or not finite, a box that is empty, not finite or not inside the root, and for depths
/// that are not 0 <= minDepth <= maxDepth <= Traits::kMaxDepth, or a negative `maxTiles`;
/// std::length_error if the tree would exceed `maxTiles`; std::bad_alloc.
template <class Traits>
ORV::TileTree3D::Volume<Traits, float> buildVolume(ScalarField const& field, Box const& box,
                                                   float voxelSize, float band,
                                                   BuildOptions const& options = {});

/// Makes a channel of another field over the tree of a volume; the two volumes share tree and
/// topology. `outside` is the value outside the root. Throws std::invalid_argument if the volume
/// lacks a tree or a topology, or if they do not belong together.
template <class Traits, class T>
ORV::TileTree3D::Volume<Traits, float> buildVolume(ORV::TileTree3D::Volume<Traits, T> const& tree,
                                                   ScalarField const& field, float outside = 0,
                                                   FillOptions const& options = {});
template <class Traits, class T>
ORV::TileTree3D::Volume<Traits, float3> buildVolume(ORV::TileTree3D::Volume<Traits, T> const& tree,
                                                    VectorField const& field, float3 outside = {},
                                                    FillOptions const& options = {});

/// A volume, and the name by which volume fields look up its channel.
struct NamedVolume {
    template <class Traits, class T>
    NamedVolume(Quern::String channelName, ORV::TileTree3D::Volume<Traits, T> const& volume)
        : name(std::move(channelName)), container(volume.container), topology(volume.topology),
          channel(volume.channel),
          matches(volume.container && volume.topology && volume.channel &&
                  &volume.topology->container() == volume.container.get() &&
                  volume.channel->fits(*volume.container)) {}

    Quern::String name;
    Quern::Ptr<ORV::Component> container, topology, channel;
    bool matches;  ///< whether there are all three, and topology and channel are those of the tree
};

/// Makes the object that Orvane::Geometry::setVolume takes, with the channels of volumes that share
/// one tree and one topology:
///
///     setVolume(object, zel::toVolumeObject({{"distance", ball}, {"wind", wind}}));
///
/// Throws std::invalid_argument, with the name of the channel, for volumes with different trees or
/// topologies, for a volume that lacks a component or whose channel is not sized to its tree, and
/// for a name that is empty, used twice, or that of the tree or the topology in a volume object;
/// also if there is no volume at all.
ZEL_API Quern::Ptr<ORV::Object> toVolumeObject(std::vector<NamedVolume> const& volumes);

#define ZEL_DETAIL_FILL_CHANNEL(prefix, Traits, T, Interface)                                      \
    prefix template ZEL_API void fillChannel(ORV::TileTree3D::DataChannel<Traits, T>&,             \
                                             ORV::TileTree3D::VoxelTopology<Traits> const&,        \
                                             Interface const&, FillOptions const&)
#define ZEL_DETAIL_FILL_CHANNELS(prefix)                                                           \
    ZEL_DETAIL_FILL_CHANNEL(prefix, BinaryTraits, float, ScalarField);                             \
    ZEL_DETAIL_FILL_CHANNEL(prefix, BinaryTraits, float3, VectorField);                            \
    ZEL_DETAIL_FILL_CHANNEL(prefix, QuinaryTraits, float, ScalarField);                            \
    ZEL_DETAIL_FILL_CHANNEL(prefix, QuinaryTraits, float3, VectorField)
ZEL_DETAIL_FILL_CHANNELS(extern);

#define ZEL_DETAIL_BUILD_OVER(prefix, Traits, T, Value, Interface)                                 \
    prefix template ZEL_API ORV::TileTree3D::Volume<Traits, Value> buildVolume(                    \
        ORV::TileTree3D::Volume<Traits, T> const&, Interface const&, Value, FillOptions const&)
#define ZEL_DETAIL_BUILD_VOLUME(prefix, Traits)                                                    \
    prefix template ZEL_API ORV::TileTree3D::Volume<Traits, float> buildVolume<Traits>(            \
        ScalarField const&, Box const&, float, float, BuildOptions const&);                        \
    ZEL_DETAIL_BUILD_OVER(prefix, Traits, float, float, ScalarField);                              \
    ZEL_DETAIL_BUILD_OVER(prefix, Traits, float3, float, ScalarField);                             \
    ZEL_DETAIL_BUILD_OVER(prefix, Traits, float, float3, VectorField);                             \
    ZEL_DETAIL_BUILD_OVER(prefix, Traits, float3, float3, VectorField)
#define ZEL_DETAIL_BUILD_VOLUMES(prefix)                                                           \
    ZEL_DETAIL_BUILD_VOLUME(prefix, BinaryTraits);                                                 \
    ZEL_DETAIL_BUILD_VOLUME(prefix, QuinaryTraits)
ZEL_DETAIL_BUILD_VOLUMES(extern);

}  // namespace zel
