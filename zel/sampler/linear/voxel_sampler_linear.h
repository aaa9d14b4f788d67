#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <utility>
#include <vector>

#include "zel/sampler/common/voxel_sampler.h"
#include "zel/sampler/linear/cell.h"
#include "zel_platform/orvane_geometry_volume/halo.h"

namespace ORV::TileTree3D {

/// The trilinear value of a channel at a position, and its gradient. The last four arguments are
/// those of the halo operations: one layer on the high side of each axis.
///
/// In the halo form the samples just across a tile's faces come from a channel that computeHalo
/// filled; it takes topologies of offset type 7 alone. The other form reads a channel of samples
/// and makes the surroundings of a tile when it comes to it, keeping one tile of each depth. On
/// offset type 7 the two give the same bits, if the halo has the depths of the channel; on the
/// others those surroundings are a ring all round the tile, see ring_fill.h.
///
/// The default value of the channel, and a gradient of 0, is what is read outside the tree, in a
/// tile that the channel does not have, and at a position that is not finite. Sampling neither
/// allocates nor throws. One thread only; the channel is sized to the tree, and the volume must
/// outlive the sampler and stay as it is.
template <class Traits, class T, int N, class Real, class Position, int A, int B, int C, int D>
requires HighSideHalo<A, B, C, D> &&(N == 1) class VoxelSamplerLinear
    : public VoxelSampler<Traits, Real, Position> {
public:
    static constexpr int kSamples = Traits::kSamples;
    static constexpr int kHaloWidth = kSamples + 1;
    static constexpr std::size_t kFloats = std::same_as<T, float> ? 1 : 3;
    using typename VoxelSampler<Traits, Real, Position>::ConstTileAccessor;

    /// Throws std::invalid_argument if the topology's offset type is not 7.
    VoxelSamplerLinear(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                       HaloChannel<Traits, T> const& halo);
    VoxelSamplerLinear(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                       DataChannel<Traits, T> const& channel);
    ~VoxelSamplerLinear() override;

    Quern::String samplerName() const override;  ///< "kLinear"

    /// The value at a position, from the deepest tile there that is no deeper than `maxDepth` and
    /// the channel. `space` as for locate().
    ZEL_ALWAYS_INLINE T sample(Position const& position, int maxDepth, int space);

    /// The value, and the exact gradient of the trilinear patch around the position by world units.
    template <std::same_as<float> Scalar = T>
    ZEL_ALWAYS_INLINE Scalar sampleGradient(Position const& position, int maxDepth, int space,
                                            float3& gradient);

    /// sample() at `count` positions, in their order and bit for bit; one array for each float of
    /// a T.
    void sampleBlock(float const* x, float const* y, float const* z, int count, int maxDepth,
                     int space, std::array<float*, kFloats> const& values);
    /// sampleGradient() at `count` positions. `values` may be null.
    template <std::same_as<float> Scalar = T>
    void sampleGradientBlock(float const* x, float const* y, float const* z, int count,
                             int maxDepth, int space, Scalar* values,
                             std::array<float*, 3> const& gradients);

private:
    /// A tile's samples with their surroundings, `tile` in its depth; -1 if there is none.
    template <int Width, int Ring> struct HaloTileCacheEntry {
        using Data = TileData<T, Width, Ring, 0>;
        long long tile = -1;
        Data data{Data::Layout::kCount};
    };
    using CornerCache = std::vector<HaloTileCacheEntry<kHaloWidth, 0>>;
    using RingCache = std::vector<HaloTileCacheEntry<kSamples, 1>>;

    using typename VoxelSampler<Traits, Real, Position>::PlacedBlock;

    /// Where values come from: the lowest of the eight samples around each position, in data that
    /// wide; null, and the rest without a value, where the default value is read.
    struct LocatedBlock : PlacedBlock {
        static constexpr auto kSize = static_cast<unsigned>(PlacedBlock::kSize);
        std::array<T const*, kSize> corners;
        std::array<std::int32_t, kSize> widths, depths;
        unsigned count, run;  ///< the positions located so far, and the run that the next is in
    };

    /// Finds the tile, m_box->tree, if it is one that the channel may have.
    bool find(Position const& position, int maxDepth, int space, Internal::Int4& lijk,
              Internal::Float4& frac) {
        return this->place(position, space, std::min(m_depth, maxDepth), lijk, frac) &&
               this->m_box->tree.depth >= m_minDepth;
    }
    static int flat(Internal::Int4 p, int width) { return p[0] + width * (p[1] + width * p[2]); }
    T const* haloCorner(TreeIndex const& tree, Internal::Int4 lijk) const {
        T const* const samples = m_haloChannel->samples(tree);
        return samples ? samples + flat(lijk, kHaloWidth) : nullptr;
    }
    std::pair<T const*, int> channelCorner(TreeIndex const& tree, Internal::Int4 lijk);
    bool insideTile(Internal::Int4 lijk) const;
    bool fills(TreeIndex const& tree, Internal::Int4 lijk) const;
    T value(T const* corner, int width, Internal::Float4 const& frac) const {
        return corner ? Internal::LinearCell<T>(corner, width).value(frac) : m_defaultValue;
    }
    template <std::same_as<float> Scalar = T>
    Scalar value(Scalar const* corner, int width, Internal::Float4 const& frac, int depth,
                 float3& gradient) const {
        if (!corner) {
            gradient = float3();
            return m_defaultValue;
        }
        float const scale = Internal::kVoxelScales<Traits>[static_cast<unsigned>(depth)];
        float const perVoxel = (Traits::kBranch == 2 ? scale * 2.0F : scale) * m_invWorldVoxel;
        return Internal::LinearCell<T>(corner, width).value(frac, perVoxel, gradient);
    }

    template <class Use>
    void forEachLocated(float const* x, float const* y, float const* z, int count, int maxDepth,
                        int space, Use const& use);
    void locateMore(float const* x, float const* y, float const* z, int space, int depth,
                    LocatedBlock& located);
    bool locateOne(TreeIndex const& tree, Internal::Int4 lijk, unsigned i, bool mayFill,
                   LocatedBlock& located);

    template <class Cache> auto& filled(Cache& cache, TreeIndex const& tree);
    void fill(CornerCache& cache, TreeIndex const& tree);
    void fill(RingCache& cache, TreeIndex const& tree);

    ConstTileAccessor m_neighborAccessor;
    // By depth; both empty in the halo form.
    CornerCache m_cornerCache;  ///< for offset type 7
    RingCache m_ringCache;      ///< for the others
    Container<Traits> const* m_container;
    DataChannel<Traits, T> const* m_channel = nullptr;
    HaloChannel<Traits, T> const* m_haloChannel = nullptr;
    Real m_invWorldVoxel;  ///< infinite for a voxel size of 0
    T m_defaultValue;
    int m_minDepth;
    int m_depth;
};

#define ZEL_DETAIL_LINEAR_HEAD                                                                     \
    template <class Traits, class T, int N, class Real, class Position, int A, int B, int C,       \
              int D>                                                                               \
    requires HighSideHalo<A, B, C, D> &&(N == 1)
#define ZEL_DETAIL_LINEAR VoxelSamplerLinear<Traits, T, N, Real, Position, A, B, C, D>

ZEL_DETAIL_LINEAR_HEAD
inline T ZEL_DETAIL_LINEAR::sample(Position const& position, int maxDepth, int space) {
    Internal::Int4 lijk;
    Internal::Float4 frac;
    if (!find(position, maxDepth, space, lijk, frac)) return m_defaultValue;
    if (m_haloChannel) return value(haloCorner(this->m_box->tree, lijk), kHaloWidth, frac);
    auto const [corner, width] = channelCorner(this->m_box->tree, lijk);
    return value(corner, width, frac);
}

ZEL_DETAIL_LINEAR_HEAD
template <std::same_as<float> Scalar>
inline Scalar ZEL_DETAIL_LINEAR::sampleGradient(Position const& position, int maxDepth, int space,
                                                float3& gradient) {
    Internal::Int4 lijk;
    Internal::Float4 frac;
    if (!find(position, maxDepth, space, lijk, frac)) {
        gradient = float3();
        return m_defaultValue;
    }
    int const depth = this->m_box->tree.depth;
    if (m_haloChannel)
        return value(haloCorner(this->m_box->tree, lijk), kHaloWidth, frac, depth, gradient);
    auto const [corner, width] = channelCorner(this->m_box->tree, lijk);
    return value(corner, width, frac, depth, gradient);
}

ZEL_DETAIL_LINEAR_HEAD
template <std::same_as<float> Scalar>
void ZEL_DETAIL_LINEAR::sampleGradientBlock(float const* x, float const* y, float const* z,
                                            int count, int maxDepth, int space, Scalar* values,
                                            std::array<float*, 3> const& gradients) {
    forEachLocated(x, y, z, count, maxDepth, space,
                   [&](int i, T const* corner, LocatedBlock const& block, unsigned n) {
                       float3 g;
                       float const v = corner ? value(corner, block.widths[n], block.fraction(n),
                                                      block.depths[n], g)
                                              : m_defaultValue;
                       if (values) values[i] = v;
                       gradients[0][i] = g.x;
                       gradients[1][i] = g.y;
                       gradients[2][i] = g.z;
                   });
}

/// Calls use(i, corner, block, n) for each position i, which is the n-th of a block: in their
/// order, and after memory was asked for the samples of many.
ZEL_DETAIL_LINEAR_HEAD
template <class Use>
void ZEL_DETAIL_LINEAR::forEachLocated(float const* x, float const* y, float const* z, int count,
                                       int maxDepth, int space, Use const& use) {
    int const depth = std::min(m_depth, maxDepth);
    LocatedBlock block;
    for (int first = 0, size = 0; first < count; first += size) {
        size = std::min(count - first, PlacedBlock::kSize);
        this->placeBlock(x + first, y + first, z + first, size, space, depth, block);
        block.count = block.run = 0;
        for (unsigned n = 0; n < static_cast<unsigned>(size);) {
            locateMore(x + first, y + first, z + first, space, depth, block);
            for (; n < block.count; ++n)
                use(first + static_cast<int>(n), block.corners[n], block, n);
        }
    }
}

/// The linear sampler of a tree kind and a value type.
template <class Traits, class T>
using LinearSampler = VoxelSamplerLinear<Traits, T, 1, float, float3, 0, 0, 1, 0>;

extern template class VoxelSamplerLinear<BinaryTraits, float, 1, float, float3, 0, 0, 1, 0>;
extern template class VoxelSamplerLinear<BinaryTraits, float3, 1, float, float3, 0, 0, 1, 0>;
extern template class VoxelSamplerLinear<QuinaryTraits, float, 1, float, float3, 0, 0, 1, 0>;
extern template class VoxelSamplerLinear<QuinaryTraits, float3, 1, float, float3, 0, 0, 1, 0>;

}  // namespace ORV::TileTree3D
