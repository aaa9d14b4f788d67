#pragma once

#include <algorithm>
#include <array>
#include <cmath>

#include "zel_platform/orvane_geometry_volume/channel.h"

namespace ORV::TileTree3D::Internal {

/// The samples of a tile and of its neighbours of the same depth, by NeighborDirection; null where
/// there is no such tile, or the channel has no samples of it.
template <class T> struct SurroundingTiles {
    T const* samples[27];

    T const*& operator[](NeighborDirection direction) { return samples[direction]; }
    T const* operator[](NeighborDirection direction) const { return samples[direction]; }
};

/// Looks up a tile and its neighbours, at steps of `lowest` to 1 along each axis. Neighbours lie in
/// the parent and, along each axis, in one more tile of the parent's depth at most: 8 tiles at most
/// are looked up, and their child tables tell the rest.
template <class Traits, class T>
SurroundingTiles<T>
surroundingTiles(TileOf<Traits> const& tile, int lowest, DataChannel<Traits, T> const& channel,
                 typename Container<Traits>::ConstTileAccessor const& accessor) {
    SurroundingTiles<T> around{};
    T const* const own = channel.samples(tile.treeIndex());
    around[neighborDirection(0, 0, 0)] = own;
    // Without samples of this depth there is none to look for, and the root has no neighbour.
    if (!own || tile.depth() == 0) return around;

    constexpr int B = Traits::kBranch;
    auto const& parent = accessor.container().tile(tile.parentTreeIndex());
    int3 const child = parent.childIJK(tile.tijk());
    int3 across{};  // the side of the parent that the neighbours reach over, along each axis
    for (int axis = 0; axis < 3; ++axis)
        across[axis] = child[axis] == B - 1 ? 1 : child[axis] + lowest < 0 ? -1 : 0;
    std::int32_t const* children[8] = {parent.m_children};  // by axis, a bit each
    for (int sides = 1; sides < 8; ++sides) {
        auto const step = [&](int axis) { return (sides >> axis & 1) != 0 ? across[axis] : 0; };
        if (((sides & 1) != 0 && step(0) == 0) || ((sides & 2) != 0 && step(1) == 0) ||
            ((sides & 4) != 0 && step(2) == 0))
            continue;
        auto const& beside =
            accessor.tileNeighbor(parent, neighborDirection(step(0), step(1), step(2)));
        if (beside.depth() == parent.depth()) children[sides] = beside.m_children;
    }
    for (int dz = lowest; dz <= 1; ++dz)
        for (int dy = lowest; dy <= 1; ++dy)
            for (int dx = lowest; dx <= 1; ++dx) {
                if (dx == 0 && dy == 0 && dz == 0) continue;
                int3 const place = child + int3{dx, dy, dz};
                int sides = 0;
                int3 in;
                for (int axis = 0; axis < 3; ++axis) {
                    int const over = place[axis] < 0 ? -1 : place[axis] < B ? 0 : 1;
                    sides |= (over & 1) << axis;
                    in[axis] = place[axis] - over * B;
                }
                std::int32_t const* const table = children[sides];
                std::int32_t const index =
                    table ? table[TileOf<Traits>::childSlot(in.x, in.y, in.z)] : -1;
                if (index >= 0)
                    around[neighborDirection(dx, dy, dz)] = channel.samples({index, tile.depth()});
            }
    return around;
}

/// Fills the halo of one tile, with Low layers on its low sides and High layers on its high sides.
template <class Traits, class T, int Low, int High> class HaloFill {
public:
    static constexpr int kSamples = Traits::kSamples;
    static constexpr int kWidth = Low + kSamples + High;
    static constexpr int kCount = kWidth * kWidth * kWidth;

    HaloFill(TileOf<Traits> const& tile, VoxelOffsetType type) : m_tile(tile), m_type(type) {}

    /// Whether a sample of the halo depends on the parent's halo.
    bool needsParent(SurroundingTiles<T> const& tiles) const {
        if (isComplete(tiles)) return false;
        Axes const axes(m_tile, m_type);
        for (int z = 0; z < kWidth; z += next(z))
            for (int y = 0; y < kWidth; y += next(y))
                for (int x = 0; x < kWidth; x += next(x))
                    if (!tiles[direction(x, y, z)] && axes.inside(x, y, z)) return true;
        return false;
    }

    /// `parent` is the finished halo of the parent, or null.
    void run(SurroundingTiles<T> const& tiles, T const* parent, T const& defaultValue,
             T* out) const {
        if (isComplete(tiles))
            copy(tiles, out);
        else
            fill(tiles, parent, defaultValue, out);
    }

    /// Whether there are samples of all tiles that the halo reaches into.
    static bool isComplete(SurroundingTiles<T> const& tiles) {
        constexpr int kFirst = Low > 0 ? -1 : 0;
        for (int dx = kFirst; dx <= 1; ++dx)
            for (int dy = kFirst; dy <= 1; ++dy)
                for (int dz = kFirst; dz <= 1; ++dz)
                    if (!tiles[neighborDirection(dx, dy, dz)]) return false;
        return true;
    }
    /// run() where there are.
    static void copy(SurroundingTiles<T> const& tiles, T* out) {
        for (int z = 0; z < kWidth; ++z)
            for (int y = 0; y < kWidth; ++y, out += kWidth) {
                T const* const* const row = tiles.samples + neighborDirection(0, step(y), step(z));
                int const first = kSamples * (local(y) + kSamples * local(z));
                if constexpr (Low > 0) std::copy_n(row[-9] + first + kSamples - Low, Low, out);
                std::copy_n(row[0] + first, kSamples, out + Low);
                std::copy_n(row[9] + first, High, out + Low + kSamples);
            }
    }

private:
    static_assert(neighborDirection(1, 0, 0) - neighborDirection(0, 0, 0) == 9);

    /// Along an axis, the step from the tile to the tile with a sample of the halo: -1, 0 or 1; and
    /// the index of the sample in that tile.
    static constexpr int step(int i) { return i < Low ? -1 : i < Low + kSamples ? 0 : 1; }
    static constexpr int local(int i) { return i - Low - step(i) * kSamples; }

    /// The places of a halo's samples along one axis.
    struct Axis {
        bool inside[kWidth];     ///< whether the sample is inside the root
        int parent[kWidth];      ///< place in the parent's halo, rounded down
        float fraction[kWidth];  ///< and the rest

        Axis(TileOf<Traits> const& tile, std::int32_t corner, bool onFace) {
            long long const width = tile.voxelDataWidth();
            // The tile's first voxel, counted from the parent's low face.
            long long const parentWidth = Traits::tileWidth(tile.m_depth - 1);
            long long const first =
                tile.m_depth > 0 ? (Traits::aboveRoot(corner) % parentWidth) / width : 0;
            for (int i = 0; i < kWidth; ++i) {
                int const voxel = i - Low;
                long long const point = corner + width * voxel - Traits::kRootCorner;
                inside[i] = point >= 0 && point < (long long){Traits::kRootWidth};
                // The sample's place, from the first sample of the parent's halo on, in units of
                // half this tile's voxel width.
                constexpr int kParts = 2 * Traits::kBranch;
                long long const place =
                    2 * (first + voxel) + (onFace ? 0 : 1 - Traits::kBranch) + kParts * Low;
                parent[i] = static_cast<int>(place / kParts);
                fraction[i] = static_cast<float>(place % kParts) / static_cast<float>(kParts);
            }
        }
    };
    struct Axes {
        Axis x, y, z;

        Axes(TileOf<Traits> const& tile, VoxelOffsetType type)
            : x(tile, tile.m_tijk.x, (type & 1) != 0), y(tile, tile.m_tijk.y, (type & 2) != 0),
              z(tile, tile.m_tijk.z, (type & 4) != 0) {}

        bool inside(int i, int j, int k) const { return x.inside[i] && y.inside[j] && z.inside[k]; }
    };

    void fill(SurroundingTiles<T> const& tiles, T const* parent, T const& defaultValue,
              T* out) const {
        Axes const axes(m_tile, m_type);
        for (int z = 0; z < kWidth; ++z)
            for (int y = 0; y < kWidth; ++y) {
                T* const row = out + kWidth * (y + kWidth * z);
                int x = 0;
                while (x < kWidth) {
                    T const* const from = tiles[direction(x, y, z)];
                    int const end = x + next(x);
                    if (from) {
                        std::copy_n(from + local(x) + kSamples * (local(y) + kSamples * local(z)),
                                    end - x, row + x);
                        x = end;
                        continue;
                    }
                    for (; x < end; ++x)
                        row[x] = parent && axes.inside(x, y, z) ? parentValue(axes, parent, x, y, z)
                                                                : defaultValue;
                }
            }
    }

    /// The number of samples from `s` on, along a row, that lie in the same tile.
    static constexpr int next(int s) {
        return s < Low ? Low - s : s < Low + kSamples ? Low + kSamples - s : kWidth - s;
    }

    static NeighborDirection direction(int x, int y, int z) {
        return neighborDirection(step(x), step(y), step(z));
    }

    /// The parent's halo at a sample, interpolated along x, then y, then z. For a fraction of 0 the
    /// second sample, which may lie beyond the halo, is not read.
    static T parentValue(Axes const& axes, T const* parent, int x, int y, int z) {
        float const fx = axes.x.fraction[x], fy = axes.y.fraction[y], fz = axes.z.fraction[z];
        T const* const corner =
            parent + axes.x.parent[x] + kWidth * (axes.y.parent[y] + kWidth * axes.z.parent[z]);
        auto const row = [&](int dy, int dz) {
            T const* const first = corner + kWidth * (dy + kWidth * dz);
            return fx == 0 ? *first : lerp(first[0], first[1], fx);
        };
        auto const plane = [&](int dz) {
            return fy == 0 ? row(0, dz) : lerp(row(0, dz), row(1, dz), fy);
        };
        return fz == 0 ? plane(0) : lerp(plane(0), plane(1), fz);
    }
    /// Linear interpolation that is finite between finite ends, since it subtracts only numbers of
    /// the same sign, and returns `a` where both ends are the same infinity.
    static float lerp(float a, float b, float t) {
        if (a == b && std::isinf(a)) return a;
        return (a < 0) == (b < 0) ? (b - a) * t + a : a * (1 - t) + b * t;
    }
    static float3 lerp(float3 const& a, float3 const& b, float t) {
        return {lerp(a.x, b.x, t), lerp(a.y, b.y, t), lerp(a.z, b.z, t)};
    }

    TileOf<Traits> const& m_tile;
    VoxelOffsetType m_type;
};

}  // namespace ORV::TileTree3D::Internal
