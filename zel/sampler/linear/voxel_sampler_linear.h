#pragma once

#include <algorithm>
#include <array>
#include <concepts>

#include "zel/sampler/common/voxel_sampler.h"
#include "zel/sampler/linear/cell.h"
#include "zel/sampler/linear/halo_tiles.h"
#include "zel_platform/orvane_geometry_volume/halo.h"

namespace ORV::TileTree3D {

/// The trilinear value of a channel at a position, and its gradient. N is 1, and Real and Position
/// are float and float3, in all instances. A to D are the arguments of the halo operations: one
/// layer on the high side of each axis.
///
/// In the halo form the samples just across a tile's faces come from a channel that computeHalo
/// filled; it takes topologies of samples on the corners of voxels alone. The other form reads the
/// channel of the samples, fills the halo of a tile when a position needs it, and keeps up to 512
/// halos, which are 0.3 to 2.1 MB. On samples at corners the two give the same bits, if the halo
/// has the depths of the channel; for other topologies the halo is a ring all round the tile, see
/// ring_fill.h.
///
/// Outside the tree, in a tile that the channel does not have, and at a position that is not
/// finite, a sample is the channel's default value, with a gradient of 0. Sampling neither
/// allocates nor throws. A sampler belongs to one thread. The channel is sized to the tree, and the
/// volume must outlive the sampler and stay as it is.
template <class Traits, class T, int N, class Real, class Position, int A, int B, int C, int D>
requires HighSideHalo<A, B, C, D> &&(N == 1) class VoxelSamplerLinear
    : public VoxelSampler<Traits, Real, Position> {
public:
    static constexpr int kSamples = Traits::kSamples;
    static constexpr int kHaloWidth = kSamples + 1;
    static constexpr std::size_t kFloats = std::same_as<T, float> ? 1 : 3;
    using typename VoxelSampler<Traits, Real, Position>::ConstTileAccessor;

    /// Throws std::invalid_argument if not all samples of the topology lie on the corners of
    /// voxels.
    VoxelSamplerLinear(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                       HaloChannel<Traits, T> const& halo);
    VoxelSamplerLinear(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                       DataChannel<Traits, T> const& channel);
    ~VoxelSamplerLinear() override;

    Quern::String samplerName() const override;  ///< "kLinear"

    /// The value at a position, from the deepest tile there that is no deeper than `maxDepth` and
    /// the channel. `space` as for locate().
    ZEL_ALWAYS_INLINE T sample(Position const& position, int maxDepth, int space) {
        Internal::Int4 lijk;
        Internal::Float4 frac;
        if (!locateSampled(position, maxDepth, space, lijk, frac)) return m_defaultValue;
        TreeIndex const& tree = this->m_box->tree;
        return m_haloChannel ? value(haloCell(tree, lijk), frac)
                             : value(channelCell(tree, lijk), frac);
    }

    /// The value, and the exact gradient of the trilinear patch around the position by world units.
    ZEL_ALWAYS_INLINE T sampleGradient(Position const& position, int maxDepth, int space,
                                       GradientOf<T>& gradient) {
        Internal::Int4 lijk;
        Internal::Float4 frac;
        if (!locateSampled(position, maxDepth, space, lijk, frac)) {
            gradient = {};
            return m_defaultValue;
        }
        TreeIndex const tree = this->m_box->tree;
        return m_haloChannel ? value(haloCell(tree, lijk), frac, tree.depth, gradient)
                             : value(channelCell(tree, lijk), frac, tree.depth, gradient);
    }

    /// sample() at `count` positions, in their order and bit for bit; one array for each float of
    /// a T.
    void sampleBatch(float const* x, float const* y, float const* z, int count, int maxDepth,
                     int space, std::array<float*, kFloats> const& values);
    /// sampleGradient() at `count` positions; one array for each float of a gradient, row after
    /// row. The arrays of `values` may be null.
    void sampleGradientBatch(float const* x, float const* y, float const* z, int count,
                             int maxDepth, int space, std::array<float*, kFloats> const& values,
                             std::array<float*, 3 * kFloats> const& gradients);

private:
    using typename VoxelSampler<Traits, Real, Position>::VoxelBatch;

    /// The eight samples around a position: the lowest of them, in data of that width. Null where
    /// the default value is read.
    struct Cell {
        T const* corner;
        int width;
    };
    /// The sample at voxel (0, 0, 0) of a tile, in data of that width. Null where the default value
    /// is read.
    struct Samples {
        T const* origin;
        int width;
    };
    /// The cells of a batch of positions, and the depths of their tiles.
    struct CellBatch : VoxelBatch {
        static constexpr auto kSize = static_cast<unsigned>(VoxelBatch::kSize);
        std::array<T const*, kSize> corners;
        std::array<std::int32_t, kSize> widths, depths;
        unsigned count;  ///< the number of cells found
        unsigned run;    ///< the index of the next position's run

        /// Adds the cells of positions in one tile.
        void add(unsigned end, Samples const& samples, int tileDepth);

        Cell cell(unsigned i) const { return {corners[i], widths[i]}; }
    };

    /// Whether there is a tile over a position, m_box->tree, that may have samples.
    bool locateSampled(Position const& position, int maxDepth, int space, Internal::Int4& lijk,
                       Internal::Float4& frac) {
        return this->locateVoxel(position, space, std::min(m_depth, maxDepth), lijk, frac) &&
               this->m_box->tree.depth >= m_minDepth;
    }
    static int flat(Internal::Int4 p, int width) { return p[0] + width * (p[1] + width * p[2]); }
    Cell haloCell(TreeIndex const& tree, Internal::Int4 lijk) const {
        T const* const samples = m_haloChannel->samples(tree);
        return {samples ? samples + flat(lijk, kHaloWidth) : nullptr, kHaloWidth};
    }
    Cell channelCell(TreeIndex const& tree, Internal::Int4 lijk);
    Samples haloSamples(T const* halo) const {
        int const width = kHaloWidth + m_ring;
        return {halo + flat(Internal::Int4{} + m_ring, width), width};
    }
    bool isOnCorners() const { return this->m_offsetType == kOnVoxelCorners; }
    bool insideTile(Internal::Int4 lijk) const;
    ZEL_ALWAYS_INLINE T value(Cell const& cell, Internal::Float4 const& frac) const {
        return cell.corner ? Internal::LinearCell<T>(cell.corner, cell.width).value(frac)
                           : m_defaultValue;
    }
    T value(Cell const& cell, Internal::Float4 const& frac, int depth,
            GradientOf<T>& gradient) const {
        if (!cell.corner) {
            gradient = {};
            return m_defaultValue;
        }
        float const perVoxel = Internal::voxelScale<Traits>(depth) * m_invWorldVoxel;
        return Internal::LinearCell<T>(cell.corner, cell.width).value(frac, perVoxel, gradient);
    }

    template <class Use>
    void forEachCell(float const* x, float const* y, float const* z, int count, int maxDepth,
                     int space, Use const& use);
    void findCells(float const* x, float const* y, float const* z, int space, int depth,
                   CellBatch& batch);
    bool findSamples(TreeIndex const& tree, unsigned first, unsigned end, bool mayFill,
                     CellBatch const& batch, Samples& samples);

    /// The halo of a tile, or null if that would have to be filled.
    T* findHalo(TreeIndex const& tree) const {
        return tree == m_lastTile ? m_lastHalo : m_halos.find(m_container->tile(tree));
    }
    T* fillHalo(TreeIndex const& tree);
    T* fillHighSides(TileOf<Traits> const& tile);
    T* fillRing(TileOf<Traits> const& tile);

    ConstTileAccessor m_neighborAccessor;
    int m_ring;  ///< layers on the low sides of a halo: 0 for samples on corners, else 1
    Internal::HaloTiles<Traits, T> m_halos;  ///< without slots in the halo form
    TreeIndex m_lastTile;                    ///< whose halo was filled or read last by a point
    T* m_lastHalo = nullptr;                 ///< that halo
    Container<Traits> const* m_container;
    DataChannel<Traits, T> const* m_channel = nullptr;
    HaloChannel<Traits, T> const* m_haloChannel = nullptr;
    Real m_invWorldVoxel;  ///< infinite for a voxel size of 0
    T m_defaultValue;
    int m_minDepth;
    int m_depth;
};

/// The linear sampler of a tree kind and a value type.
template <class Traits, class T>
using LinearSampler = VoxelSamplerLinear<Traits, T, 1, float, float3, 0, 0, 1, 0>;

extern template class VoxelSamplerLinear<BinaryTraits, float, 1, float, float3, 0, 0, 1, 0>;
extern template class VoxelSamplerLinear<BinaryTraits, float3, 1, float, float3, 0, 0, 1, 0>;
extern template class VoxelSamplerLinear<QuinaryTraits, float, 1, float, float3, 0, 0, 1, 0>;
extern template class VoxelSamplerLinear<QuinaryTraits, float3, 1, float, float3, 0, 0, 1, 0>;

}  // namespace ORV::TileTree3D
