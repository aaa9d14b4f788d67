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

/// Looks up a tile and its neighbours, at steps of `lowest` to 1 along each axis.
template <class Traits, class T>
SurroundingTiles<T>
surroundingTiles(TileOf<Traits> const& tile, int lowest, DataChannel<Traits, T> const& channel,
                 typename Container<Traits>::ConstTileAccessor const& accessor) {
    SurroundingTiles<T> around{};
    T const* const own = channel.samples(tile.treeIndex());
    around[neighborDirection(0, 0, 0)] = own;
    if (!own) return around;  // the channel has no tile of this depth
    for (int dz = lowest; dz <= 1; ++dz)
        for (int dy = lowest; dy <= 1; ++dy)
            for (int dx = lowest; dx <= 1; ++dx) {
                if (dx == 0 && dy == 0 && dz == 0) continue;
                NeighborDirection const direction = neighborDirection(dx, dy, dz);
                auto const& neighbor = accessor.tileNeighbor(tile, direction);
                if (neighbor.depth() == tile.depth())
                    around[direction] = channel.samples(neighbor.treeIndex());
            }
    return around;
}

/// Fills the halo of one tile, with Low layers on its low sides and High layers on its high sides.
template <class Traits, class T, int Low, int High> class HaloFill {
public:
    static constexpr int kSamples = Traits::kSamples;
    static constexpr int kWidth = Low + kSamples + High;
    static constexpr int kCount = kWidth * kWidth * kWidth;

    HaloFill(TileOf<Traits> const& tile, VoxelOffsetType type)
        : m_x(axis(tile, tile.m_tijk.x, (type & 1) != 0)),
          m_y(axis(tile, tile.m_tijk.y, (type & 2) != 0)),
          m_z(axis(tile, tile.m_tijk.z, (type & 4) != 0)) {}

    /// Whether a sample of the halo depends on the parent's halo.
    bool needsParent(SurroundingTiles<T> const& tiles) const {
        for (int z = 0; z < kWidth; z += next(z))
            for (int y = 0; y < kWidth; y += next(y))
                for (int x = 0; x < kWidth; x += next(x))
                    if (!tiles[direction(x, y, z)] && inside(x, y, z)) return true;
        return false;
    }

    /// `parent` is the finished halo of the parent, or null.
    void run(SurroundingTiles<T> const& tiles, T const* parent, T const& defaultValue,
             T* out) const {
        for (int z = 0; z < kWidth; ++z)
            for (int y = 0; y < kWidth; ++y) {
                T* const row = out + kWidth * (y + kWidth * z);
                int x = 0;
                while (x < kWidth) {
                    T const* const from = tiles[direction(x, y, z)];
                    int const end = x + next(x);
                    if (from) {
                        std::copy_n(from + local(x, y, z), end - x, row + x);
                        x = end;
                        continue;
                    }
                    for (; x < end; ++x)
                        row[x] =
                            parent && inside(x, y, z) ? parentValue(parent, x, y, z) : defaultValue;
                }
            }
    }

private:
    /// The places of a halo's samples along one axis.
    struct Axis {
        int step[kWidth];        ///< from the tile to the tile with the sample: -1, 0 or 1
        int local[kWidth];       ///< index of the sample in that tile
        bool inside[kWidth];     ///< whether the sample is inside the root
        int parent[kWidth];      ///< place in the parent's halo, rounded down
        float fraction[kWidth];  ///< and the rest
    };

    static Axis axis(TileOf<Traits> const& tile, std::int32_t corner, bool onFace) {
        Axis axis;
        long long const width = tile.voxelDataWidth();
        // The tile's first voxel, counted from the parent's low face.
        long long const parentWidth = Traits::tileWidth(tile.m_depth - 1);
        long long const first =
            tile.m_depth > 0 ? (Traits::aboveRoot(corner) % parentWidth) / width : 0;
        for (int i = 0; i < kWidth; ++i) {
            int const voxel = i - Low;
            axis.step[i] = voxel < 0 ? -1 : voxel < kSamples ? 0 : 1;
            axis.local[i] = voxel - axis.step[i] * kSamples;
            long long const point = corner + width * voxel - Traits::kRootCorner;
            axis.inside[i] = point >= 0 && point < (long long){Traits::kRootWidth};
            // The sample's place, from the first sample of the parent's halo on, in units of half
            // this tile's voxel width.
            constexpr int kParts = 2 * Traits::kBranch;
            long long const place =
                2 * (first + voxel) + (onFace ? 0 : 1 - Traits::kBranch) + kParts * Low;
            axis.parent[i] = static_cast<int>(place / kParts);
            axis.fraction[i] = static_cast<float>(place % kParts) / static_cast<float>(kParts);
        }
        return axis;
    }

    /// The number of samples from `s` on, along a row, that lie in the same tile.
    static constexpr int next(int s) {
        return s < Low ? Low - s : s < Low + kSamples ? Low + kSamples - s : kWidth - s;
    }

    NeighborDirection direction(int x, int y, int z) const {
        return neighborDirection(m_x.step[x], m_y.step[y], m_z.step[z]);
    }
    bool inside(int x, int y, int z) const {
        return m_x.inside[x] && m_y.inside[y] && m_z.inside[z];
    }
    int local(int x, int y, int z) const {
        return m_x.local[x] + kSamples * (m_y.local[y] + kSamples * m_z.local[z]);
    }

    /// The parent's halo at a sample, interpolated along x, then y, then z. For a fraction of 0 the
    /// second sample, which may lie beyond the halo, is not read.
    T parentValue(T const* parent, int x, int y, int z) const {
        float const fx = m_x.fraction[x], fy = m_y.fraction[y], fz = m_z.fraction[z];
        T const* const corner =
            parent + m_x.parent[x] + kWidth * (m_y.parent[y] + kWidth * m_z.parent[z]);
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

    Axis m_x, m_y, m_z;
};

}  // namespace ORV::TileTree3D::Internal
