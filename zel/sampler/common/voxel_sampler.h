#pragma once

#include <array>

#include "zel/sampler/common/float4.h"
#include "zel_platform/orvane_geometry_volume/container.h"
#include "zel_platform/orvane_geometry_volume/voxel_topology.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/string.h"

namespace ORV::TileTree3D {

namespace Internal {

/// What a length in finest voxels is multiplied with to be counted in voxels of a depth, and half
/// of that for Traits<2, 4, 1>.
template <class Traits>
[[gnu::visibility("hidden")]] inline constexpr auto kVoxelScales = [] {
    std::array<float, Traits::kMaxDepth + 1> scales{};
    double width = Traits::kBranch == 2 ? 2.0 : 1.0;
    for (int d = Traits::kMaxDepth; d >= 0; --d, width *= Traits::kBranch)
        scales[static_cast<unsigned>(d)] = static_cast<float>(1.0 / width);
    return scales;
}();

}  // namespace Internal

/// Turns a position into a tile, a voxel of it and a place in that voxel: what samplers do alike.
/// Independent of the type of the samples. A sampler belongs to one thread. The tree and the
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
    /// kWorldSpace for a position in world units; any other says that it is on the lattice of
    /// finest voxels already.
    ///
    /// True if there is one: `tree` names it, `lijk` is the voxel of it whose sample is the nearest
    /// one below the position along each axis, -1 to W - 1, and `frac` how far above that sample
    /// the position lies, in voxels; it reaches 1 and more above the last sample. `scale`, if not
    /// null, is set to Internal::kVoxelScales of the tile found. False if there is none, also for a
    /// position that is not finite: `tree` is (-1, -1) and the rest as it was.
    bool locate(Position const& position, int space, TreeIndex& tree, int3& lijk, float3& frac,
                int depth, float* scale);

protected:
    /// locate() for a tile no deeper than `depth`, which is then m_box->tree. The last of the four
    /// lanes is of no meaning.
    ZEL_ALWAYS_INLINE bool place(Position const& position, int space, int depth,
                                 Internal::Int4& lijk, Internal::Float4& frac);

    // The steps of place(), for a position on the lattice, whose fourth coordinate is 0.

    /// Whether it lies in the tile of the one before; most do.
    ZEL_ALWAYS_INLINE bool inBox(Internal::Float4 const& v, int depth) const {
        return m_box->depth == depth && Internal::allSet((m_box->low <= v) & (v < m_box->high));
    }
    /// Moves the box to the tile over it, if there is one.
    bool moveBox(Internal::Float4 v, int depth);
    ZEL_ALWAYS_INLINE void placeInBox(Internal::Float4 const& v, Internal::Int4& lijk,
                                      Internal::Float4& frac) const;

    /// Where positions lie in tiles of one depth, for those that have such a tile over them.
    struct alignas(64) PlacedBlock {
        static constexpr int kSize = Container<Traits>::kMaxPoints;
        /// By axis, then by position.
        template <class V> using Coordinates = std::array<std::array<V, kSize>, 3>;

        Coordinates<std::uint32_t> cells;  ///< of the tiles, as Container::findTiles() takes them
        Coordinates<std::int32_t> lijk;
        Coordinates<float> frac;
        std::array<TileRun, kSize> runs;
        int runCount;
        int depth;  ///< of the tiles

        /// The low corner of the tile.
        int3 corner(unsigned i) const {
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
    /// place() for `count` positions at once, 1 to PlacedBlock::kSize of them, by the tiles of
    /// `depth` or, in a tree that is not so deep, of its depth. A position over which there is no
    /// such tile is in a run without a tile. The box stays.
    void placeBlock(float const* x, float const* y, float const* z, int count, int space, int depth,
                    PlacedBlock& placed) const;

    /// A tile, the box around a position in which the same tile would be found, and what turns a
    /// position into a place in the tile.
    struct Box {
        // Where a bound is no float it is the next float above, to the same effect. At first the
        // box holds no position.
        Internal::Float4 low{}, high{};
        Internal::Float4 corner{};    ///< of the tile
        Internal::Float4 perVoxel{};  ///< one over a voxel width
        TreeIndex tree;
        int depth = -1;  ///< that was asked for
    };

    ConstTileAccessor m_accessor;
    Real m_invVoxelSize;  ///< 0 for a voxel size of 0, so that all positions lie at the origin
    Internal::Float4 m_offset;
    VoxelOffsetType m_offsetType;

private:
    // Boxes found before, by where they are: a scan line comes back to the tiles of the line
    // before it. A position that is in none of them is looked up in the tree.
    std::array<Box, 128> m_boxes;
    int m_boxShift;  ///< 2 to the power of this is about the width of the finest tiles

protected:
    Box const* m_box = m_boxes.data();  ///< that of the tile found last
};

template <class Traits, class Real, class Position>
inline bool VoxelSampler<Traits, Real, Position>::place(Position const& position, int space,
                                                        int depth, Internal::Int4& lijk,
                                                        Internal::Float4& frac) {
    Internal::Float4 v = Internal::float4Of(position);
    if (space == kWorldSpace) v = v * m_invVoxelSize;
    if (!inBox(v, depth) && !moveBox(v, depth)) return false;
    placeInBox(v, lijk, frac);
    return true;
}

template <class Traits, class Real, class Position>
inline void VoxelSampler<Traits, Real, Position>::placeInBox(Internal::Float4 const& v,
                                                             Internal::Int4& lijk,
                                                             Internal::Float4& frac) const {
    // In the box no coordinate is below the corner, so that `l` is at least -m_offset.
    Internal::Float4 l = (v - m_box->corner) * m_box->perVoxel - m_offset;
    l = Internal::cleared(l, (l > -1e-5F) & (l <= 0.0F));
    constexpr float kLast = Traits::kSamples - 1;
    lijk = Internal::truncated(Internal::lower(l, kLast + Internal::Float4{})) + (l < 0.0F);
    frac = l - Internal::converted(lijk);
}

template <class Traits, class Real, class Position>
inline bool VoxelSampler<Traits, Real, Position>::locate(Position const& position, int space,
                                                         TreeIndex& tree, int3& lijk, float3& frac,
                                                         int depth, float* scale) {
    Internal::Int4 voxel;
    Internal::Float4 rest;
    if (!place(position, space, depth, voxel, rest)) {
        tree = TreeIndex();
        return false;
    }
    tree = m_box->tree;
    lijk = {voxel[0], voxel[1], voxel[2]};
    frac = Internal::float3Of(rest);
    if (scale) *scale = Internal::kVoxelScales<Traits>[static_cast<unsigned>(tree.depth)];
    return true;
}

extern template class VoxelSampler<BinaryTraits, float, float3>;
extern template class VoxelSampler<QuinaryTraits, float, float3>;

}  // namespace ORV::TileTree3D
