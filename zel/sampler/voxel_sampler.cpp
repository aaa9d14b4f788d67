#include "zel/sampler/voxel_sampler.h"

#include <array>
#include <bit>
#include <cmath>
#include <limits>

namespace ORV::TileTree3D {

template <class Traits, class Real, class Position>
VoxelSampler<Traits, Real, Position>::VoxelSampler(Container<Traits> const& container,
                                                   VoxelTopology<Traits> const& topology)
    : m_accessor(container.tileAccessor()),
      m_invVoxelSize(container.voxelSize() == 0.0F ? 0.0F : 1.0F / container.voxelSize()),
      m_offset(Internal::lanesOf(topology.offset())), m_offsetType(topology.offsetType()),
      m_boxShift(static_cast<int>(
                     std::bit_width(static_cast<unsigned>(Traits::tileWidth(container.depth())))) -
                 1) {}

template <class Traits, class Real, class Position>
VoxelSampler<Traits, Real, Position>::~VoxelSampler() = default;

template <class Traits, class Real, class Position>
Quern::String VoxelSampler<Traits, Real, Position>::samplerName() const {
    return "kNone";
}

namespace {

/// The least floats that are not below some integers.
Internal::Lanes floatsAbove(std::array<double, 3> const& integers) {
    Internal::Lanes above{};
    for (int axis = 0; axis < 3; ++axis) {
        double const integer = integers[static_cast<unsigned>(axis)];
        auto const nearest = static_cast<float>(integer);
        above[axis] = static_cast<double>(nearest) < integer
                          ? std::nextafter(nearest, std::numeric_limits<float>::infinity())
                          : nearest;
    }
    return above;
}

}  // namespace

namespace {

/// Whether a position is on a lattice that can have tiles; not if it is NaN.
bool inReach(Internal::Lanes const& v) {
    constexpr float kBound = 1073741824.0F;  // all trees lie within this distance of the origin
    return Internal::allSet((v > -kBound) & (v < kBound));
}

Internal::IntLanes roundedDown(Internal::Lanes const& v) {
    Internal::IntLanes const floor = Internal::truncated(v);
    return floor + (Internal::converted(floor) > v);
}

}  // namespace

template <class Traits, class Real, class Position>
bool VoxelSampler<Traits, Real, Position>::prefetchTiles(float const* x, float const* y,
                                                         float const* z, int count, int space,
                                                         int depth, Tile const** likely) const {
    using namespace Internal;
    // By the step from the position before. Of most blocks no step is far.
    float const scale = space == kWorldSpace ? m_invVoxelSize : 1.0F;
    auto const near = static_cast<float>(1 << m_boxShift);
    auto const isFar = [=](float from, float to) {
        return int{std::fabs(to - from) * scale >= near};
    };
    auto const farStep = [=](int i) {
        return isFar(x[i - 1], x[i]) | isFar(y[i - 1], y[i]) | isFar(z[i - 1], z[i]);
    };
    int anyFar = 0;
    for (int i = 1; i < count; ++i) anyFar |= farStep(i);
    if (anyFar == 0) return false;
    for (int i = 0; i < count; ++i) {
        likely[i] = nullptr;
        if (i > 0 && farStep(i) == 0) continue;
        Lanes const v = Lanes{x[i], y[i], z[i], 0} * scale;
        if (!inReach(v)) continue;
        IntLanes const p = roundedDown(v);
        likely[i] = m_accessor.prefetch(p[0], p[1], p[2], depth);
    }
    return true;
}

/// Moves the box to the tile over a position on the lattice, if there is one.
template <class Traits, class Real, class Position>
bool VoxelSampler<Traits, Real, Position>::moveBox(Internal::Lanes v, int depth) {
    using namespace Internal;
    if (!inReach(v)) return false;
    IntLanes const floor = roundedDown(v);
    auto const cell = [&](int axis) {
        return static_cast<std::uint32_t>(floor[axis] >> m_boxShift);
    };
    Box& box = m_boxes[(cell(0) + 19 * cell(1) + 53 * cell(2)) % m_boxes.size()];
    if (box.depth == depth && allSet((box.low <= v) & (v < box.high))) {
        m_box = &box;
        return true;
    }
    auto const& tile = m_accessor.tile(floor[0], floor[1], floor[2], depth);
    if (!tile.m_exists) return false;

    // A tile with children is what is found in those of its parts that have none.
    int3 corner = tile.m_tijk;
    int width = tile.tileVoxelWidth();
    if (tile.m_depth < depth && tile.m_children) {
        int3 const child = tile.childIJK({floor[0], floor[1], floor[2]});
        width /= Traits::kBranch;
        corner = corner + child * width;
    }
    auto const lanesOfInts = [](int3 const& i) { return converted(IntLanes{i.x, i.y, i.z, 0}); };
    auto const w = static_cast<Real>(width);
    Lanes const low = lanesOfInts(corner);
    // The fourth coordinate, 0, is in the box whatever the width.
    Lanes const high = low + Lanes{w, w, w, 1};
    // Integers up to here are floats, and so are their sums.
    constexpr Real kExact = 8388608.0F;
    bool const exact = allSet((low >= -kExact) & (low <= kExact)) && w <= kExact;
    if (exact) {
        box.low = low;
        box.high = high;
    } else {
        double const x = corner.x, y = corner.y, z = corner.z;
        box.low = floatsAbove({x, y, z});
        box.high = floatsAbove({x + width, y + width, z + width});
        box.high[3] = 1;
    }
    box.corner = lanesOfInts(tile.m_tijk);
    Real const s = kVoxelScales<Traits>[static_cast<unsigned>(tile.m_depth)];
    box.perVoxel = (Traits::kBranch == 2 ? 2.0F * s : s) + Lanes{};
    box.tree = tile.treeIndex();
    box.depth = depth;
    m_box = &box;
    return true;
}

template class VoxelSampler<BinaryTraits, float, float3>;
template class VoxelSampler<QuinaryTraits, float, float3>;

}  // namespace ORV::TileTree3D
