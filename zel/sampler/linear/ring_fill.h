#pragma once

#include <array>

#include "zel/sampler/common/instances.h"
#include "zel_platform/orvane_geometry_volume/tile_data.h"

// Ring tiles: the samples of a tile and one layer more on all six sides, for topologies whose
// samples do not all lie on the low corners of their voxels.
//
// A sample of the ring is that of the neighbour of the same depth, where there is one and, across
// an edge or a corner, all tiles between exist too. Elsewhere
// the ring continues the coarser level. Along an axis whose samples lie at the middle of voxels,
// the value midway between the last sample and that of the ring is the coarse value at the tile's
// face. Along an axis whose samples lie on voxel faces, the layer on the tile's face takes the
// coarse value itself, and a layer below that is extrapolated.
namespace ORV::TileTree3D {

/// The samples of a tile and its ring: indices -1 to W.
template <class Traits, class T> using RingTile = TileData<T, Traits::kSamples, 1, 0>;
/// The samples of a tile.
template <class Traits, class T> using OwnData = ConstTileData<T, Traits::kSamples, 0, 0>;
/// The samples of the tiles of the same depth around a tile, by NeighborDirection; no data where
/// there is no such tile. That of direction 13, the tile itself, is not read.
template <class Traits, class T> using NeighborData = std::array<OwnData<Traits, T>, 27>;

/// Fills a ring tile. `in_parent` is the parent's ring tile, and (`in_ci`, `in_cj`, `in_ck`) the
/// child position of the tile in it, 0 to B - 1 along each axis; it is read where a neighbour is
/// missing, linearly between its samples, and reproduces linear functions.
template <class Traits, class T>
void fillRingTile(VoxelOffsetType in_offsetType, RingTile<Traits, T> const& in_parent, int in_ci,
                  int in_cj, int in_ck, OwnData<Traits, T> const& in_own,
                  NeighborData<Traits, T> const& in_neighbors, RingTile<Traits, T>& io_ring);

/// Fills a ring tile so that the value at the tile's faces is `in_default`: for a tile without a
/// parent to read.
template <class Traits, class T>
void fillRingTileFromDefault(VoxelOffsetType in_offsetType, T const& in_default,
                             OwnData<Traits, T> const& in_own, RingTile<Traits, T>& io_ring);

#define ZEL_DETAIL_RING_FILL(prefix, Traits, T)                                                    \
    prefix template void fillRingTile<Traits, T>(                                                  \
        VoxelOffsetType, RingTile<Traits, T> const&, int, int, int, OwnData<Traits, T> const&,     \
        NeighborData<Traits, T> const&, RingTile<Traits, T>&);                                     \
    prefix template void fillRingTileFromDefault<Traits, T>(                                       \
        VoxelOffsetType, T const&, OwnData<Traits, T> const&, RingTile<Traits, T>&)
ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_RING_FILL, extern);

}  // namespace ORV::TileTree3D
