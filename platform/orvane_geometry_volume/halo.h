#pragma once

#include "zel_platform/orvane_geometry_volume/channel.h"

// A halo holds the samples of a tile together with the adjacent samples across its faces, edges and
// corners, so that a sampler needs no second tile.
//
// An adjacent sample is that of the tile of the same depth in which its lattice point lies. If
// there is no such tile, it is interpolated in the parent's finished halo, linearly along each
// axis. Outside the root, and where the parent is shallower than the channel's minimum depth, it is
// the channel's default value. A tile deeper than the channel takes all its samples from its
// parent's halo, and a tile shallower than the channel has the default value everywhere.
namespace ORV::TileTree3D {

/// 2 for a halo on the high sides alone, 4 for a halo all round.
using HaloMode = int;
/// 15 for faces, edges and corners on both sides of every axis.
using HaloType = int;

template <int A, int B, int C, int D>
concept HighSideHalo = A == 0 && B == 0 && C == 1 && D == 0;
template <int A, int B, int C, int D>
concept AllRoundHalo = A == 0 && B == 1 && C == 0 && D == 1;

/// Fills the halos of all tiles of depth `minDepth` to `maxDepth` that the halo channel has, for
/// samples on the low corners of their voxels (kOnVoxelCorners): at (i, j, k) the tile's sample if
/// all three are below W, and the sample across the high face along an axis whose index is W.
/// Depths are computed in order, the tiles of a depth in parallel. The result does not depend on
/// the number of threads, nor on the earlier contents of the halo channel. Throws
/// std::invalid_argument if one of the channels is not sized to the container's present tiles, and
/// std::out_of_range for a depth below 0 or depths in the wrong order.
template <class Traits, class T, int A, int B, int C, int D>
requires HighSideHalo<A, B, C, D>
void computeHalo(DataChannel<Traits, T> const& source, Container<Traits> const& container,
                 HaloChannel<Traits, T>& halo, int minDepth, int maxDepth);

/// Computes the halo of one tile into `out`, with the bits of computeHalo(). `parentHalo` is the
/// parent's finished halo; without a usable parent, `parent` is null or `parentHalo` has no data.
/// `out` and `parentHalo` must not overlap. Throws std::invalid_argument for a mode other than 2,
/// for an `out` without data and for a channel that is sized to a tree other than the accessor's.
template <class Traits, class T, int A, int B, int C, int D>
requires HighSideHalo<A, B, C, D>
void setHaloTile(TileOf<Traits> const& tile, TileOf<Traits> const* parent,
                 DataChannel<Traits, T> const& channel,
                 TileData<T, Traits::kSamples + 1, 0, 0>& parentHalo, HaloMode mode,
                 typename Container<Traits>::ConstTileAccessor& accessor,
                 TileData<T, Traits::kSamples + 1, 0, 0>& out);

/// Computes the halo of one tile, by the same rule, with one layer on its low sides and two on its
/// high sides: indices -1 to W + 1. The halos of its ancestors are computed as far as they are
/// needed. `type` is the place of the samples in their voxels. Each sample s is stored as `shift +
/// s * scale`; a shift of 0 and a scale of 1 leave it unchanged. A tile that is not in the tree has
/// the default value everywhere. Throws std::invalid_argument for a mode other than 4, a halo type
/// other than 15, an offset type outside 0 to 7, an `out` without data and a channel that is sized
/// to a tree other than the accessor's.
template <class Traits, class T, int A, int B, int C, int D>
requires AllRoundHalo<A, B, C, D>
void setHaloTile(TreeIndex const& index, DataChannel<Traits, T> const& channel, HaloMode mode,
                 HaloType haloType, typename Container<Traits>::ConstTileAccessor& accessor,
                 TileData<T, Traits::kSamples + 1, 1, 0>& out, T shift, float scale,
                 VoxelOffsetType type);

#define ZEL_DETAIL_HALO(prefix, Traits, T, W)                                                      \
    prefix template ZEL_PLATFORM_API void computeHalo<Traits, T, 0, 0, 1, 0>(                      \
        Channel<Traits, T, W, 0, 0> const&, Container<Traits> const&,                              \
        Channel<Traits, T, W + 1, 0, 0>&, int, int);                                               \
    prefix template ZEL_PLATFORM_API void setHaloTile<Traits, T, 0, 0, 1, 0>(                      \
        TileOf<Traits> const&, TileOf<Traits> const*, Channel<Traits, T, W, 0, 0> const&,          \
        TileData<T, W + 1, 0, 0>&, HaloMode, Container<Traits>::ConstTileAccessor&,                \
        TileData<T, W + 1, 0, 0>&);                                                                \
    prefix template ZEL_PLATFORM_API void setHaloTile<Traits, T, 0, 1, 0, 1>(                      \
        TreeIndex const&, Channel<Traits, T, W, 0, 0> const&, HaloMode, HaloType,                  \
        Container<Traits>::ConstTileAccessor&, TileData<T, W + 1, 1, 0>&, T, float,                \
        VoxelOffsetType)
#define ZEL_DETAIL_HALOS(prefix)                                                                   \
    ZEL_DETAIL_HALO(prefix, BinaryTraits, float, 4);                                               \
    ZEL_DETAIL_HALO(prefix, BinaryTraits, float3, 4);                                              \
    ZEL_DETAIL_HALO(prefix, QuinaryTraits, float, 5);                                              \
    ZEL_DETAIL_HALO(prefix, QuinaryTraits, float3, 5)
ZEL_DETAIL_HALOS(extern);

}  // namespace ORV::TileTree3D
