#pragma once

#include <algorithm>
#include <array>
#include <cmath>

#include "zel_platform/orvane_geometry_volume/channel.h"

namespace ORV::TileTree3D::Internal {

/// The samples of a tile and of the tiles of its depth around it, by NeighborDirection; null where
/// there are none.
template <class T> using SurroundingTiles = std::array<T const*, 27>;

/// Looks up the tiles around a tile: those at steps of `lowest` to 1 along each axis.
template <class Traits, class T>
SurroundingTiles<T> tileBlock(TileOf<Traits> const& tile, int lowest,
                              DataChannel<Traits, T> const& channel,
                              typename Container<Traits>::ConstTileAccessor const& accessor) {
    SurroundingTiles<T> block{};
    block[13] = channel.samples(tile.treeIndex());
    if (!block[13]) return block;  // the channel has no tile of this depth
    for (int dz = lowest; dz <= 1; ++dz)
        for (int dy = lowest; dy <= 1; ++dy)
            for (int dx = lowest; dx <= 1; ++dx) {
                NeighborDirection const direction = neighborDirection(dx, dy, dz);
                if (direction == 13) continue;
                auto const& neighbor = accessor.tileNeighbor(tile, direction);
                if (neighbor.depth() == tile.depth())
                    block[static_cast<unsigned>(direction)] = channel.samples(neighbor.treeIndex());
            }
    return block;
}

/// Fills the halo of one tile, of Low layers on its low sides and High on its high sides.
template <class Traits, class T, int Low, int High> class HaloFill {
public:
    static constexpr int kSamples = Traits::kSamples;
    static constexpr int kWidth = Low + kSamples + High;
    static constexpr int kCount = kWidth * kWidth * kWidth;

    HaloFill(TileOf<Traits> const& tile, VoxelOffsetType type)
        : m_axes{axis(tile, tile.m_tijk.x, (type & 1) != 0),
                 axis(tile, tile.m_tijk.y, (type & 2) != 0),
                 axis(tile, tile.m_tijk.z, (type & 4) != 0)} {}

    /// Whether a sample of the halo has to come from the parent.
    bool needsParent(SurroundingTiles<T> const& block) const {
        for (int z = 0; z < kWidth; z += next(z))
            for (int y = 0; y < kWidth; y += next(y))
                for (int x = 0; x < kWidth; x += next(x))
                    if (!block[direction(x, y, z)] && inside(x, y, z)) return true;
        return false;
    }

    /// `parent` is the finished halo of the parent, or null.
    void run(SurroundingTiles<T> const& block, T const* parent, T const& defaultValue,
             T* out) const {
        for (int z = 0; z < kWidth; ++z)
            for (int y = 0; y < kWidth; ++y) {
                T* const row = out + kWidth * (y + kWidth * z);
                int x = 0;
                while (x < kWidth) {
                    T const* const from = block[direction(x, y, z)];
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
    /// Where the samples of a halo lie along one axis.
    struct Axis {
        std::array<int, kWidth> step;  ///< the tile, one before or one behind
        std::array<int, kWidth> local;
        std::array<bool, kWidth> inside;  ///< the root
        std::array<int, kWidth> parent;   ///< place in the parent's halo, rounded down
        std::array<float, kWidth> fraction;
    };

    static Axis axis(TileOf<Traits> const& tile, std::int32_t corner, bool onFace) {
        Axis axis;
        long long const width = tile.voxelDataWidth();
        // The tile's first voxel, counted from the parent's low face.
        long long const parentWidth = Traits::tileWidth(tile.m_depth - 1);
        long long const first =
            tile.m_depth > 0 ? (Traits::aboveRoot(corner) % parentWidth) / width : 0;
        for (int s = 0; s < kWidth; ++s) {
            auto const i = static_cast<unsigned>(s);
            int const voxel = s - Low;
            axis.step[i] = voxel < 0 ? -1 : voxel < kSamples ? 0 : 1;
            axis.local[i] = voxel - axis.step[i] * kSamples;
            long long const point = corner + width * voxel - Traits::kRootCorner;
            axis.inside[i] = point >= 0 && point < (long long){Traits::kRootWidth};
            // The sample's place in halves of a B-th of a parent voxel, from the parent's sample 0.
            constexpr int kParts = 2 * Traits::kBranch;
            long long const place =
                2 * (first + voxel) + (onFace ? 0 : 1 - Traits::kBranch) + kParts * Low;
            axis.parent[i] = static_cast<int>(place / kParts);
            axis.fraction[i] = static_cast<float>(place % kParts) / static_cast<float>(kParts);
        }
        return axis;
    }

    /// How many samples on along a row the tile may change.
    static constexpr int next(int s) {
        return s < Low ? Low - s : s < Low + kSamples ? Low + kSamples - s : kWidth - s;
    }

    std::size_t direction(int x, int y, int z) const {
        return static_cast<std::size_t>(
            neighborDirection(at(m_axes[0].step, x), at(m_axes[1].step, y), at(m_axes[2].step, z)));
    }
    bool inside(int x, int y, int z) const {
        return at(m_axes[0].inside, x) && at(m_axes[1].inside, y) && at(m_axes[2].inside, z);
    }
    int local(int x, int y, int z) const {
        return at(m_axes[0].local, x) +
               kSamples * (at(m_axes[1].local, y) + kSamples * at(m_axes[2].local, z));
    }

    /// Linear along x, then y, then z. A fraction of 0 reads no sample beyond.
    T parentValue(T const* parent, int x, int y, int z) const {
        float const fx = at(m_axes[0].fraction, x), fy = at(m_axes[1].fraction, y),
                    fz = at(m_axes[2].fraction, z);
        T const* const corner =
            parent + at(m_axes[0].parent, x) +
            kWidth * (at(m_axes[1].parent, y) + kWidth * at(m_axes[2].parent, z));
        auto const row = [&](int dy, int dz) {
            T const* const first = corner + kWidth * (dy + kWidth * dz);
            return fx == 0 ? *first : lerp(first[0], first[1], fx);
        };
        auto const plane = [&](int dz) {
            return fy == 0 ? row(0, dz) : lerp(row(0, dz), row(1, dz), fy);
        };
        return fz == 0 ? plane(0) : lerp(plane(0), plane(1), fz);
    }
    /// `a` for equal ends, infinite ones too, and finite between finite ones: what is subtracted
    /// has one sign.
    static float lerp(float a, float b, float t) {
        if (a == b && std::isinf(a)) return a;
        return (a < 0) == (b < 0) ? (b - a) * t + a : a * (1 - t) + b * t;
    }
    static float3 lerp(float3 const& a, float3 const& b, float t) {
        return {lerp(a.x, b.x, t), lerp(a.y, b.y, t), lerp(a.z, b.z, t)};
    }

    template <class Value> static Value const& at(std::array<Value, kWidth> const& values, int i) {
        return values[static_cast<unsigned>(i)];
    }

    std::array<Axis, 3> m_axes;
};

}  // namespace ORV::TileTree3D::Internal
