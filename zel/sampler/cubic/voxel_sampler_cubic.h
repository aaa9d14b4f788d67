#pragma once

#include <array>

#include "zel/sampler/common/voxel_sampler.h"
#include "zel/sampler/cubic/adaptive/memo.h"
#include "zel/sampler/cubic/halo_cache.h"
#include "zel/sampler/cubic/tile_cube.h"
#include "zel/sampler/cubic/voxel.h"

namespace ORV::TileTree3D {

/// What a cubic sampler does where tiles of different depth meet. Any other number is
/// kJumpAdaptive.
enum JumpHandling : std::int32_t {
    kJumpAdaptive = 0,  ///< walks the tree from stencil point to stencil point
    kJumpTrilinear = 1  ///< blends the eight samples around, whatever the type
};

/// Reads a channel by interpolation over 4x4x4 voxels, of one of the types of CubicType. A sampler
/// belongs to one thread; the tree, the topology and the channels must outlive it and stay as they
/// are. What it keeps from one sample to the next never shows in a result, and no sample allocates
/// memory.
///
/// Positions are on the lattice of finest voxels, or in world units for a `space` of kWorldSpace.
/// Outside the tree, and in tiles above the channel's minimum depth, a sample is the channel's
/// default value.
template <class Traits, class T, class Ts, class Position, int A, int B>
class VoxelSamplerCubic : public VoxelSampler<Traits, Ts, Position> {
public:
    static_assert(A == 0 && B == 0);
    using DofChannel = Internal::DofChannel<Traits>;
    static constexpr int kComponents = Internal::RegisterTraits<T>::kComponents;

    /// `type` is a CubicType; with any other number every interpolation gives 0. `clamp` limits a
    /// value to the range of those around it. With kJumpAdaptive, voxels whose entry in
    /// `dofChannel`, if not null, has a bit of `dofMask` are read from the coarser level, or in a
    /// refined neighbour from the tile's own level; the flags are meant to cover whole voxels of
    /// the coarser level, none of which is refined: where they do not, values are off. Their halo
    /// is read for a voxel of -1 that is sampled by name. With kJumpTrilinear and a topology of
    /// offset type 7, `cacheSize` tiles are kept with a halo, and all samples are interpolated
    /// within those. Throws std::invalid_argument for a negative size, std::length_error for one
    /// that cannot be held, and std::bad_alloc.
    VoxelSamplerCubic(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                      DataChannel<Traits, T> const& channel, std::int32_t type, bool clamp,
                      std::int32_t jumpHandling, DofChannel const* dofChannel, std::int32_t dofMask,
                      long long cacheSize);
    ~VoxelSamplerCubic() override;

    Quern::String samplerName() const override;  ///< the name of the type, or "kError"

    T sample(Position const& position, int space);
    /// As if the tree ended at a depth.
    T sample(Position const& position, int depth, int space);

    /// What sample() gives for each position in order, bit for bit. The positions, and the values,
    /// are one array a component.
    void sampleBlock(float const* x, float const* y, float const* z, int count, int space,
                     std::array<float*, kComponents> const& values);

    /// The value at a voxel, -1 to W - 1 along each axis, of a tile, and at a place in it that is
    /// counted from its sample. `depth` limits the depth of the tiles that are read, and is no less
    /// than that of the tile. `debug` prints the way of the sample to the standard output.
    T sampleVoxel(TreeIndex const& tree, int3 const& lijk, float3 const& frac, int depth,
                  bool debug);

private:
    using Tile = TileOf<Traits>;
    using Float4 = Internal::Float4;
    using Int4 = Internal::Int4;

    using typename VoxelSampler<Traits, Ts, Position>::PlacedBlock;

    /// A position of a block: its tile, voxel and place in the voxel, and the block of tiles that
    /// it reads.
    struct Located {
        Int4 lijk;
        Float4 frac;
        TreeIndex tree;
        unsigned block;
    };
    static constexpr int kBlock = 32;

    int locateBlock(float const* x, float const* y, float const* z, int count, int space,
                    std::array<Located, kBlock>& located,
                    std::array<Internal::TileBlock<T>, kBlock>& blocks);
    /// Whether a voxel is read from a tile with a halo.
    bool isCached(Internal::Int4 const& voxel) const {
        return m_cache.enabled() && voxel[0] >= 0 && voxel[1] >= 0 && voxel[2] >= 0;
    }
    bool moveTo(TreeIndex const& tree, Int4 const& lijk);
    T sampleVoxel(TreeIndex const& tree, Int4 const& lijk, Float4 const& frac, int depth);
    T current(Float4 const& frac);
    T adaptive(TreeIndex const& tree, Int4 const& lijk, Float4 const& frac, int depth);

    Internal::CubicSource<Traits, T> m_source;
    Internal::AdaptiveMemo<T> m_memo;
    Internal::HaloTileCache<Traits, T> m_cache;
    Internal::TileBlocks<Traits, T> m_blocks;
    Internal::CubicVoxel<Traits, T> m_voxel;
};

#define ZEL_DETAIL_CUBIC(prefix)                                                                   \
    prefix template class VoxelSamplerCubic<BinaryTraits, float, float, float3, 0, 0>;             \
    prefix template class VoxelSamplerCubic<BinaryTraits, float3, float, float3, 0, 0>;            \
    prefix template class VoxelSamplerCubic<QuinaryTraits, float, float, float3, 0, 0>;            \
    prefix template class VoxelSamplerCubic<QuinaryTraits, float3, float, float3, 0, 0>
ZEL_DETAIL_CUBIC(extern);

}  // namespace ORV::TileTree3D
