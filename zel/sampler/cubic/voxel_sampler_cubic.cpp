#include "zel/sampler/cubic/voxel_sampler_cubic.h"

#include <algorithm>
#include <bit>
#include <span>

#include "zel/sampler/cubic/adaptive/sample.h"

namespace ORV::TileTree3D {

namespace {

#define ZEL_DETAIL_CUBIC_HEAD                                                                      \
    template <class Traits, class T, class Ts, class Position, int A, int B>
#define ZEL_DETAIL_CUBIC_SAMPLER VoxelSamplerCubic<Traits, T, Ts, Position, A, B>

constexpr VoxelOffsetType kOnCorners = 7;

/// Asks memory for the values of a stencil, whose lowest one is the voxel `low` of the first tile.
template <class Traits, class T>
void prefetch(std::array<T const*, 8> const& tiles, Internal::Int4 const& low) {
    Internal::StencilRows<Traits, T> rows;
    auto const columnAt = rows.columnsOf(tiles, low);
    // A slice of a tile may be a cache line.
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
      // There are no halos for samples off the corners of their voxels, nor of another tree.
      m_cache(jumpHandling == kJumpTrilinear && topology.offsetType() == kOnCorners &&
                      channel.belongsTo(container)
                  ? cacheSize
                  : std::min(cacheSize, 0LL),
              container),
      m_blocks(m_source) {}

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
    Int4 lijk;
    Float4 frac;
    if (!this->place(position, space, std::min(m_source.maxDepth, depth), lijk, frac))
        return m_source.defaultValue;
    return sampleVoxel(this->m_box->tree, lijk, frac, depth);
}

ZEL_DETAIL_CUBIC_HEAD
T ZEL_DETAIL_CUBIC_SAMPLER::sampleVoxel(TreeIndex const& tree, int3 const& lijk, float3 const& frac,
                                        int depth, bool debug) {
    Int4 const voxel{lijk.x, lijk.y, lijk.z, 0};
    bool const sampled = tree.valid() && m_source.minDepth <= tree.depth;
    if (!debug || !sampled)
        return sampled ? sampleVoxel(tree, voxel, Internal::float4Of(frac), depth)
                       : m_source.defaultValue;
    int3 const limited = Internal::int3Of(Internal::limitedVoxel<Traits>(voxel));
    if (m_source.jumpHandling != kJumpTrilinear) {
        T const value = Internal::adaptiveValue<Traits, T, Internal::StreamTrace>(
            m_source, m_memo, tree, limited, frac, depth);
        Internal::flushLines();
        return value;
    }
    if (!isCached(Internal::limitedVoxel<Traits>(voxel))) {
        Internal::traceTiles(m_source, m_memo, tree, limited, frac);
        Internal::flushLines();
    }
    return sampleVoxel(tree, voxel, Internal::float4Of(frac), depth);
}

/// The same for a tile that is named.
ZEL_DETAIL_CUBIC_HEAD
inline T ZEL_DETAIL_CUBIC_SAMPLER::sampleVoxel(TreeIndex const& tree, Int4 const& lijk,
                                               Float4 const& frac, int depth) {
    if (m_source.minDepth > tree.depth) return m_source.defaultValue;
    if (m_source.jumpHandling != kJumpTrilinear) return adaptive(tree, lijk, frac, depth);
    return m_voxel.is(tree, lijk) || moveTo(tree, lijk) ? current(frac) : m_source.defaultValue;
}

/// Makes m_voxel that voxel. False if there is no such tile.
ZEL_DETAIL_CUBIC_HEAD
bool ZEL_DETAIL_CUBIC_SAMPLER::moveTo(TreeIndex const& tree, Int4 const& lijk) {
    Tile const& tile = m_source.container.tile(tree);
    if (!tile.exists()) return false;
    Int4 const voxel = Internal::limitedVoxel<Traits>(lijk);
    if (isCached(voxel)) {
        m_voxel.moveTo(tree, lijk, voxel, m_cache.halo(tree, m_source.channel, m_source.accessor));
    } else {
        m_voxel.moveTo(
            tree, lijk, voxel,
            m_blocks.at(m_source, tile, m_blocks.placeOf(tile.m_tijk, tile.m_depth, voxel)));
    }
    return true;
}

/// The value at a place in m_voxel.
ZEL_DETAIL_CUBIC_HEAD
inline T ZEL_DETAIL_CUBIC_SAMPLER::current(Float4 const& frac) {
    return m_voxel.atJump() ? m_voxel.blend(m_source, Internal::float3Of(frac))
                            : m_voxel.interpolate(m_source, frac);
}

ZEL_DETAIL_CUBIC_HEAD
T ZEL_DETAIL_CUBIC_SAMPLER::adaptive(TreeIndex const& tree, Int4 const& lijk, Float4 const& frac,
                                     int depth) {
    // Between data points, on uniform ground and with nothing below, it is the value of the
    // kernels.
    bool const between = frac[0] != 0 && frac[1] != 0 && frac[2] != 0;
    if (between && tree.depth == std::min(m_source.maxDepth, depth) &&
        (m_voxel.is(tree, lijk) || moveTo(tree, lijk)) && !m_voxel.atJump()) {
        T const value = m_voxel.interpolate(m_source, frac);
        if (!Internal::isNaN(value)) return value;
    }
    return Internal::adaptiveValue<Traits, T, Internal::NoTrace>(
        m_source, m_memo, tree, Internal::int3Of(Internal::limitedVoxel<Traits>(lijk)),
        Internal::float3Of(frac), depth);
}

/// Locates the first of some positions, kBlock at most, finds the tiles around their stencils, and
/// asks memory for the samples of those that were not known. Returns how many.
ZEL_DETAIL_CUBIC_HEAD
int ZEL_DETAIL_CUBIC_SAMPLER::locateBlock(float const* x, float const* y, float const* z, int count,
                                          int space, std::array<Located, kBlock>& located,
                                          std::array<Internal::TileBlock<T>, kBlock>& blocks) {
    auto const end = static_cast<unsigned>(std::min(count, kBlock));
    int const depth = std::min(m_source.maxDepth, std::int32_t{Traits::kMaxDepth});
    PlacedBlock placed;
    this->placeBlock(x, y, z, static_cast<int>(end), space, depth, placed);
    // What is not known of blocks of the depth of most positions is found later, all at once.
    std::array<unsigned, kBlock> firsts;  // by block: the position it was met at
    std::array<Internal::TileBlock<T>*, kBlock> unknown;
    unsigned blockCount = 0, unknownCount = 0, i = 0;
    for (int r = 0; r < placed.runCount; ++r) {
        TileRun const run = placed.runs[static_cast<unsigned>(r)];
        for (; i < static_cast<unsigned>(run.end); ++i) {
            Located& l = located[i];
            l.tree = {run.tile, placed.depth};
            if (run.tile < 0) {
                bool const found = this->place({x[i], y[i], z[i]}, space, depth, l.lijk, l.frac);
                l.tree = found ? this->m_box->tree : TreeIndex();
            } else {
                l.lijk = placed.voxel(i);
                l.frac = placed.fraction(i);
            }
            if (!l.tree.valid() || l.tree.depth < m_source.minDepth) continue;
            int3 const corner =
                run.tile < 0 ? m_source.container.tile(l.tree).m_tijk : placed.corner(i);
            Int4 const voxel = Internal::limitedVoxel<Traits>(l.lijk),
                       place = m_blocks.placeOf(corner, l.tree.depth, voxel);
            if (blockCount == 0 || !blocks[blockCount - 1].is(place)) {
                auto& block = blocks[blockCount];
                firsts[blockCount++] = i;
                if (auto const* const known = m_blocks.known(place)) {
                    block = *known;
                } else if (run.tile < 0) {
                    block = m_blocks.at(m_source, m_source.container.tile(l.tree), place);
                    if (!block.atJump)
                        prefetch<Traits>(block.tiles, Internal::lowestOf<Traits>(voxel));
                } else {
                    block.place = place;
                    unknown[unknownCount++] = &block;
                }
            }
            l.block = blockCount - 1;
        }
    }
    m_blocks.findAll(m_source, placed.depth, std::span(unknown).first(unknownCount));
    for (Internal::TileBlock<T> const* const block : std::span(unknown).first(unknownCount)) {
        if (block->atJump) continue;
        Located const& l = located[firsts[static_cast<unsigned>(block - blocks.data())]];
        prefetch<Traits>(block->tiles,
                         Internal::lowestOf<Traits>(Internal::limitedVoxel<Traits>(l.lijk)));
    }
    return static_cast<int>(end);
}

ZEL_DETAIL_CUBIC_HEAD
void ZEL_DETAIL_CUBIC_SAMPLER::sampleBlock(float const* x, float const* y, float const* z,
                                           int count, int space,
                                           std::array<float*, kComponents> const& values) {
    auto const put = [&](int i, T const& value) {
        auto const floats = std::bit_cast<std::array<float, kComponents>>(value);
        for (unsigned c = 0; c < unsigned{kComponents}; ++c) values[c][i] = floats[c];
    };
    if (m_source.jumpHandling != kJumpTrilinear || m_cache.enabled()) {
        for (int i = 0; i < count; ++i) put(i, sample({x[i], y[i], z[i]}, space));
        return;
    }
    std::array<Located, kBlock> block;
    std::array<Internal::TileBlock<T>, kBlock> tiles;
    for (int i = 0; i < count;) {
        int const located = locateBlock(x + i, y + i, z + i, count - i, space, block, tiles);
        for (int j = 0; j < located; ++j, ++i) {
            Located const& l = block[static_cast<unsigned>(j)];
            if (!l.tree.valid() || l.tree.depth < m_source.minDepth) {
                put(i, m_source.defaultValue);
                continue;
            }
            if (!m_voxel.is(l.tree, l.lijk))
                m_voxel.moveTo(l.tree, l.lijk, Internal::limitedVoxel<Traits>(l.lijk),
                               tiles[l.block]);
            put(i, current(l.frac));
        }
    }
}

ZEL_DETAIL_CUBIC();

}  // namespace ORV::TileTree3D
