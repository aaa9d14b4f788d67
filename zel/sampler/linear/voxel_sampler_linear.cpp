#include "zel/sampler/linear/voxel_sampler_linear.h"

#include <bit>
#include <limits>
#include <stdexcept>
#include <string>
#include <tuple>

#include "zel/sampler/linear/ring_fill.h"

namespace ORV::TileTree3D {

ZEL_DETAIL_LINEAR_HEAD
ZEL_DETAIL_LINEAR::VoxelSamplerLinear(Container<Traits> const& container,
                                      VoxelTopology<Traits> const& topology,
                                      HaloChannel<Traits, T> const& halo)
    : VoxelSampler<Traits, Real, Position>(container, topology),
      m_neighborAccessor(container.tileAccessor()), m_container(&container), m_haloChannel(&halo),
      m_invWorldVoxel(1.0F / container.voxelSize()), m_defaultValue(halo.defaultValue()),
      m_minDepth(halo.belongsTo(container) ? halo.minDepth() : std::numeric_limits<int>::max()),
      m_depth(halo.depth()) {
    if (topology.offsetType() != kOnVoxelCorners)
        throw std::invalid_argument("VoxelSamplerLinear: a halo channel, and offset type " +
                                    std::to_string(topology.offsetType()));
}

ZEL_DETAIL_LINEAR_HEAD
ZEL_DETAIL_LINEAR::VoxelSamplerLinear(Container<Traits> const& container,
                                      VoxelTopology<Traits> const& topology,
                                      DataChannel<Traits, T> const& channel)
    : VoxelSampler<Traits, Real, Position>(container, topology),
      m_neighborAccessor(container.tileAccessor()),
      m_cornerCache(topology.offsetType() == kOnVoxelCorners ? Traits::kMaxDepth + 1 : 0),
      m_ringCache(topology.offsetType() != kOnVoxelCorners ? Traits::kMaxDepth + 1 : 0),
      m_container(&container), m_channel(&channel), m_invWorldVoxel(1.0F / container.voxelSize()),
      m_defaultValue(channel.defaultValue()), m_minDepth(channel.minDepth()),
      m_depth(channel.depth()) {
    // Nothing can be read from the samples of other tiles: the default value everywhere.
    if (!channel.belongsTo(container)) m_minDepth = std::numeric_limits<int>::max();
}

ZEL_DETAIL_LINEAR_HEAD ZEL_DETAIL_LINEAR::~VoxelSamplerLinear() = default;

ZEL_DETAIL_LINEAR_HEAD Quern::String ZEL_DETAIL_LINEAR::samplerName() const {
    return "kLinear";
}

/// Whether the eight samples from a voxel on are all the tile's own, so that the surroundings do
/// not matter. On a low face a sample of a ring tile may differ from that of the tile.
ZEL_DETAIL_LINEAR_HEAD
bool ZEL_DETAIL_LINEAR::insideTile(Internal::Int4 lijk) const {
    int const lowest = this->m_offsetType == kOnVoxelCorners ? 0 : 1;
    auto const inside = [&](int i) { return lowest <= i && i < kSamples - 1; };
    return inside(lijk[0]) && inside(lijk[1]) && inside(lijk[2]);
}

/// Whether to read a voxel is to fill a tile of a cache.
ZEL_DETAIL_LINEAR_HEAD
bool ZEL_DETAIL_LINEAR::fills(TreeIndex const& tree, Internal::Int4 lijk) const {
    auto const depth = static_cast<unsigned>(tree.depth);
    long long const cached =
        this->m_offsetType == kOnVoxelCorners ? m_cornerCache[depth].tile : m_ringCache[depth].tile;
    return cached != tree.tile && !insideTile(lijk) && m_channel->samples(tree);
}

ZEL_DETAIL_LINEAR_HEAD
auto ZEL_DETAIL_LINEAR::channelCorner(TreeIndex const& tree, Internal::Int4 lijk)
    -> std::pair<T const*, int> {
    T const* const samples = m_channel->samples(tree);
    if (!samples) return {nullptr, 0};
    if (insideTile(lijk)) return {samples + flat(lijk, kSamples), kSamples};
    if (this->m_offsetType == kOnVoxelCorners)
        return {filled(m_cornerCache, tree).data() + flat(lijk, kHaloWidth), kHaloWidth};
    return {filled(m_ringCache, tree).data() + flat(lijk + 1, kSamples + 2), kSamples + 2};
}

/// The data of a tile with its surroundings, which replaces that of another tile of its depth.
ZEL_DETAIL_LINEAR_HEAD
template <class Cache> auto& ZEL_DETAIL_LINEAR::filled(Cache& cache, TreeIndex const& tree) {
    auto& entry = cache[static_cast<unsigned>(tree.depth)];
    if (entry.tile != tree.tile) {
        entry.tile = -1;
        fill(cache, tree);
        entry.tile = tree.tile;
    }
    return entry.data;
}

ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR::fill(CornerCache& cache, TreeIndex const& tree) {
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
void ZEL_DETAIL_LINEAR::fill(RingCache& cache, TreeIndex const& tree) {
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
        // The accessor answers with a shallower tile where there is none of this depth.
        if (neighbor.depth() == tile.depth())
            neighbors[static_cast<unsigned>(direction)] = m_channel->tileData(neighbor.treeIndex());
        surrounded = surrounded && neighbors[static_cast<unsigned>(direction)];
    }
    // The parent's ring is not read where all neighbours are there.
    if (!surrounded) filled(cache, parent.treeIndex());
    int3 const child = parent.childIJK(tile.tijk());
    fillRingTile<Traits, T>(this->m_offsetType, cache[static_cast<unsigned>(parent.depth())].data,
                            child.x, child.y, child.z, own, neighbors, ring);
}

/// Asks memory for the eight samples from `corner` on, of data that wide.
template <class T> static void prefetchCell(T const* corner, int width) {
    // Of each slice the two rows along x, with what lies between them.
    constexpr int kLine = 64;
    for (int const slice : {0, width * width}) {
        auto const* const first = reinterpret_cast<char const*>(corner + slice);
        auto const* const last = reinterpret_cast<char const*>(corner + slice + width + 2) - 1;
        __builtin_prefetch(first);
        if (sizeof(T) > sizeof(float)) __builtin_prefetch(first + kLine);
        __builtin_prefetch(last);
    }
}

/// Finds the samples around a place in a tile. False, and it does not, if that fills a tile of a
/// cache and must not.
ZEL_DETAIL_LINEAR_HEAD
bool ZEL_DETAIL_LINEAR::locateOne(TreeIndex const& tree, Internal::Int4 lijk, unsigned i,
                                  bool mayFill, LocatedBlock& located) {
    located.corners[i] = nullptr;
    located.widths[i] = kHaloWidth;
    located.depths[i] = tree.depth;
    if (tree.depth < m_minDepth) return true;
    if (m_haloChannel) {
        located.corners[i] = haloCorner(tree, lijk);
    } else {
        if (!mayFill && fills(tree, lijk)) return false;
        std::tie(located.corners[i], located.widths[i]) = channelCorner(tree, lijk);
    }
    return true;
}

/// Locates the next positions of a block that is placed, one at least, and asks memory for their
/// samples. It stops before one for which a tile of a cache had to be filled: that would take the
/// place of a tile that those before it wait for.
ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR::locateMore(float const* x, float const* y, float const* z, int space,
                                   int depth, LocatedBlock& located) {
    unsigned const first = located.count;
    unsigned& i = located.count;
    for (; located.run < static_cast<unsigned>(located.runCount); ++located.run) {
        TileRun const run = located.runs[located.run];
        auto const runEnd = static_cast<unsigned>(run.end);
        if (run.tile >= 0 && m_haloChannel) {
            TreeIndex const tree{run.tile, located.depth};
            T const* const samples =
                tree.depth >= m_minDepth ? m_haloChannel->samples(tree) : nullptr;
            unsigned n = i;
            for (; n < runEnd; ++n) {
                located.corners[n] =
                    samples ? samples + flat(located.voxel(n), kHaloWidth) : nullptr;
                located.widths[n] = kHaloWidth;
                located.depths[n] = tree.depth;
            }
            if (samples) prefetchCell(located.corners[i], kHaloWidth);
            i = n;
            continue;
        }
        // One by one: in a channel without halos, or in tiles of other depths.
        T const* last = nullptr;
        for (; i < runEnd; ++i) {
            TreeIndex tree{run.tile, located.depth};
            Internal::Int4 lijk{};
            if (run.tile < 0) {
                Internal::Float4 frac{};
                bool const found = this->place({x[i], y[i], z[i]}, space, depth, lijk, frac);
                tree = found ? this->m_box->tree : TreeIndex();
                for (unsigned axis = 0; axis < 3; ++axis) located.frac[axis][i] = frac[axis];
            } else {
                lijk = located.voxel(i);
            }
            if (!locateOne(tree, lijk, i, i == first, located)) return;
            T const* const corner = located.corners[i];
            if (corner && corner != last) prefetchCell(corner, located.widths[i]);
            last = corner;
        }
    }
}

ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR::sampleBlock(float const* x, float const* y, float const* z, int count,
                                    int maxDepth, int space,
                                    std::array<float*, kFloats> const& values) {
    forEachLocated(x, y, z, count, maxDepth, space,
                   [&](int i, T const* corner, LocatedBlock const& block, unsigned n) {
                       T const sample = corner ? value(corner, block.widths[n], block.fraction(n))
                                               : m_defaultValue;
                       auto const v = std::bit_cast<std::array<float, kFloats>>(sample);
                       for (std::size_t f = 0; f < kFloats; ++f) values[f][i] = v[f];
                   });
}

template class VoxelSamplerLinear<BinaryTraits, float, 1, float, float3, 0, 0, 1, 0>;
template class VoxelSamplerLinear<BinaryTraits, float3, 1, float, float3, 0, 0, 1, 0>;
template class VoxelSamplerLinear<QuinaryTraits, float, 1, float, float3, 0, 0, 1, 0>;
template class VoxelSamplerLinear<QuinaryTraits, float3, 1, float, float3, 0, 0, 1, 0>;

}  // namespace ORV::TileTree3D
