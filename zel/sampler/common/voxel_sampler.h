#pragma once

#include <array>

#include "zel/sampler/common/float4.h"
#include "zel/sampler/common/lattice_cache.h"
#include "zel_platform/orvane_geometry_volume/container.h"
#include "zel_platform/orvane_geometry_volume/voxel_topology.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/string.h"

namespace ORV::TileTree3D {

namespace Internal {

/// By depth, the reciprocal of the voxel width: turns lattice units into voxels.
template <class Traits>
[[gnu::visibility("hidden")]] inline constexpr auto kVoxelScales = [] {
    std::array<float, Traits::kMaxDepth + 1> scales{};
    double width = 1;
    for (std::size_t d = Traits::kMaxDepth + 1; d-- > 0; width *= Traits::kBranch)
        scales[d] = static_cast<float>(1.0 / width);
    return scales;
}();
template <class Traits> float voxelScale(int depth) {
    return kVoxelScales<Traits>[static_cast<unsigned>(depth)];
}

/// Splits a coordinate that is counted in voxels from the first sample of a tile: into the index of
/// the sample at or just below it, and the distance above that sample. A coordinate that rounding
/// left just below 0 counts as 0. For one axis, or for three in a register.
template <class Traits, class V, class I>
ZEL_ALWAYS_INLINE inline void splitVoxel(V l, I& voxel, V& frac) {
    constexpr float kLast = Traits::kSamples - 1;
    l = cleared(l, maskOf(l > -1e-5F) & maskOf(l <= 0.0F));
    voxel = truncated(lower(l, kLast + V{})) + maskOf(l < 0.0F);
    frac = l - converted(voxel);
}

}  // namespace Internal

/// Turns a position into a tile, a voxel of that tile and a fraction of that voxel, as all samplers
/// do. Independent of the type of the samples. A sampler belongs to one thread. The tree and the
/// topology must outlive it.
template <class Traits, class Real, class Position> class VoxelSampler {
public:
    using Tile = TileOf<Traits>;
    using ConstTileAccessor = typename Container<Traits>::ConstTileAccessor;

    /// The value of `space` for a position in world units.
    static constexpr int kWorldSpace = 2;

    VoxelSampler(Container<Traits> const& container, VoxelTopology<Traits> const& topology);
    VoxelSampler(VoxelSampler const&) = delete;
    VoxelSampler& operator=(VoxelSampler const&) = delete;
    virtual ~VoxelSampler();

    virtual Quern::String samplerName() const;  ///< "kNone"

    /// Finds the deepest tile over a position that is no deeper than `depth`. `space` is
    /// kWorldSpace for a position in world units; any other number says that the position is on the
    /// lattice of finest voxels already.
    ///
    /// True if there is a tile: `tree` names it, `lijk` is the voxel of it whose sample is the
    /// nearest one below the position along each axis, -1 to W - 1, and `frac` how far above that
    /// sample the position lies, in voxels; it reaches 1 and more above the last sample. `scale`,
    /// if not null, is set to how many voxels one finest voxel is in that tile, or half of that for
    /// Traits<2, 4, 1>. False if there is no tile, also for a position that is not finite: `tree`
    /// is (-1, -1), and the other results stay as they were.
    bool locate(Position const& position, int space, TreeIndex& tree, int3& lijk, float3& frac,
                int depth, float* scale);

protected:
    /// locate() in registers. The tile is then m_box->tree.
    ZEL_ALWAYS_INLINE bool locateVoxel(Position const& position, int space, int depth,
                                       Internal::Int4& lijk, Internal::Float4& frac);

    /// Whether a position lies outside the box, and more than some tiles from the last position
    /// that did.
    ZEL_ALWAYS_INLINE bool isApart(Position const& position, int space, int depth);

    /// The tiles of one depth over a batch of positions, and where in those tiles they lie.
    struct alignas(64) VoxelBatch {
        static constexpr int kSize = Container<Traits>::kMaxPoints;
        /// By axis, then by position.
        template <class V> using Coordinates = std::array<std::array<V, kSize>, 3>;

        Coordinates<std::uint32_t> cells;  ///< of the tiles, as Container::findTiles() takes them
        Coordinates<std::int32_t> lijk;
        Coordinates<float> frac;
        std::array<TileRun, kSize> runs;  ///< without a tile where there is none of the depth
        int runCount;
        int depth;  ///< of the tiles
        /// By run, the depth of the tile; set by locateDeepest().
        std::array<std::int8_t, kSize> runDepths;

        /// The low corner of the tile.
        int3 tileCorner(unsigned i) const {
            auto const width = static_cast<std::uint32_t>(Traits::tileWidth(depth));
            return {Internal::cornerOf<Traits>(cells[0][i], width),
                    Internal::cornerOf<Traits>(cells[1][i], width),
                    Internal::cornerOf<Traits>(cells[2][i], width)};
        }
        Internal::Int4 voxel(unsigned i) const {
            return Internal::Int4{lijk[0][i], lijk[1][i], lijk[2][i], 0};
        }
        Internal::Float4 fraction(unsigned i) const {
            return Internal::Float4{frac[0][i], frac[1][i], frac[2][i], 0};
        }
    };
    /// The cell, voxel and fraction of one position, as locateBatch() computes them, without
    /// looking up the tile. Returns false outside the root.
    bool splitOne(Position const& position, int space, int depth, VoxelBatch& batch) const;
    /// locate() for `count` positions at once, 1 to VoxelBatch::kSize of them, in the tiles of
    /// `depth` or, in a tree that is not so deep, of its depth. The box stays.
    void locateBatch(float const* x, float const* y, float const* z, int count, int space,
                     int depth, VoxelBatch& batch) const;
    /// Also finds the coarser tiles where there is none of the depth: batch.runDepths. Runs close
    /// to each other may be left without, for locateVoxel(), whose box is faster for them.
    void locateDeepest(float const* x, float const* y, float const* z, int count, int space,
                       int depth, VoxelBatch& batch);

    /// A tile, and the box of all positions for which that tile is found.
    struct Box {
        // A bound that is no float is rounded up, which leaves the same floats in the box. A
        // default box holds no position.
        Internal::Float4 low{}, high{};
        Internal::Float4 corner{};  ///< of the tile
        Internal::Float4 scale{};   ///< voxels for one finest voxel
        TreeIndex tree;
        int depth = -1;  ///< the depth that was asked for

        bool holds(Internal::Float4 const& v, int wanted) const {
            return depth == wanted && Internal::allSet((low <= v) & (v < high));
        }
    };

    ConstTileAccessor m_accessor;
    Real m_invVoxelSize;  ///< 0 for a voxel size of 0, so that all positions lie at the origin
    Internal::Float4 m_offset;
    VoxelOffsetType m_offsetType;

private:
    bool moveBox(Internal::Float4 v, int depth);
    void splitBatch(float const* x, float const* y, float const* z, int count, int space,
                    VoxelBatch& batch) const;
    int locateCoarse(float const* x, float const* y, float const* z, int space,
                     VoxelBatch& batch) const;
    /// What a position in `space` is multiplied by to lie on the lattice.
    float unitOf(int space) const { return space == kWorldSpace ? m_invVoxelSize : 1.0F; }

    /// Whether most positions of the last batch lay far apart in coarser tiles: then the tiles of
    /// the depth are not looked up by themselves.
    bool m_isScattered = false;

    Internal::Float4 m_lastOutside{};  ///< see isApart(); on the lattice
    Internal::Float4 m_reach;          ///< some tiles of the deepest depth

    Internal::LatticeCache<Box> m_boxes;

protected:
    Box const* m_box = &m_boxes.slotOf(Internal::Int4{});  ///< of the tile found last
};

template <class Traits, class Real, class Position>
inline bool VoxelSampler<Traits, Real, Position>::isApart(Position const& position, int space,
                                                          int depth) {
    Internal::Float4 v = Internal::positionOf(position);
    if (space == kWorldSpace) v = v * m_invVoxelSize;
    if (m_box->holds(v, depth)) return false;
    Internal::Float4 const step = v - m_lastOutside;
    m_lastOutside = v;
    return !Internal::allSet((step < m_reach) & (step > -m_reach));
}

template <class Traits, class Real, class Position>
inline bool VoxelSampler<Traits, Real, Position>::locateVoxel(Position const& position, int space,
                                                              int depth, Internal::Int4& lijk,
                                                              Internal::Float4& frac) {
    Internal::Float4 v = Internal::positionOf(position);
    if (space == kWorldSpace) v = v * m_invVoxelSize;
    if (!m_box->holds(v, depth) && !moveBox(v, depth)) return false;
    // In the box no coordinate is below the corner, and offsets are 0 or half a voxel: no index is
    // below -1.
    Internal::splitVoxel<Traits>((v - m_box->corner) * m_box->scale - m_offset, lijk, frac);
    return true;
}

template <class Traits, class Real, class Position>
inline bool VoxelSampler<Traits, Real, Position>::locate(Position const& position, int space,
                                                         TreeIndex& tree, int3& lijk, float3& frac,
                                                         int depth, float* scale) {
    Internal::Int4 voxel;
    Internal::Float4 rest;
    if (!locateVoxel(position, space, depth, voxel, rest)) {
        tree = TreeIndex();
        return false;
    }
    tree = m_box->tree;
    lijk = Internal::int3Of(voxel);
    frac = Internal::float3Of(rest);
    constexpr float kPart = Traits::kBranch == 2 ? 0.5F : 1.0F;
    if (scale) *scale = kPart * Internal::voxelScale<Traits>(tree.depth);
    return true;
}

extern template class VoxelSampler<BinaryTraits, float, float3>;
extern template class VoxelSampler<QuinaryTraits, float, float3>;

}  // namespace ORV::TileTree3D
