#pragma once

#include "zel/sampler/cubic/jump.h"
#include "zel/sampler/cubic/tile_cube.h"

namespace ORV::TileTree3D::Internal {

/// The voxel of the last sample, with what its samples have in common: the stencil, or at a jump
/// the values at its corners. All of it follows from the voxel alone.
template <class Traits, class T> class CubicVoxel {
public:
    bool is(TreeIndex const& tree, Int4 const& lijk) const {
        return tree == m_tree && allSet(lijk == m_lijk);
    }

    /// Makes this a voxel of a tile, named `lijk` by a position and `voxel` by limitedVoxel, with
    /// the stencil from the block of that voxel.
    void moveTo(TreeIndex const& tree, Int4 const& lijk, Int4 const& voxel,
                TileBlock<T> const& block) {
        become(tree, lijk, block.atJump ? kAtJump : kUniform);
        if (block.atJump) return;
        Int4 const low = lowestOf<Traits>(voxel);
        auto const columns = m_rows.columnsOf(block.tiles, low);
        // Where the values are on the lattice of voxels of a depth is all that they depend on.
        Int4 step = low - m_low;
        bool near = true;
        if (!block.is(m_block)) {
            int const w = Traits::tileWidth(tree.depth);
            Int4 const width{w, w, w, 0}, tiles = block.place - m_block;
            Int4 const above = tiles == width, below = tiles == -width;
            step += (above & Traits::kSamples) - (below & Traits::kSamples);
            near = allSet(above | below | (tiles == 0));
            m_block = block.place;
        }
        m_low = low;
        if (near && step[1] == 0 && step[2] == 0 && -4 < step[0] && step[0] < 4)
            m_stencil.gatherNext(0, step[0], columns);
        else if (near && step[0] == 0 && step[2] == 0 && -4 < step[1] && step[1] < 4)
            m_stencil.gatherNext(1, step[1], m_rows.fewColumnsOf(block.tiles, low));
        else
            m_stencil.gather(columns);
    }

    /// Makes this a voxel of a tile, `voxel`, 0 to W - 1 along each axis, with the stencil from the
    /// tile's halo, which is 1 layer wide on the low sides and 2 on the high sides.
    void moveTo(TreeIndex const& tree, Int4 const& lijk, Int4 const& voxel, T const* halo) {
        constexpr int kWidth = Traits::kSamples + 3;
        become(tree, lijk, kUniform);
        T const* const low = halo + voxel[0] + kWidth * (voxel[1] + kWidth * voxel[2]);
        m_stencil.gather([&](int i) {
            return [low, i](int j, int k) { return low + i + kWidth * (j + kWidth * k); };
        });
        m_block[3] = -1;
    }

    /// Whether a tile of the block is missing or of another depth.
    bool atJump() const { return m_state != kUniform; }

    /// The value of the kernels, away from a jump.
    T interpolate(CubicSource<Traits, T> const& source, Float4 const& frac) const {
        return m_stencil.interpolate(source.type, source.clamp, frac);
    }

    /// The blend of the eight corners, at a jump.
    T blend(CubicSource<Traits, T> const& source, float3 const& frac) {
        if (m_state == kAtJump) readCorners(source);
        return blendCorners(m_corners, frac);
    }

private:
    enum State { kUniform, kAtJump, kWithCorners };

    void become(TreeIndex const& tree, Int4 const& lijk, State state) {
        m_tree = tree;
        m_lijk = lijk;
        m_state = state;
    }
    void readCorners(CubicSource<Traits, T> const& source) {
        auto const& tile = source.container.tile(m_tree);
        int const width = tile.voxelDataWidth();
        int3 const corner = tile.tijk() + int3Of(limitedVoxel<Traits>(m_lijk)) * width;
        for (int n = 0; n < 8; ++n)
            m_corners[n] = sampleChannelPoint<Traits, T>(
                corner + int3{n >> 2, n >> 1 & 1, n & 1} * width, tile.depth(),
                source.topology.offsetType(), source.channel, source.accessor);
        m_state = kWithCorners;
    }

    CubicStencil<T> m_stencil;
    StencilRows<Traits, T> m_rows;
    // The stencil's block and its lowest voxel in that, which are kept across jumps; a depth of -1
    // if it is none that another one could follow.
    Int4 m_block{0, 0, 0, -1}, m_low{};
    Int4 m_lijk{};
    TreeIndex m_tree;
    State m_state = kUniform;
    T m_corners[8];
};

}  // namespace ORV::TileTree3D::Internal
