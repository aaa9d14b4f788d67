#pragma once

#include <utility>

#include "zel/sampler/cubic_jump.h"
#include "zel/sampler/cubic_source.h"
#include "zel/sampler/cubic_stencil.h"

namespace ORV::TileTree3D::Internal {

/// What belongs to 2x2x2 cells of one width, at their blockPlace: known, or still null.
template <class Value> class CellBlock {
public:
    /// Moves to the cells from `corner` on, and keeps what belongs to cells of before.
    void moveTo(int3 const& corner, int width) {
        if (corner == m_corner && width == m_width) return;
        int3 step{2, 2, 2};  // shares no cell
        if (width == m_width)
            for (int axis = 0; axis < 3; ++axis) {
                std::int64_t const distance = std::int64_t{corner[axis]} - m_corner[axis];
                step[axis] = distance == 0        ? 0
                             : distance == width  ? 1
                             : distance == -width ? -1
                                                  : 2;
            }
        std::array<Value, 8> const old = std::exchange(m_values, {});
        for (int n = 0; n < 8; ++n) {
            int3 const from = int3{n >> 2, n >> 1 & 1, n & 1} + step;
            if (((from.x | from.y | from.z) & ~1) == 0)
                m_values[static_cast<unsigned>(n)] = old[blockPlace(from.x, from.y, from.z)];
        }
        m_corner = corner;
        m_width = width;
    }
    int3 const& corner() const { return m_corner; }
    Value& operator[](int n) { return m_values[static_cast<unsigned>(n)]; }
    std::array<Value, 8> const& values() const { return m_values; }

private:
    int3 m_corner;
    int m_width = 0;
    std::array<Value, 8> m_values{};
};

/// The samples of the tiles around the stencil of a voxel.
template <class Traits, class T> class CubicBlock {
    using Tile = TileOf<Traits>;

public:
    explicit CubicBlock(typename Container<Traits>::ConstTileAccessor const& a)
        : m_accessors{a, a, a, a, a, a, a, a} {}

    /// Makes this the block of a voxel of a tile. The first cell holds the lowest stencil point.
    void moveTo(CubicSource<Traits, T> const& source, Tile const& tile, int3 const& lijk) {
        int const width = tile.tileVoxelWidth();
        int3 corner = tile.tijk();
        for (int axis = 0; axis < 3; ++axis)
            if (lijk[axis] < 1) corner[axis] -= width;
        if (tile.depth() == m_depth && corner == m_cells.corner()) return;

        m_depth = tile.depth();
        m_cells.moveTo(corner, width);
        m_atJump = false;
        Tile const& parent = source.m_container->tile(tile.parentTreeIndex());
        if (!parent.exists()) {  // around the root there is nothing
            m_atJump = true;
            return;
        }
        // A tile is found by its parent. Along an axis the cells have the same one, or two.
        int3 low = parent.tijk();
        int across = 0, own = 0;
        int const parentWidth = parent.tileVoxelWidth();
        for (int axis = 0; axis < 3; ++axis) {
            int const place = corner[axis] - low[axis], bit = 4 >> axis;
            if (place < 0) {
                low[axis] -= parentWidth;
                own |= bit;
            }
            if (place < 0 || place == parentWidth - width) across |= bit;
        }
        m_parents.moveTo(low, parentWidth);
        m_parents[own] = &parent;
        for (int n = 0; n < 8; ++n) {
            T const*& samples = m_cells[n];
            if (!samples)
                samples =
                    samplesIn(source, n & across, corner + int3{n >> 2, n >> 1 & 1, n & 1} * width);
            m_atJump = m_atJump || !samples;
        }
    }

    /// Whether a tile is missing or of another depth.
    bool atJump() const { return m_atJump; }
    std::array<T const*, 8> const& samples() const { return m_cells.values(); }

private:
    /// The samples of the tile of the block's depth that begins at a point, which lies in a parent
    /// of the block; null if there is none.
    T const* samplesIn(CubicSource<Traits, T> const& source, int parent, int3 const& p) {
        Tile const*& tile = m_parents[parent];
        if (!tile)
            tile = &m_accessors[static_cast<unsigned>(parent)].tile(p.x, p.y, p.z, m_depth - 1);
        return tile->depth() == m_depth - 1
                   ? source.m_channel->samples(tile->childTreeIndex(tile->childIJK(p)))
                   : nullptr;
    }

    int m_depth = -1;
    bool m_atJump = false;
    CellBlock<T const*> m_cells;
    CellBlock<Tile const*> m_parents;  // or the shallower tiles in their place
    // One a parent, so that each finds the next one near its last.
    std::array<typename Container<Traits>::ConstTileAccessor, 8> m_accessors;
};

/// The voxel of the last sample, with what its samples have in common: the stencil, or at a jump
/// the values at its corners. All of it follows from the voxel alone.
template <class Traits, class T> class CubicVoxel {
public:
    explicit CubicVoxel(CubicSource<Traits, T> const& source) : m_block(source.m_tileAccessor) {}

    bool is(TreeIndex const& tree, int3 const& lijk) const {
        return lijk == m_lijk && tree == m_tree;
    }

    /// Makes this a voxel of a tile, with the stencil from the tiles around.
    void moveTo(CubicSource<Traits, T> const& source, TileOf<Traits> const& tile,
                int3 const& lijk) {
        m_tree = tile.treeIndex();
        m_lijk = lijk;
        m_block.moveTo(source, tile, lijk);
        m_state = m_block.atJump() ? kAtJump : kUniform;
        if (m_state == kAtJump) return;
        int3 low;
        for (int axis = 0; axis < 3; ++axis)
            low[axis] = lijk[axis] < 1 ? lijk[axis] - 1 + Traits::kSamples : lijk[axis] - 1;
        gatherBlock<Traits, T>(m_block.samples(), low, m_stencil);
    }

    /// Makes this a voxel of a tile, 0 to W - 1 along each axis, with the stencil from the tile's
    /// halo, which is 1 layer wide on the low sides and 2 on the high sides.
    void moveTo(TreeIndex const& tree, int3 const& lijk, T const* halo) {
        constexpr int kWidth = Traits::kSamples + 3;
        m_tree = tree;
        m_lijk = lijk;
        m_state = kUniform;
        T const* const low = halo + lijk.x + kWidth * (lijk.y + kWidth * lijk.z);
        m_stencil.gather(
            [&](int j, int k) { return SampleRow<T>(low + kWidth * (j + kWidth * k)); });
    }

    /// Whether a tile of the block is missing or of another depth.
    bool atJump() const { return m_state != kUniform; }

    /// The value of the kernels, away from a jump.
    T interpolate(CubicSource<Traits, T> const& source, float3 const& frac) const {
        return m_stencil.interpolate(source.m_type, source.m_clamp, frac);
    }

    /// The blend of the eight corners, at a jump.
    T blend(CubicSource<Traits, T> const& source, float3 const& frac) {
        if (m_state == kAtJump) readCorners(source);
        return blendCorners(m_corners, frac);
    }

private:
    enum State { kUniform, kAtJump, kWithCorners };

    void readCorners(CubicSource<Traits, T> const& source) {
        auto const& tile = source.m_container->tile(m_tree);
        int const width = tile.voxelDataWidth();
        int3 const corner = tile.tijk() + m_lijk * width;
        for (int n = 0; n < 8; ++n)
            m_corners[n] = sampleChannelPoint<Traits, T>(
                corner + int3{n >> 2, n >> 1 & 1, n & 1} * width, tile.depth(),
                source.m_topology->offsetType(), *source.m_channel, source.m_tileAccessor);
        m_state = kWithCorners;
    }

    TreeIndex m_tree;
    int3 m_lijk;
    State m_state = kUniform;
    CubicBlock<Traits, T> m_block;
    CubicStencil<T> m_stencil;
    T m_corners[8];
};

}  // namespace ORV::TileTree3D::Internal
