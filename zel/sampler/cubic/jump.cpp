#include "zel/sampler/cubic/jump.h"

#include <algorithm>
#include <cmath>

namespace ORV::TileTree3D {

namespace {

/// The cell of eight samples of a tile around a point: its lowest voxel, and how far above that
/// voxel's sample the point lies, in voxels.
template <class Traits> struct Cell {
    TileOf<Traits> const* tile;
    int3 lijk;
    float3 frac;

    int3 corner() const { return tile->tijk() + lijk * tile->voxelDataWidth(); }
};

/// The cell around a data point of `depth`, which is finer than the tile over that point. The
/// lowest sample of the cell may be one of a tile below, which may be coarser, or not exist.
template <class Traits>
Cell<Traits> cellAround(TileOf<Traits> const& in, int3 const& tijk, int depth,
                        VoxelOffsetType offsetType,
                        typename Container<Traits>::ConstTileAccessor const& accessor) {
    // Offsets are 0 or half a voxel, and lattice points less than 2^31, so a double is exact.
    double const width = TileOf<Traits>::voxelDataWidth(depth);
    double point[3], offset[3];
    for (int axis = 0; axis < 3; ++axis) {
        offset[axis] = (offsetType >> axis & 1) != 0 ? 0.0 : 0.5;
        point[axis] = tijk[axis] + width * offset[axis];
    }
    Cell<Traits> cell{&in, {}, {}};
    int3 corner;
    auto const locate = [&] {
        double const w = cell.tile->voxelDataWidth();
        for (int axis = 0; axis < 3; ++axis)
            cell.lijk[axis] = static_cast<int>(
                std::floor((point[axis] - cell.tile->tijk()[axis] - w * offset[axis]) / w));
        corner = cell.corner();
    };
    locate();
    // Each pass ends in the tile of that corner, or in a coarser one.
    while (!cell.tile->contains(corner) && cell.tile->depth() > 0) {
        cell.tile = &accessor.tile(corner.x, corner.y, corner.z, cell.tile->depth());
        if (!cell.tile->exists()) return cell;
        locate();
    }
    double const w = cell.tile->voxelDataWidth();
    for (int axis = 0; axis < 3; ++axis)
        cell.frac[axis] = static_cast<float>((point[axis] - (corner[axis] + w * offset[axis])) / w);
    return cell;
}

/// The sample of a voxel of a tile; the default value where the channel has none.
template <class Traits, class T>
T sampleAt(DataChannel<Traits, T> const& channel, TileOf<Traits> const& tile, int3 const& lijk) {
    T const* const samples =
        tile.depth() < channel.minDepth() ? nullptr : channel.samples(tile.treeIndex());
    return samples ? samples[DataChannel<Traits, T>::Layout::flat(lijk.x, lijk.y, lijk.z)]
                   : channel.defaultValue();
}

/// The blend over a cell. Corners beyond the tile are read from its neighbours, or from a coarser
/// tile where there is no neighbour of its depth.
template <class Traits, class T>
T blendCell(Cell<Traits> const& cell, VoxelOffsetType offsetType,
            DataChannel<Traits, T> const& channel,
            typename Container<Traits>::ConstTileAccessor const& accessor) {
    constexpr int kLast = Traits::kSamples - 1;
    auto const& tile = *cell.tile;
    int3 const low = cell.corner();
    int const width = tile.voxelDataWidth();
    T corners[8];
    for (int n = 0; n < 8; ++n) {
        int3 const step{n >> 2, n >> 1 & 1, n & 1};
        int3 voxel = cell.lijk + step, direction;
        for (int axis = 0; axis < 3; ++axis)
            if (voxel[axis] > kLast) {
                voxel[axis] = 0;
                direction[axis] = 1;
            }
        auto const& corner =
            direction == int3{}
                ? tile
                : accessor.tileNeighbor(tile,
                                        neighborDirection(direction.x, direction.y, direction.z));
        corners[n] = corner.depth() == tile.depth()
                         ? sampleAt(channel, corner, voxel)
                         : sampleTilePoint<Traits, T>(corner, low + step * width, tile.depth(),
                                                      offsetType, channel, accessor);
    }
    return Internal::blendCorners(corners, cell.frac);
}

}  // namespace

template <class Traits, class T>
T sampleTilePoint(TileOf<Traits> const& tile, int3 const& tijk, int depth,
                  VoxelOffsetType offsetType, DataChannel<Traits, T> const& channel,
                  typename Container<Traits>::ConstTileAccessor const& accessor) {
    if (!tile.exists() || tile.depth() < channel.minDepth()) return channel.defaultValue();
    if (offsetType != kOnVoxelCorners && tile.depth() != depth) {
        auto const cell = cellAround<Traits>(tile, tijk, depth, offsetType, accessor);
        if (cell.tile->depth() < 1) return channel.defaultValue();
        return blendCell<Traits, T>(cell, offsetType, channel, accessor);
    }
    int const width = tile.voxelDataWidth();
    Cell<Traits> cell{&tile, tile.childDataIJK(tijk), {}};
    int3 const rest = tijk - cell.corner();
    if (rest == int3{}) return sampleAt(channel, tile, cell.lijk);
    if (tile.depth() != depth && tile.depth() < 1) return channel.defaultValue();
    for (int axis = 0; axis < 3; ++axis)
        cell.frac[axis] = static_cast<float>(rest[axis]) / static_cast<float>(width);
    return blendCell<Traits, T>(cell, offsetType, channel, accessor);
}

template <class Traits, class T>
T sampleChannelPoint(int3 const& tijk, int depth, VoxelOffsetType offsetType,
                     DataChannel<Traits, T> const& channel,
                     typename Container<Traits>::ConstTileAccessor const& accessor) {
    int const limit = std::min(channel.depth(), depth);
    return sampleTilePoint<Traits, T>(accessor.tile(tijk.x, tijk.y, tijk.z, limit), tijk, limit,
                                      offsetType, channel, accessor);
}

ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_JUMP, );

}  // namespace ORV::TileTree3D
