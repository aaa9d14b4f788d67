#include "zel/sampler/linear/voxel_sampler_linear.h"

#include <bit>
#include <limits>
#include <stdexcept>
#include <string>

#include "zel/sampler/linear/ring_fill.h"

namespace ORV::TileTree3D {

#define ZEL_DETAIL_LINEAR_HEAD                                                                     \
    template <class Traits, class T, int N, class Real, class Position, int A, int B, int C,       \
              int D>                                                                               \
    requires HighSideHalo<A, B, C, D> &&(N == 1)
#define ZEL_DETAIL_LINEAR_SAMPLER VoxelSamplerLinear<Traits, T, N, Real, Position, A, B, C, D>

ZEL_DETAIL_LINEAR_HEAD
ZEL_DETAIL_LINEAR_SAMPLER::VoxelSamplerLinear(Container<Traits> const& container,
                                              VoxelTopology<Traits> const& topology,
                                              HaloChannel<Traits, T> const& halo)
    : VoxelSampler<Traits, Real, Position>(container, topology),
      m_neighborAccessor(container.tileAccessor()), m_container(&container), m_haloChannel(&halo),
      m_invWorldVoxel(1.0F / container.voxelSize()), m_defaultValue(halo.defaultValue()),
      m_minDepth(halo.belongsTo(container) ? halo.minDepth() : std::numeric_limits<int>::max()),
      m_depth(halo.depth()) {
    if (!isOnCorners())
        throw std::invalid_argument("VoxelSamplerLinear: a halo channel, and offset type " +
                                    std::to_string(topology.offsetType()));
}

ZEL_DETAIL_LINEAR_HEAD
ZEL_DETAIL_LINEAR_SAMPLER::VoxelSamplerLinear(Container<Traits> const& container,
                                              VoxelTopology<Traits> const& topology,
                                              DataChannel<Traits, T> const& channel)
    : VoxelSampler<Traits, Real, Position>(container, topology),
      m_neighborAccessor(container.tileAccessor()),
      m_cornerCache(isOnCorners() ? Traits::kMaxDepth + 1 : 0),
      m_ringCache(isOnCorners() ? 0 : Traits::kMaxDepth + 1), m_container(&container),
      m_channel(&channel), m_invWorldVoxel(1.0F / container.voxelSize()),
      m_defaultValue(channel.defaultValue()), m_minDepth(channel.minDepth()),
      m_depth(channel.depth()) {
    // The samples of another tree's tiles cannot be read: the default value everywhere.
    if (!channel.belongsTo(container)) m_minDepth = std::numeric_limits<int>::max();
}

ZEL_DETAIL_LINEAR_HEAD ZEL_DETAIL_LINEAR_SAMPLER::~VoxelSamplerLinear() = default;

ZEL_DETAIL_LINEAR_HEAD Quern::String ZEL_DETAIL_LINEAR_SAMPLER::samplerName() const {
    return "kLinear";
}

/// Whether the eight samples from a voxel on are all the tile's own, so that no halo is needed. In
/// a ring tile, fillRingTile may have replaced the samples on a low face, so that index 0 counts as
/// outside.
ZEL_DETAIL_LINEAR_HEAD
bool ZEL_DETAIL_LINEAR_SAMPLER::insideTile(Internal::Int4 lijk) const {
    int const lowest = isOnCorners() ? 0 : 1;
    auto const inside = [&](int i) { return lowest <= i && i < kSamples - 1; };
    return inside(lijk[0]) && inside(lijk[1]) && inside(lijk[2]);
}

/// Whether reading a voxel would fill a tile of a cache.
ZEL_DETAIL_LINEAR_HEAD
bool ZEL_DETAIL_LINEAR_SAMPLER::fills(TreeIndex const& tree, Internal::Int4 lijk) const {
    auto const depth = static_cast<unsigned>(tree.depth);
    long long const cached = isOnCorners() ? m_cornerCache[depth].tile : m_ringCache[depth].tile;
    return cached != tree.tile && !insideTile(lijk) && m_channel->samples(tree);
}

ZEL_DETAIL_LINEAR_HEAD
auto ZEL_DETAIL_LINEAR_SAMPLER::channelCell(TreeIndex const& tree, Internal::Int4 lijk) -> Cell {
    T const* const samples = m_channel->samples(tree);
    if (!samples) return {};
    if (insideTile(lijk)) return {samples + flat(lijk, kSamples), kSamples};
    if (isOnCorners())
        return {filled(m_cornerCache, tree).data() + flat(lijk, kHaloWidth), kHaloWidth};
    return {filled(m_ringCache, tree).data() + flat(lijk + 1, kSamples + 2), kSamples + 2};
}

/// The samples of a tile with their halo, which take the place of another tile of the same depth.
ZEL_DETAIL_LINEAR_HEAD
template <class Cache>
auto& ZEL_DETAIL_LINEAR_SAMPLER::filled(Cache& cache, TreeIndex const& tree) {
    auto& entry = cache[static_cast<unsigned>(tree.depth)];
    if (entry.tile != tree.tile) {
        entry.tile = -1;
        fill(cache, tree);
        entry.tile = tree.tile;
    }
    return entry.data;
}

ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR_SAMPLER::fill(CornerCache& cache, TreeIndex const& tree) {
    auto const& tile = m_container->tile(tree);
    auto const& parent = m_container->tile(tile.parentTreeIndex());
    bool const useParent = parent.exists() && tree.depth > m_minDepth;
    typename CornerCache::value_type::Data none;
    setHaloTile<Traits, T, A, B, C, D>(tile, useParent ? &parent : nullptr, *m_channel,
                                       useParent ? filled(cache, parent.treeIndex()) : none, 2,
                                       m_neighborAccessor,
                                       cache[static_cast<unsigned>(tree.depth)].data);
}

ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR_SAMPLER::fill(RingCache& cache, TreeIndex const& tree) {
    auto const& tile = m_container->tile(tree);
    auto const& parent = m_container->tile(tile.parentTreeIndex());
    auto& ring = cache[static_cast<unsigned>(tree.depth)].data;
    auto const own = m_channel->tileData(tree);
    if (!m_channel->samples(parent.treeIndex())) {
        fillRingTileFromDefault<Traits, T>(this->m_offsetType, m_defaultValue, own, ring);
        return;
    }
    NeighborData<Traits, T> neighbors;
    bool surrounded = true;
    for (NeighborDirection direction = 0; direction < 27; ++direction) {
        if (direction == 13) continue;
        auto const& neighbor = m_neighborAccessor.tileNeighbor(tile, direction);
        // The accessor returns a shallower tile where there is none of this depth.
        if (neighbor.depth() == tile.depth())
            neighbors[static_cast<unsigned>(direction)] = m_channel->tileData(neighbor.treeIndex());
        surrounded = surrounded && neighbors[static_cast<unsigned>(direction)];
    }
    // The parent's ring is not read if all neighbours exist.
    if (!surrounded) filled(cache, parent.treeIndex());
    int3 const child = parent.childIJK(tile.tijk());
    fillRingTile<Traits, T>(this->m_offsetType, cache[static_cast<unsigned>(parent.depth())].data,
                            child.x, child.y, child.z, own, neighbors, ring);
}

/// Prefetches the eight samples from `corner` on, in data of that width: of each slice the two rows
/// along x, and what lies between them.
template <class T> static void prefetchCell(T const* corner, int width) {
    constexpr int kLine = 64;
    for (int const slice : {0, width * width}) {
        auto const* const first = reinterpret_cast<char const*>(corner + slice);
        auto const* const last = reinterpret_cast<char const*>(corner + slice + width + 2) - 1;
        __builtin_prefetch(first);
        if (sizeof(T) > sizeof(float)) __builtin_prefetch(first + kLine);
        __builtin_prefetch(last);
    }
}

/// Finds the cell of a position in a voxel. Returns false, and finds none, if that would fill a
/// tile of a cache and must not.
ZEL_DETAIL_LINEAR_HEAD
bool ZEL_DETAIL_LINEAR_SAMPLER::findCell(TreeIndex const& tree, Internal::Int4 lijk, unsigned i,
                                         bool mayFill, CellBatch& batch) {
    bool const sampled = tree.depth >= m_minDepth;
    if (sampled && !m_haloChannel && !mayFill && fills(tree, lijk)) return false;
    Cell cell{};
    if (sampled) cell = m_haloChannel ? haloCell(tree, lijk) : channelCell(tree, lijk);
    batch.corners[i] = cell.corner;
    batch.widths[i] = cell.width;
    batch.depths[i] = tree.depth;
    return true;
}

/// Finds the cells of the next positions of a batch, one at least, and prefetches their samples. It
/// stops before a position that fills a tile of a cache: that tile would replace one that an
/// earlier cell of the batch points to.
ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR_SAMPLER::findCells(float const* x, float const* y, float const* z, int space,
                                          int depth, CellBatch& batch) {
    unsigned const first = batch.count;
    unsigned& i = batch.count;
    for (; batch.run < static_cast<unsigned>(batch.runCount); ++batch.run) {
        TileRun const run = batch.runs[batch.run];
        auto const runEnd = static_cast<unsigned>(run.end);
        if (run.tile >= 0 && m_haloChannel) {
            TreeIndex const tree{run.tile, batch.runDepths[batch.run]};
            T const* const samples =
                tree.depth >= m_minDepth ? m_haloChannel->samples(tree) : nullptr;
            if (samples) prefetchCell(samples + flat(batch.voxel(i), kHaloWidth), kHaloWidth);
            for (; i < runEnd; ++i) {
                batch.corners[i] = samples ? samples + flat(batch.voxel(i), kHaloWidth) : nullptr;
                batch.widths[i] = kHaloWidth;
                batch.depths[i] = tree.depth;
            }
            continue;
        }
        // One by one: in a channel without halos, or in tiles of other depths.
        T const* last = nullptr;
        for (; i < runEnd; ++i) {
            TreeIndex tree{run.tile, batch.runDepths[batch.run]};
            Internal::Int4 lijk{};
            if (run.tile < 0) {
                Internal::Float4 frac{};
                bool const found = this->locateVoxel({x[i], y[i], z[i]}, space, depth, lijk, frac);
                tree = found ? this->m_box->tree : TreeIndex();
                for (unsigned axis = 0; axis < 3; ++axis) batch.frac[axis][i] = frac[axis];
            } else {
                lijk = batch.voxel(i);
            }
            if (!findCell(tree, lijk, i, i == first, batch)) return;
            T const* const corner = batch.corners[i];
            if (corner && corner != last) prefetchCell(corner, batch.widths[i]);
            last = corner;
        }
    }
}

/// Calls use(i, batch, n) for each position i in order, which is the n-th of a batch, after the
/// samples of the positions around it were prefetched.
ZEL_DETAIL_LINEAR_HEAD
template <class Use>
void ZEL_DETAIL_LINEAR_SAMPLER::forEachCell(float const* x, float const* y, float const* z,
                                            int count, int maxDepth, int space, Use const& use) {
    int const depth = std::min(m_depth, maxDepth);
    CellBatch batch;
    for (int first = 0, size = 0; first < count; first += size) {
        size = std::min(count - first, VoxelBatch::kSize);
        this->locateDeepest(x + first, y + first, z + first, size, space, depth, batch);
        batch.count = batch.run = 0;
        for (unsigned n = 0; n < static_cast<unsigned>(size);) {
            findCells(x + first, y + first, z + first, space, depth, batch);
            for (; n < batch.count; ++n) use(first + static_cast<int>(n), batch, n);
        }
    }
}

ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR_SAMPLER::sampleBatch(float const* x, float const* y, float const* z,
                                            int count, int maxDepth, int space,
                                            std::array<float*, kFloats> const& values) {
    forEachCell(x, y, z, count, maxDepth, space, [&](int i, CellBatch const& batch, unsigned n) {
        auto const v =
            std::bit_cast<std::array<float, kFloats>>(value(batch.cell(n), batch.fraction(n)));
        for (std::size_t f = 0; f < kFloats; ++f) values[f][i] = v[f];
    });
}

ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR_SAMPLER::sampleGradientBatch(
    float const* x, float const* y, float const* z, int count, int maxDepth, int space,
    std::array<float*, kFloats> const& values, std::array<float*, 3 * kFloats> const& gradients) {
    forEachCell(x, y, z, count, maxDepth, space, [&](int i, CellBatch const& batch, unsigned n) {
        GradientOf<T> gradient;
        auto const v = std::bit_cast<std::array<float, kFloats>>(
            value(batch.cell(n), batch.fraction(n), batch.depths[n], gradient));
        auto const g = std::bit_cast<std::array<float, 3 * kFloats>>(gradient);
        if (values[0])
            for (std::size_t f = 0; f < kFloats; ++f) values[f][i] = v[f];
        for (std::size_t f = 0; f < 3 * kFloats; ++f) gradients[f][i] = g[f];
    });
}

template class VoxelSamplerLinear<BinaryTraits, float, 1, float, float3, 0, 0, 1, 0>;
template class VoxelSamplerLinear<BinaryTraits, float3, 1, float, float3, 0, 0, 1, 0>;
template class VoxelSamplerLinear<QuinaryTraits, float, 1, float, float3, 0, 0, 1, 0>;
template class VoxelSamplerLinear<QuinaryTraits, float3, 1, float, float3, 0, 0, 1, 0>;

}  // namespace ORV::TileTree3D
