#pragma once

#include <array>

#include "zel/sampler/common/voxel_sampler.h"
#include "zel/sampler/cubic/adaptive/memo.h"
#include "zel/sampler/cubic/halo_cache.h"
#include "zel/sampler/cubic/tile_cube.h"
#include "zel/sampler/cubic/voxel.h"

// The way of a sample, in order:
// 1. VoxelSampler::locateVoxel turns the position into a tile, a voxel of it and a fraction.
// 2. valueInTile returns the default value in tiles shallower than the channel's minimum depth, and
//    sends kJumpAdaptive to adaptive().
// 3. If the last sample was in another voxel, enterVoxel reads that voxel's stencil: from the
//    tile's halo (halo_cache.h), or from the 2x2x2 tiles around the stencil (tile_cube.h).
// 4. valueHere interpolates the stencil (voxel.h, stencil.h, kernels.h); where the eight tiles are
//    not all of one depth with data, it blends the voxel's corners, read by sampleChannelPoint
//    (jump.h).
// 5. adaptive() does 3 and 4 away from jumps; else adaptiveValue (adaptive/sample.h) composes rows,
//    planes and a volume of points that StencilPoints looks up, some by a sample of their own. The
//    points of a voxel are kept for its next sample (adaptive/memo.h).
// 6. A point sample far from the last ones first tries enterApart, which finds the tiles of 1 and
//    of 3 in one look-up.
// 7. sampleBatch does 1 and looks up the tile cubes of 3 for 32 positions ahead, so that the waits
//    for memory overlap; with kJumpAdaptive or halo tiles it samples position by position.
// 8. Gradients go the same way, each with its value: that of the interpolant or of the blend in 4,
//    and where adaptiveValue is needed differences of it (adaptive/differences.h).
namespace ORV::TileTree3D {

/// What a cubic sampler does where tiles of different depth meet. Any other number is
/// kJumpAdaptive.
enum JumpHandling : std::int32_t {
    kJumpAdaptive = 0,  ///< walks the tree from stencil point to stencil point
    kJumpTrilinear = 1  ///< blends the eight samples around, whatever the type
};

/// Reads a channel by interpolation over 4x4x4 voxels, of one of the types of CubicType. A sampler
/// belongs to one thread; the tree, the topology and the channels must outlive it and stay as they
/// are. What a sampler keeps from one sample to the next changes no result, and no sample allocates
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

    /// `type` is a CubicType; with any other number an interpolation gives 0. `clamp` limits its
    /// result to the range of the values around it. With kJumpAdaptive, voxels whose entry in
    /// `dofChannel`, if not null, has a bit of `dofMask` are read from the coarser level, or in a
    /// refined neighbour from the tile's own level, where a stencil is adaptive: on a data point,
    /// at a jump, or above the depth limit. The flags are meant to cover whole voxels of
    /// the coarser level, none of which is refined: otherwise values are wrong. For a voxel index
    /// of -1, which only sampleVoxel takes, the flag is read from the halo of `dofChannel`. With
    /// kJumpTrilinear and a topology of offset type 7, up to `cacheSize` tiles are kept with a
    /// halo, and samples are interpolated within those, but for a voxel index of -1. Throws
    /// std::invalid_argument for a negative size, and std::bad_alloc.
    VoxelSamplerCubic(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                      DataChannel<Traits, T> const& channel, std::int32_t type, bool clamp,
                      std::int32_t jumpHandling, DofChannel const* dofChannel, std::int32_t dofMask,
                      long long cacheSize);
    ~VoxelSamplerCubic() override;

    Quern::String samplerName() const override;  ///< the name of the type, or "kError"

    T sample(Position const& position, int space);
    /// As if the tree ended at a depth.
    T sample(Position const& position, int depth, int space);

    /// The value of sample(), with the derivative of the interpolant by world units: that of the
    /// kernels, or of the blend where tiles of different depth meet. On a face between voxels it is
    /// the derivative in the voxel above. A component that `clamp` limits has a gradient of 0, and
    /// so has a default value.
    ///
    /// With kJumpAdaptive, next to tiles of another depth and in tiles above the deepest that may
    /// be read, where a value's formula changes within a voxel, it is a difference: of values 1/64
    /// of a voxel apart, inside the voxel also on its faces. That takes six to nine more samples.
    T sampleGradient(Position const& position, int space, GradientOf<T>& gradient);
    T sampleGradient(Position const& position, int depth, int space, GradientOf<T>& gradient);

    /// sample() at `count` positions, in their order and bit for bit; one array for each float of
    /// a T.
    void sampleBatch(float const* x, float const* y, float const* z, int count, int space,
                     std::array<float*, kComponents> const& values);

    /// sampleGradient() at `count` positions; one array for each float of a gradient, row after
    /// row. The arrays of `values` may be null.
    void sampleGradientBatch(float const* x, float const* y, float const* z, int count, int space,
                             std::array<float*, kComponents> const& values,
                             std::array<float*, 3 * kComponents> const& gradients);

    /// The value at a fraction of a voxel of a tile, counted from the voxel's sample. The voxel is
    /// limited to -1 to W - 1 along each axis. `depth` limits the depth of the tiles that are read,
    /// and is no less than that of the tile. `debug` traces the sample to the standard output.
    T sampleVoxel(TreeIndex const& tree, int3 const& lijk, float3 const& frac, int depth,
                  bool debug);

private:
    using Tile = TileOf<Traits>;
    using Float4 = Internal::Float4;
    using Int4 = Internal::Int4;
    using Gradient = GradientOf<T>;

    using TileCube = Internal::TileCube<T>;
    using typename VoxelSampler<Traits, Ts, Position>::VoxelBatch;

    static constexpr int kBatch = 32;
    /// A position of a batch: its tile, voxel and fraction, and the cube of its stencil.
    struct Located {
        Int4 lijk;
        Float4 frac;
        TreeIndex tree;
        unsigned cube;
    };
    /// The cubes of a batch. Positions in a row often share one.
    using Cubes = std::array<TileCube, kBatch>;

    bool isSampled(TreeIndex const& tree) const {
        return tree.valid() && m_source.minDepth <= tree.depth;
    }
    /// Whether a voxel is read from a tile with a halo.
    bool isCached(Int4 const& lijk) const {
        return m_cache.enabled() && lijk[0] >= 0 && lijk[1] >= 0 && lijk[2] >= 0;
    }

    /// Whether each position is sampled by itself, in a batch too: adaptive, or from halo tiles.
    bool isPointwise() const {
        return m_source.jumpHandling != kJumpTrilinear || m_cache.enabled();
    }
    // `ToSet` is nothing, or a gradient.
    template <class... ToSet>
    ZEL_ALWAYS_INLINE T sampleWith(Position const& position, int depth, int space,
                                   ToSet&... gradient);
    bool enterApart(Position const& position, int space, int depth, Float4& frac);
    template <class... ToSet>
    T valueInTile(TreeIndex const& tree, Int4 const& lijk, Float4 const& frac, int depth,
                  ToSet&... gradient);
    template <class... ToSet> T valueHere(Float4 const& frac, ToSet&... gradient);
    bool enterVoxel(TreeIndex const& tree, Int4 const& lijk);
    template <class... ToSet>
    T adaptive(TreeIndex const& tree, Int4 const& lijk, Float4 const& frac, int depth,
               ToSet&... gradient);
    template <class Use>
    void forEachStencil(float const* x, float const* y, float const* z, int count, int space,
                        Use const& use);
    int locateStencils(float const* x, float const* y, float const* z, int count, int space,
                       std::array<Located, kBatch>& located, Cubes& cubes);

    Internal::CubicSource<Traits, T> m_source;
    Internal::AdaptiveMemo<T> m_memo;
    Internal::HaloTileCache<Traits, T> m_cache;
    Internal::TileCubeCache<Traits, T> m_cubes;
    Internal::CubicVoxel<Traits, T> m_voxel;
    int m_apartToSkip = 0;  ///< how many more far positions are sampled without enterApart()
};

extern template class VoxelSamplerCubic<BinaryTraits, float, float, float3, 0, 0>;
extern template class VoxelSamplerCubic<BinaryTraits, float3, float, float3, 0, 0>;
extern template class VoxelSamplerCubic<QuinaryTraits, float, float, float3, 0, 0>;
extern template class VoxelSamplerCubic<QuinaryTraits, float3, float, float3, 0, 0>;

}  // namespace ORV::TileTree3D
