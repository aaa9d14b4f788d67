#pragma once

#include "zel/sampler/cubic/jump.h"
#include "zel/sampler/cubic/stencil.h"
#include "zel/sampler/cubic/tile_cube.h"

namespace ORV::TileTree3D::Internal {

/// The voxel of the last sample, with the values that all samples in it share: the stencil, or at a
/// jump the values at its corners. They follow from the voxel alone.
template <class Traits, class T> class CubicVoxel {
public:
    bool is(TreeIndex const& tree, Int4 const& lijk) const {
        return tree == m_tree && allSet(lijk == m_lijk);
    }

    /// Makes this a voxel of a tile, with the stencil from the cube of that voxel.
    ZEL_ALWAYS_INLINE void readCube(TreeIndex const& tree, Int4 const& lijk,
                                    TileCube<T> const& cube) {
        become(tree, lijk, cube.atJump ? kAtJump : kUniform);
        if (cube.atJump) return;
        Int4 const low = lowestOf<Traits>(lijk);
        auto const columns = m_rows.columnsOf(cube.tiles, low);
        // How far the stencil lies from the last one, in voxels.
        Int4 step = low - m_low;
        bool near = true;
        if (!cube.is(m_cube)) {
            int const w = Traits::tileWidth(tree.depth);
            Int4 const width{w, w, w, 0}, tiles = cube.key - m_cube;
            Int4 const above = tiles == width, below = tiles == -width;
            step += (above & Traits::kSamples) - (below & Traits::kSamples);
            near = allSet(above | below | (tiles == 0));
            m_cube = cube.key;
        }
        m_low = low;
        if (near && step[1] == 0 && step[2] == 0 && -4 < step[0] && step[0] < 4)
            m_stencil.stepAlongX(step[0], columns);
        else if (near && step[0] == 0 && step[2] == 0 && -4 < step[1] && step[1] < 4)
            m_stencil.stepAlongY(step[1], m_rows.fewColumnsOf(cube.tiles, low));
        else
            m_stencil.gather(columns);
    }

    /// The same for a stencil that hardly shares values with the last one, away from a jump.
    void readCubeApart(TreeIndex const& tree, Int4 const& lijk, TileCube<T> const& cube) {
        become(tree, lijk, kUniform);
        m_low = lowestOf<Traits>(lijk);
        m_cube = cube.key;
        m_stencil.gather(m_rows.columnsOf(cube.tiles, m_low));
    }

    /// Makes this a voxel of a tile, 0 to W - 1 along each axis, with the stencil from the tile's
    /// halo, which is 1 layer wide on the low sides and 2 on the high sides.
    void readHalo(TreeIndex const& tree, Int4 const& lijk, T const* halo) {
        constexpr int kWidth = Traits::kSamples + 3;
        become(tree, lijk, kUniform);
        T const* const low = halo + lijk[0] + kWidth * (lijk[1] + kWidth * lijk[2]);
        m_stencil.gather([&](int i) {
            return [low, i](int j, int k) { return low + i + kWidth * (j + kWidth * k); };
        });
        m_cube[3] = -1;
    }

    /// Whether a tile of the cube is missing, of another depth or without data.
    bool atJump() const { return m_state != kUniform; }

    /// The value of the kernels, away from a jump.
    T interpolate(CubicSource<Traits, T> const& source, Float4 const& frac) const {
        return m_stencil.interpolate(source.type, source.clamp, frac);
    }
    /// The same with the gradient by world units.
    T interpolate(CubicSource<Traits, T> const& source, Float4 const& frac,
                  GradientOf<T>& gradient) const {
        return m_stencil.interpolate(source.type, source.clamp, frac,
                                     source.voxelsPerUnit(m_tree.depth), gradient);
    }

    /// The blend of the eight corners, at a jump.
    T blend(CubicSource<Traits, T> const& source, float3 const& frac) {
        if (m_state == kAtJump) readCorners(source);
        return blendCorners(m_corners, frac);
    }
    /// The same with the gradient by world units.
    T blend(CubicSource<Traits, T> const& source, float3 const& frac, GradientOf<T>& gradient) {
        T const value = blend(source, frac);
        gradient = blendGradient(m_corners, frac, source.voxelsPerUnit(m_tree.depth));
        return value;
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
        int3 const low = tile.tijk() + int3Of(m_lijk) * width;
        for (unsigned n = 0; n < 8; ++n)
            m_corners[n] = sampleChannelPoint<Traits, T>(low + TileCube<T>::indexOf(n) * width,
                                                         tile.depth(), source.topology.offsetType(),
                                                         source.channel, source.accessor);
        m_state = kWithCorners;
    }

    CubicStencil<T> m_stencil;
    TileCubeRows<Traits, T> m_rows;
    // The key of the cube that the stencil was read from, and the stencil's lowest voxel in that
    // cube, which are kept across jumps. A depth of -1 for none, as after a halo.
    Int4 m_cube{0, 0, 0, -1}, m_low{};
    Int4 m_lijk{};
    TreeIndex m_tree;
    State m_state = kUniform;
    T m_corners[8];
};

}  // namespace ORV::TileTree3D::Internal
