#include "zel/sampler/cubic/voxel_sampler_cubic.h"

#include <algorithm>
#include <bit>
#include <span>

#include "zel/sampler/cubic/adaptive/differences.h"
#include "zel/sampler/cubic/adaptive/sample.h"

namespace ORV::TileTree3D {

namespace {

#define ZEL_DETAIL_CUBIC_HEAD                                                                      \
    template <class Traits, class T, class Ts, class Position, int A, int B>
#define ZEL_DETAIL_CUBIC_SAMPLER VoxelSamplerCubic<Traits, T, Ts, Position, A, B>

/// Prefetches the values of the stencil whose lowest value is the voxel `low` of the first tile.
/// Inlined, since g++ takes a function that only prefetches for one without effect and drops calls.
template <class Traits, class T>
ZEL_ALWAYS_INLINE inline void prefetch(std::array<T const*, 8> const& tiles,
                                       Internal::Int4 const& low) {
    Internal::TileCubeRows<Traits, T> rows;
    auto const columnAt = rows.columnsOf(tiles, low);
    // A slice of a tile may fit in a cache line.
    constexpr int kSlice = Traits::kSamples * Traits::kSamples * static_cast<int>(sizeof(T));
    constexpr int kStep = kSlice <= 64 ? 3 : 1;
    for (int const i : {0, 3}) {
        auto const column = columnAt(i);
        for (int k = 0; k < 4; ++k)
            for (int j = 0; j < 4; j += kStep) __builtin_prefetch(column(j, k));
    }
}

}  // namespace

ZEL_DETAIL_CUBIC_HEAD
ZEL_DETAIL_CUBIC_SAMPLER::VoxelSamplerCubic(Container<Traits> const& container,
                                            VoxelTopology<Traits> const& topology,
                                            DataChannel<Traits, T> const& channel,
                                            std::int32_t type, bool clamp,
                                            std::int32_t jumpHandling, DofChannel const* dofChannel,
                                            std::int32_t dofMask, long long cacheSize)
    : VoxelSampler<Traits, Ts, Position>(container, topology),
      m_source{
          .container = container,
          .topology = topology,
          .channel = channel,
          .type = type,
          .clamp = clamp,
          .jumpHandling = jumpHandling,
          .dofChannel = dofChannel,
          .dofMask = dofMask,
      },
      m_memo(jumpHandling != kJumpTrilinear),
      // Only samples on the corners of voxels, and of this tree, have halos.
      m_cache(jumpHandling == kJumpTrilinear && topology.offsetType() == kOnVoxelCorners &&
                      channel.belongsTo(container)
                  ? cacheSize
                  : std::min(cacheSize, 0LL),
              container),
      m_cubes(m_source) {}

ZEL_DETAIL_CUBIC_HEAD
ZEL_DETAIL_CUBIC_SAMPLER::~VoxelSamplerCubic() = default;

ZEL_DETAIL_CUBIC_HEAD
Quern::String ZEL_DETAIL_CUBIC_SAMPLER::samplerName() const {
    switch (m_source.type) {
    case kQuadraticC0Averaged:
        return "kQuadraticC0Averaged";
    case kCubicC0:
        return "kCubicC0";
    case kCubicC1:
        return "kCubicC1";
    case kCubicC1Monotonic:
        return "kCubicC1Monotonic";
    default:
        return "kError";
    }
}

ZEL_DETAIL_CUBIC_HEAD
T ZEL_DETAIL_CUBIC_SAMPLER::sample(Position const& position, int space) {
    return sample(position, Traits::kMaxDepth, space);
}

ZEL_DETAIL_CUBIC_HEAD
T ZEL_DETAIL_CUBIC_SAMPLER::sample(Position const& position, int depth, int space) {
    return sampleWith(position, depth, space);
}

ZEL_DETAIL_CUBIC_HEAD
template <class... ToSet>
inline T ZEL_DETAIL_CUBIC_SAMPLER::sampleWith(Position const& position, int depth, int space,
                                              ToSet&... gradient) {
    int const deepest = std::min(m_source.maxDepth, depth);
    Int4 lijk;
    Float4 frac;
    if (this->isApart(position, space, deepest) && enterApart(position, space, deepest, frac))
        return m_voxel.interpolate(m_source, frac, gradient...);
    if (this->locateVoxel(position, space, deepest, lijk, frac))
        return valueInTile(this->m_box->tree, lijk, frac, depth, gradient...);
    ((gradient = {}), ...);
    return m_source.defaultValue;
}

/// Makes m_voxel that of a position far from the last ones, and returns true, if it lies in a tile
/// of `depth`, or of the tree's depth if that is less, and not at a jump. The tile and those around
/// it are found in one look-up, whose waits for memory overlap. Else, or where this is not tried,
/// m_voxel stays.
ZEL_DETAIL_CUBIC_HEAD
bool ZEL_DETAIL_CUBIC_SAMPLER::enterApart(Position const& position, int space, int depth,
                                          Float4& frac) {
    if (isPointwise()) return false;
    if (m_apartToSkip > 0) {
        --m_apartToSkip;
        return false;
    }
    constexpr int kSkip = 64;  // where tiles of the depth are few, this is tried now and then
    m_apartToSkip = kSkip;
    VoxelBatch batch;
    if (!this->splitOne(position, space, depth, batch)) return false;
    if (batch.depth < m_source.minDepth) return false;
    Int4 const lijk = batch.voxel(0);
    Int4 const key = m_cubes.keyOf(batch.tileCorner(0), batch.depth, lijk);
    TileCube const* cube = m_cubes.known(key);
    if (!cube) {
        cube = &m_cubes.fetchApart(m_source, key);
        if (!cube->atJump) prefetch<Traits>(cube->tiles, Internal::lowestOf<Traits>(lijk));
    }
    if (cube->atJump) return false;
    m_apartToSkip = 0;
    T const* const own = cube->tiles[TileCube::slotOf(lijk[0] < 1, lijk[1] < 1, lijk[2] < 1)];
    TreeIndex const tree{(own - m_source.channel.samples({0, batch.depth})) / Traits::kSampleCount,
                         batch.depth};
    if (!m_voxel.is(tree, lijk)) m_voxel.readCubeApart(tree, lijk, *cube);
    frac = batch.fraction(0);
    return true;
}

ZEL_DETAIL_CUBIC_HEAD
T ZEL_DETAIL_CUBIC_SAMPLER::sampleGradient(Position const& position, int space,
                                           Gradient& gradient) {
    return sampleGradient(position, Traits::kMaxDepth, space, gradient);
}

ZEL_DETAIL_CUBIC_HEAD
T ZEL_DETAIL_CUBIC_SAMPLER::sampleGradient(Position const& position, int depth, int space,
                                           Gradient& gradient) {
    return sampleWith(position, depth, space, gradient);
}

ZEL_DETAIL_CUBIC_HEAD
T ZEL_DETAIL_CUBIC_SAMPLER::sampleVoxel(TreeIndex const& tree, int3 const& lijk, float3 const& frac,
                                        int depth, bool debug) {
    if (!isSampled(tree)) return m_source.defaultValue;
    int3 voxel;
    for (int axis = 0; axis < 3; ++axis)
        voxel[axis] = std::clamp(lijk[axis], -1, Traits::kSamples - 1);
    Int4 const clamped = Internal::int4Of(voxel, 0);
    if (!debug) return valueInTile(tree, clamped, Internal::float4Of(frac), depth);
    T value;
    if (m_source.jumpHandling != kJumpTrilinear) {
        value = Internal::adaptiveValue<Traits, T, Internal::StreamTrace>(m_source, m_memo, tree,
                                                                          voxel, frac, depth);
    } else {
        if (!isCached(clamped)) Internal::traceTileCube(m_source, m_memo, tree, voxel, frac);
        value = valueInTile(tree, clamped, Internal::float4Of(frac), depth);
    }
    Internal::flushLines();
    return value;
}

ZEL_DETAIL_CUBIC_HEAD
template <class... ToSet>
inline T ZEL_DETAIL_CUBIC_SAMPLER::valueInTile(TreeIndex const& tree, Int4 const& lijk,
                                               Float4 const& frac, int depth, ToSet&... gradient) {
    if (m_source.minDepth <= tree.depth) {
        if (m_source.jumpHandling != kJumpTrilinear)
            return adaptive(tree, lijk, frac, depth, gradient...);
        if (m_voxel.is(tree, lijk) || enterVoxel(tree, lijk)) return valueHere(frac, gradient...);
    }
    ((gradient = {}), ...);
    return m_source.defaultValue;
}

/// The value at a fraction of m_voxel.
ZEL_DETAIL_CUBIC_HEAD
template <class... ToSet>
inline T ZEL_DETAIL_CUBIC_SAMPLER::valueHere(Float4 const& frac, ToSet&... gradient) {
    return m_voxel.atJump() ? m_voxel.blend(m_source, Internal::float3Of(frac), gradient...)
                            : m_voxel.interpolate(m_source, frac, gradient...);
}

/// Makes m_voxel a voxel of a tile. Returns false if there is no such tile.
ZEL_DETAIL_CUBIC_HEAD
bool ZEL_DETAIL_CUBIC_SAMPLER::enterVoxel(TreeIndex const& tree, Int4 const& lijk) {
    Tile const& tile = m_source.container.tile(tree);
    if (!tile.exists()) return false;
    if (isCached(lijk)) {
        m_voxel.readHalo(tree, lijk, m_cache.halo(tree, m_source.channel, m_source.accessor));
    } else {
        Int4 const key = m_cubes.keyOf(tile.m_tijk, tile.m_depth, lijk);
        m_voxel.readCube(tree, lijk, m_cubes.cubeOf(m_source, tile, key));
    }
    return true;
}

ZEL_DETAIL_CUBIC_HEAD
template <class... ToSet>
[[gnu::noinline]] T ZEL_DETAIL_CUBIC_SAMPLER::adaptive(TreeIndex const& tree, Int4 const& lijk,
                                                       Float4 const& frac, int depth,
                                                       ToSet&... gradient) {
    // Between data points, away from jumps and with no finer tile to read, the kernels give the
    // same value. On a data point along an axis they give the gradient of the values around it.
    bool const between = frac[0] != 0 && frac[1] != 0 && frac[2] != 0;
    bool const wanted = between || sizeof...(ToSet) > 0;
    bool const byKernel = wanted && tree.depth == std::min(m_source.maxDepth, depth) &&
                          (m_voxel.is(tree, lijk) || enterVoxel(tree, lijk)) && !m_voxel.atJump();
    if (byKernel) {
        T const value = m_voxel.interpolate(m_source, frac, gradient...);
        if (Internal::isNaN(value))
            ((gradient = {}), ...);
        else if (between)
            return value;
    }
    int3 const voxel = Internal::int3Of(lijk);
    float3 const fraction = Internal::float3Of(frac);
    T const value = Internal::adaptiveValue<Traits, T, Internal::NoTrace>(m_source, m_memo, tree,
                                                                          voxel, fraction, depth);
    if (!byKernel)
        ((gradient =
              Internal::adaptiveDifferences(m_source, m_memo, tree, voxel, fraction, depth, value)),
         ...);
    return value;
}

/// Locates the first of some positions, kBatch at most, finds the cubes of their stencils, and
/// prefetches the samples of cubes that were not known. Returns the number of positions.
ZEL_DETAIL_CUBIC_HEAD
int ZEL_DETAIL_CUBIC_SAMPLER::locateStencils(float const* x, float const* y, float const* z,
                                             int count, int space,
                                             std::array<Located, kBatch>& located, Cubes& cubes) {
    auto const end = static_cast<unsigned>(std::min(count, kBatch));
    int const depth = std::min(m_source.maxDepth, std::int32_t{Traits::kMaxDepth});
    VoxelBatch batch;
    this->locateBatch(x, y, z, static_cast<int>(end), space, depth, batch);
    // Unknown cubes of the batch's depth are fetched at the end, all at once.
    std::array<unsigned, kBatch> firsts;  // by cube: the first position in it
    std::array<TileCube*, kBatch> unknown;
    unsigned cubeCount = 0, unknownCount = 0, i = 0;
    for (int r = 0; r < batch.runCount; ++r) {
        TileRun const run = batch.runs[static_cast<unsigned>(r)];
        for (; i < static_cast<unsigned>(run.end); ++i) {
            Located& l = located[i];
            l.tree = {run.tile, batch.depth};
            if (run.tile < 0) {
                bool const found =
                    this->locateVoxel({x[i], y[i], z[i]}, space, depth, l.lijk, l.frac);
                l.tree = found ? this->m_box->tree : TreeIndex();
            } else {
                l.lijk = batch.voxel(i);
                l.frac = batch.fraction(i);
            }
            if (!isSampled(l.tree)) continue;
            int3 const corner =
                run.tile < 0 ? m_source.container.tile(l.tree).m_tijk : batch.tileCorner(i);
            Int4 const key = m_cubes.keyOf(corner, l.tree.depth, l.lijk);
            if (cubeCount == 0 || !cubes[cubeCount - 1].is(key)) {
                TileCube& cube = cubes[cubeCount];
                firsts[cubeCount++] = i;
                if (auto const* const known = m_cubes.known(key)) {
                    cube = *known;
                } else if (run.tile < 0) {
                    cube = m_cubes.cubeOf(m_source, m_source.container.tile(l.tree), key);
                    if (!cube.atJump)
                        prefetch<Traits>(cube.tiles, Internal::lowestOf<Traits>(l.lijk));
                } else {
                    cube.key = key;
                    unknown[unknownCount++] = &cube;
                }
            }
            l.cube = cubeCount - 1;
        }
    }
    auto const fetched = std::span(unknown).first(unknownCount);
    m_cubes.fetchAll(m_source, batch.depth, fetched);
    // A scan line enters few cubes, of which it finds most values in the cache.
    if (unknownCount <= kBatch / 4) return static_cast<int>(end);
    for (TileCube const* const cube : fetched) {
        if (cube->atJump) continue;
        Located const& l = located[firsts[static_cast<unsigned>(cube - cubes.data())]];
        prefetch<Traits>(cube->tiles, Internal::lowestOf<Traits>(l.lijk));
    }
    return static_cast<int>(end);
}

/// Calls use(i, located) for each position i in order, with m_voxel its voxel if the tile has
/// samples. Not for kJumpAdaptive or halo tiles.
ZEL_DETAIL_CUBIC_HEAD
template <class Use>
ZEL_ALWAYS_INLINE inline void
ZEL_DETAIL_CUBIC_SAMPLER::forEachStencil(float const* x, float const* y, float const* z, int count,
                                         int space, Use const& use) {
    std::array<Located, kBatch> located;
    Cubes cubes;
    for (int first = 0; first < count; first += kBatch) {
        int const end =
            locateStencils(x + first, y + first, z + first, count - first, space, located, cubes);
        for (int n = 0; n < end; ++n) {
            Located const& l = located[static_cast<unsigned>(n)];
            if (isSampled(l.tree) && !m_voxel.is(l.tree, l.lijk))
                m_voxel.readCube(l.tree, l.lijk, cubes[l.cube]);
            use(first + n, l);
        }
    }
}

ZEL_DETAIL_CUBIC_HEAD
void ZEL_DETAIL_CUBIC_SAMPLER::sampleBatch(float const* x, float const* y, float const* z,
                                           int count, int space,
                                           std::array<float*, kComponents> const& values) {
    auto const put = [&](int i, T const& value) {
        auto const floats = std::bit_cast<std::array<float, kComponents>>(value);
        for (unsigned c = 0; c < unsigned{kComponents}; ++c) values[c][i] = floats[c];
    };
    if (isPointwise()) {
        for (int i = 0; i < count; ++i) put(i, sample({x[i], y[i], z[i]}, space));
        return;
    }
    forEachStencil(x, y, z, count, space, [&](int i, Located const& l) ZEL_ALWAYS_INLINE {
        put(i, isSampled(l.tree) ? valueHere(l.frac) : m_source.defaultValue);
    });
}

ZEL_DETAIL_CUBIC_HEAD
void ZEL_DETAIL_CUBIC_SAMPLER::sampleGradientBatch(
    float const* x, float const* y, float const* z, int count, int space,
    std::array<float*, kComponents> const& values,
    std::array<float*, 3 * kComponents> const& gradients) {
    auto const put = [&](int i, T const& value, Gradient const& gradient) {
        auto const v = std::bit_cast<std::array<float, kComponents>>(value);
        auto const g = std::bit_cast<std::array<float, 3 * kComponents>>(gradient);
        if (values[0])
            for (unsigned c = 0; c < unsigned{kComponents}; ++c) values[c][i] = v[c];
        for (unsigned c = 0; c < 3 * unsigned{kComponents}; ++c) gradients[c][i] = g[c];
    };
    if (isPointwise()) {
        for (int i = 0; i < count; ++i) {
            Gradient gradient;
            T const value = sampleGradient({x[i], y[i], z[i]}, space, gradient);
            put(i, value, gradient);
        }
        return;
    }
    forEachStencil(x, y, z, count, space, [&](int i, Located const& l) ZEL_ALWAYS_INLINE {
        Gradient gradient;
        T const value = isSampled(l.tree) ? valueHere(l.frac, gradient) : m_source.defaultValue;
        put(i, value, gradient);
    });
}

template class VoxelSamplerCubic<BinaryTraits, float, float, float3, 0, 0>;
template class VoxelSamplerCubic<BinaryTraits, float3, float, float3, 0, 0>;
template class VoxelSamplerCubic<QuinaryTraits, float, float, float3, 0, 0>;
template class VoxelSamplerCubic<QuinaryTraits, float3, float, float3, 0, 0>;

}  // namespace ORV::TileTree3D
