#include "zel/sampler/voxel_sampler_cubic.h"

#include <algorithm>

#include "zel/sampler/cubic_adaptive.h"

namespace ORV::TileTree3D {

namespace {

constexpr VoxelOffsetType kOnCorners = 7;

/// The range of a voxel index that a position can have; only where a lattice coordinate is too
/// large for a float would it leave it.
template <class Traits> int3 inRange(int3 const& lijk) {
    auto const limit = [](int v) { return std::clamp(v, -1, Traits::kSamples - 1); };
    return {limit(lijk.x), limit(lijk.y), limit(lijk.z)};
}

}  // namespace

template <class Traits, class T, class Ts, class Position, int A, int B>
VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::VoxelSamplerCubic(
    Container<Traits> const& container, VoxelTopology<Traits> const& topology,
    DataChannel<Traits, T> const& channel, std::int32_t type, bool clamp, std::int32_t jumpHandling,
    DofChannel const* dofChannel, std::int32_t dofMask, long long cacheSize)
    : VoxelSampler<Traits, Ts, Position>(container, topology), m_source{container.tileAccessor(),
                                                                        &container,
                                                                        &channel,
                                                                        &topology,
                                                                        channel.defaultValue(),
                                                                        type,
                                                                        clamp,
                                                                        jumpHandling,
                                                                        dofChannel,
                                                                        dofMask,
                                                                        channel.minDepth(),
                                                                        channel.depth(),
                                                                        Internal::AdaptiveMemo<T>(
                                                                            jumpHandling !=
                                                                            kJumpTrilinear)},
      // There are no halos for samples off the corners of their voxels, nor of another tree.
      m_cache(jumpHandling == kJumpTrilinear && topology.offsetType() == kOnCorners &&
                      channel.belongsTo(container)
                  ? cacheSize
                  : std::min(cacheSize, 0LL),
              container),
      m_voxel(m_source) {}

template <class Traits, class T, class Ts, class Position, int A, int B>
VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::~VoxelSamplerCubic() = default;

template <class Traits, class T, class Ts, class Position, int A, int B>
Quern::String VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::samplerName() const {
    switch (m_source.m_type) {
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

template <class Traits, class T, class Ts, class Position, int A, int B>
T VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::sample(Position const& position, int space) {
    return sample(position, Traits::kMaxDepth, space);
}

template <class Traits, class T, class Ts, class Position, int A, int B>
T VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::sample(Position const& position, int depth,
                                                           int space) {
    TreeIndex tree;
    int3 lijk;
    float3 frac;
    this->locate(position, space, tree, lijk, frac, std::min(m_source.m_maxDepth, depth), nullptr);
    return sampleVoxel(tree, lijk, frac, depth, false);
}

template <class Traits, class T, class Ts, class Position, int A, int B>
T VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::sampleVoxel(TreeIndex const& tree,
                                                                int3 const& lijk,
                                                                float3 const& frac, int depth,
                                                                bool debug) {
    if (!tree.valid() || m_source.m_minDepth > tree.depth) return m_source.m_defaultValue;
    int3 const voxel = inRange<Traits>(lijk);
    if (m_source.m_jumpHandling == kJumpTrilinear) {
        if (debug) Internal::traceBlock(m_source, tree, voxel, frac);
        return trilinearAtJump(tree, voxel, frac);
    }
    return debug ? Internal::adaptiveValue<Traits, T, Internal::StreamTrace>(m_source, tree, voxel,
                                                                             frac, depth)
                 : adaptive(tree, voxel, frac, depth);
}

/// Makes m_voxel that voxel. False if there is no such tile.
template <class Traits, class T, class Ts, class Position, int A, int B>
bool VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::moveTo(TreeIndex const& tree,
                                                              int3 const& lijk) {
    if (m_voxel.is(tree, lijk)) return true;
    auto const& tile = m_source.m_container->tile(tree);
    if (!tile.exists()) return false;
    if (m_cache.enabled() && lijk.x >= 0 && lijk.y >= 0 && lijk.z >= 0)
        m_voxel.moveTo(tree, lijk,
                       m_cache.halo(tree, *m_source.m_channel, m_source.m_tileAccessor));
    else
        m_voxel.moveTo(m_source, tile, lijk);
    return true;
}

template <class Traits, class T, class Ts, class Position, int A, int B>
T VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::trilinearAtJump(TreeIndex const& tree,
                                                                    int3 const& lijk,
                                                                    float3 const& frac) {
    if (!moveTo(tree, lijk)) return m_source.m_defaultValue;
    return m_voxel.atJump() ? m_voxel.blend(m_source, frac) : m_voxel.interpolate(m_source, frac);
}

template <class Traits, class T, class Ts, class Position, int A, int B>
T VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::adaptive(TreeIndex const& tree,
                                                             int3 const& lijk, float3 const& frac,
                                                             int depth) {
    // Between data points, on uniform ground and with nothing below, it is the value of the
    // kernels.
    bool const between = !(frac.x == 0 || frac.y == 0 || frac.z == 0);
    if (between && tree.depth == std::min(m_source.m_maxDepth, depth) && moveTo(tree, lijk) &&
        !m_voxel.atJump()) {
        T const value = m_voxel.interpolate(m_source, frac);
        if (!Internal::isNaN(value)) return value;
    }
    return Internal::adaptiveValue<Traits, T, Internal::NoTrace>(m_source, tree, lijk, frac, depth);
}

template <class Traits, class T, class Ts, class Position, int A, int B>
void VoxelSamplerCubic<Traits, T, Ts, Position, A, B>::sampleBlock(
    float const* x, float const* y, float const* z, int count, int space,
    std::array<float*, kComponents> const& values) {
    for (int i = 0; i < count; ++i) {
        T const value = sample({x[i], y[i], z[i]}, space);
        if constexpr (kComponents == 1) {
            values[0][i] = value;
        } else {
            values[0][i] = value.x;
            values[1][i] = value.y;
            values[2][i] = value.z;
        }
    }
}

ZEL_DETAIL_CUBIC(, );

}  // namespace ORV::TileTree3D
