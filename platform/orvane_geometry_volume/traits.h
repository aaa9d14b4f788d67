#pragma once

#include <array>
#include <compare>
#include <cstdint>

#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/platform_api.h"

namespace ORV::TileTree3D {

using Orvane::Math::float3;
using Orvane::Math::int3;

/// The shape of a tree: a tile has `B` children and `W` samples along each axis. Two kinds exist,
/// Traits<2, 4, 1> and Traits<5, 5, 1>. The unit of the lattice, and of all widths, is the finest
/// voxel.
template <int B, int W, int X> struct ZEL_PLATFORM_API Traits {
    static_assert((B == 2 && W == 4 && X == 1) || (B == 5 && W == 5 && X == 1),
                  "a tree is of one of two kinds");

    static constexpr int kBranch = B;
    static constexpr int kSamples = W;
    static constexpr int kChildCount = B * B * B;
    static constexpr int kSampleCount = W * W * W;
    /// The deepest depth, where a voxel is one finest voxel wide.
    static constexpr int kMaxDepth = B == 2 ? 28 : 12;

    /// Entry d + 1 is the voxel width of depth d. The first entry is that of the sentinel's depth,
    /// -1.
    static constexpr std::array<std::int32_t, kMaxDepth + 2> kVoxelWidths = [] {
        std::array<std::int32_t, kMaxDepth + 2> widths{};
        std::int32_t width = 1;
        for (int depth = kMaxDepth; depth >= 0; --depth, width *= depth >= 0 ? B : 1)
            widths[static_cast<unsigned>(depth) + 1] = width;
        widths[0] = 1;
        return widths;
    }();

    /// The width of a voxel of a tile of `depth`; 1 for a depth that no tile has.
    static constexpr int voxelWidth(int depth) {
        if (static_cast<unsigned>(depth) > unsigned{kMaxDepth}) return 1;
        if constexpr (B == 2) return 1 << (kMaxDepth - depth);
        return kVoxelWidths[static_cast<unsigned>(depth) + 1];
    }
    /// The width of a tile of `depth`, W voxels.
    static constexpr int tileWidth(int depth) { return W * voxelWidth(depth); }

    static constexpr std::uint32_t kRootWidth = W * static_cast<std::uint32_t>(kVoxelWidths[1]);
    /// The low corner of the root tile, along each axis.
    static constexpr std::int32_t kRootCorner = -static_cast<std::int32_t>(kRootWidth / 2);

    /// The distance of a lattice coordinate from the root's low corner. Outside the root the result
    /// is kRootWidth or more, for every 32-bit coordinate.
    static constexpr std::uint32_t aboveRoot(std::int32_t coordinate) {
        return static_cast<std::uint32_t>(coordinate) - static_cast<std::uint32_t>(kRootCorner);
    }
};

using BinaryTraits = Traits<2, 4, 1>;
using QuinaryTraits = Traits<5, 5, 1>;

/// The index of a tile in a tree and in its channels: its depth, and its place among the tiles of
/// that depth.
struct TreeIndex {
    long long tile = -1;
    int depth = -1;

    /// False for (-1, -1), which names no tile.
    constexpr bool valid() const { return tile >= 0 && depth >= 0; }
    constexpr bool operator==(TreeIndex const&) const = default;
    /// By depth first, then by tile.
    friend constexpr std::strong_ordering operator<=>(TreeIndex const& a, TreeIndex const& b) {
        return a.depth != b.depth ? a.depth <=> b.depth : a.tile <=> b.tile;
    }
};

/// The place of a sample in its voxel, one bit an axis, x in bit 0: on the voxel's low face if the
/// bit is set, at its middle if it is clear.
using VoxelOffsetType = int;
/// Each sample is on the low corner of its voxel.
inline constexpr VoxelOffsetType kOnVoxelCorners = 7;

/// 13 + dz + 3 dy + 9 dx, with dx, dy, dz of -1, 0 or 1; 13 is the tile itself.
using NeighborDirection = int;

/// The direction of a step whose components are -1, 0 or 1.
constexpr NeighborDirection neighborDirection(int dx, int dy, int dz) {
    return 13 + dz + 3 * dy + 9 * dx;
}

/// The initial value of a new tile's elements: 0, the channel's default value, is the only type.
using DataElementInitializerType = int;

}  // namespace ORV::TileTree3D
