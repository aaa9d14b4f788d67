#include "zel/sampler/linear/voxel_sampler_linear.h"

#include <bit>
#include <limits>
#include <stdexcept>
#include <string>

#include "zel/sampler/linear/ring_fill.h"
#include "zel_platform/orvane_geometry_volume/halo_fill.h"

namespace ORV::TileTree3D {

#define ZEL_DETAIL_LINEAR_HEAD                                                                     \
    template <class Traits, class T, int N, class Real, class Position, int A, int B, int C,       \
              int D>                                                                               \
    requires HighSideHalo<A, B, C, D> &&(N == 1)
#define ZEL_DETAIL_LINEAR_SAMPLER VoxelSamplerLinear<Traits, T, N, Real, Position, A, B, C, D>

namespace {

/// The halo of samples on corners, and that of other topologies.
template <class Traits, class T> using HighSides = Internal::HaloFill<Traits, T, 0, 1>;
template <class Traits, class T> using Ring = Internal::HaloFill<Traits, T, 1, 1>;

}  // namespace

ZEL_DETAIL_LINEAR_HEAD
ZEL_DETAIL_LINEAR_SAMPLER::VoxelSamplerLinear(Container<Traits> const& container,
                                              VoxelTopology<Traits> const& topology,
                                              HaloChannel<Traits, T> const& halo)
    : VoxelSampler<Traits, Real, Position>(container, topology),
      m_neighborAccessor(container.tileAccessor()), m_ring(0), m_container(&container),
      m_haloChannel(&halo), m_invWorldVoxel(1.0F / container.voxelSize()),
      m_defaultValue(halo.defaultValue()),
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
      m_neighborAccessor(container.tileAccessor()), m_ring(isOnCorners() ? 0 : 1),
      m_halos(isOnCorners() ? HighSides<Traits, T>::kCount : Ring<Traits, T>::kCount),
      m_container(&container), m_channel(&channel), m_invWorldVoxel(1.0F / container.voxelSize()),
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

ZEL_DETAIL_LINEAR_HEAD
auto ZEL_DETAIL_LINEAR_SAMPLER::channelCell(TreeIndex const& tree, Internal::Int4 lijk) -> Cell {
    T const* const samples = m_channel->samples(tree);
    if (!samples) return {};
    if (insideTile(lijk)) return {samples + flat(lijk, kSamples), kSamples};
    auto const [origin, width] = haloSamples(tree == m_lastTile ? m_lastHalo : fillHalo(tree));
    return {origin + flat(lijk, width), width};
}

/// The halo of a tile of the channel, filled if it is not here.
ZEL_DETAIL_LINEAR_HEAD
T* ZEL_DETAIL_LINEAR_SAMPLER::fillHalo(TreeIndex const& tree) {
    auto const& tile = m_container->tile(tree);
    T* halo = m_halos.find(tile);
    if (!halo) halo = isOnCorners() ? fillHighSides(tile) : fillRing(tile);
    m_lastTile = tree;
    return m_lastHalo = halo;
}

/// Fills as computeHalo() does.
ZEL_DETAIL_LINEAR_HEAD
T* ZEL_DETAIL_LINEAR_SAMPLER::fillHighSides(TileOf<Traits> const& tile) {
    HighSides<Traits, T> const fill(tile, kOnVoxelCorners);
    auto const tiles =
        Internal::surroundingTiles<Traits, T>(tile, 0, *m_channel, m_neighborAccessor);
    bool const useParent = tile.depth() > m_minDepth && fill.needsParent(tiles);
    T const* const parent = useParent ? fillHalo(tile.parentTreeIndex()) : nullptr;
    T* const halo = m_halos.replace(tile);
    fill.run(tiles, parent, m_defaultValue, halo);
    return halo;
}

ZEL_DETAIL_LINEAR_HEAD
T* ZEL_DETAIL_LINEAR_SAMPLER::fillRing(TileOf<Traits> const& tile) {
    RingTile<Traits, T> ring;
    OwnData<Traits, T> const own(m_channel->samples(tile.treeIndex()));
    if (tile.depth() == m_minDepth) {
        ring.setFlatPointer(m_halos.replace(tile));
        fillRingTileFromDefault<Traits, T>(this->m_offsetType, m_defaultValue, own, ring);
        return ring.data();
    }
    auto const tiles =
        Internal::surroundingTiles<Traits, T>(tile, -1, *m_channel, m_neighborAccessor);
    if (Ring<Traits, T>::isComplete(tiles)) {
        ring.setFlatPointer(m_halos.replace(tile));
        Ring<Traits, T>::copy(tiles, ring.data());
        return ring.data();
    }
    auto const& parent = m_container->tile(tile.parentTreeIndex());
    RingTile<Traits, T> parentRing;
    parentRing.setFlatPointer(fillHalo(parent.treeIndex()));
    ring.setFlatPointer(m_halos.replace(tile));
    NeighborData<Traits, T> neighbors;
    for (unsigned direction = 0; direction < neighbors.size(); ++direction)
        neighbors[direction] = OwnData<Traits, T>(tiles.samples[direction]);
    int3 const child = parent.childIJK(tile.tijk());
    fillRingTile<Traits, T>(this->m_offsetType, parentRing, child.x, child.y, child.z, own,
                            neighbors, ring);
    return ring.data();
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

/// Finds the samples for the positions of a batch from `first` to `end`, which are in one tile.
/// Returns false if that would fill a halo and must not.
ZEL_DETAIL_LINEAR_HEAD
bool ZEL_DETAIL_LINEAR_SAMPLER::findSamples(TreeIndex const& tree, unsigned first, unsigned end,
                                            bool mayFill, CellBatch const& batch,
                                            Samples& samples) {
    samples = {};
    if (tree.depth < m_minDepth) return true;
    if (m_haloChannel) {
        samples = {m_haloChannel->samples(tree), kHaloWidth};
        return true;
    }
    T const* const own = m_channel->samples(tree);
    if (!own) return true;
    // A halo has the tile's own samples too, but for those that no cell inside the tile has.
    T const* halo = findHalo(tree);
    bool isInside = true;
    for (unsigned i = first; !halo && i < end; ++i)
        isInside = isInside && insideTile(batch.voxel(i));
    if (!halo && !isInside) {
        if (!mayFill) return false;
        halo = fillHalo(tree);
    }
    samples = halo ? haloSamples(halo) : Samples{own, kSamples};
    return true;
}

ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR_SAMPLER::CellBatch::add(unsigned end, Samples const& samples,
                                               int tileDepth) {
    for (; count < end; ++count) {
        corners[count] =
            samples.origin ? samples.origin + flat(this->voxel(count), samples.width) : nullptr;
        widths[count] = samples.width;
        depths[count] = tileDepth;
    }
}

/// Finds the cells of the next positions of a batch, one at least, and prefetches their samples. It
/// stops before a position that fills a halo: that would take the place of one that an earlier cell
/// of the batch points to.
ZEL_DETAIL_LINEAR_HEAD
void ZEL_DETAIL_LINEAR_SAMPLER::findCells(float const* x, float const* y, float const* z, int space,
                                          int depth, CellBatch& batch) {
    unsigned const first = batch.count;
    for (; batch.run < static_cast<unsigned>(batch.runCount); ++batch.run) {
        TileRun const run = batch.runs[batch.run];
        auto const runEnd = static_cast<unsigned>(run.end);
        T const* last = nullptr;
        auto const addCells = [&](TreeIndex const& tree, unsigned end) {
            unsigned const i = batch.count;
            Samples samples;
            if (!findSamples(tree, i, end, i == first, batch, samples)) return false;
            batch.add(end, samples, tree.depth);
            T const* const corner = batch.corners[i];
            if (corner && corner != last) prefetchCell(corner, samples.width);
            last = corner;
            return true;
        };
        if (run.tile >= 0) {
            if (!addCells({run.tile, batch.runDepths[batch.run]}, runEnd)) return;
            continue;
        }
        // One by one, in tiles of other depths.
        while (batch.count < runEnd) {
            unsigned const i = batch.count;
            Internal::Int4 lijk{};
            Internal::Float4 frac{};
            bool const found = this->locateVoxel({x[i], y[i], z[i]}, space, depth, lijk, frac);
            for (unsigned axis = 0; axis < 3; ++axis) {
                batch.lijk[axis][i] = lijk[axis];
                batch.frac[axis][i] = frac[axis];
            }
            if (!addCells(found ? this->m_box->tree : TreeIndex(), i + 1)) return;
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
