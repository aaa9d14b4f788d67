#include "zel/sampler/common/voxel_sampler.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>

#include "zel_platform/quern_core/position_loop.h"

namespace ORV::TileTree3D {

template <class Traits, class Real, class Position>
VoxelSampler<Traits, Real, Position>::VoxelSampler(Container<Traits> const& container,
                                                   VoxelTopology<Traits> const& topology)
    : m_accessor(container.tileAccessor()),
      m_invVoxelSize(container.voxelSize() == 0.0F ? 0.0F : 1.0F / container.voxelSize()),
      m_offset(Internal::float4Of(topology.offset())), m_offsetType(topology.offsetType()),
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
Internal::Float4 floatsAbove(std::array<double, 3> const& integers) {
    Internal::Float4 above{};
    for (int axis = 0; axis < 3; ++axis) {
        double const integer = integers[static_cast<unsigned>(axis)];
        auto const nearest = static_cast<float>(integer);
        above[axis] = static_cast<double>(nearest) < integer
                          ? std::nextafter(nearest, std::numeric_limits<float>::infinity())
                          : nearest;
    }
    return above;
}

constexpr float kReach = 1073741824.0F;  // all trees lie within this distance of the origin
constexpr auto kReachBits = std::bit_cast<std::int32_t>(kReach);

/// Whether a position is on a lattice that can have tiles; not if it is NaN.
bool inReach(Internal::Float4 const& v) {
    return Internal::allSet((v > -kReach) & (v < kReach));
}

Internal::Int4 roundedDown(Internal::Float4 const& v) {
    Internal::Int4 const floor = Internal::truncated(v);
    return floor + (Internal::converted(floor) > v);
}

}  // namespace

template <class Traits, class Real, class Position>
void VoxelSampler<Traits, Real, Position>::placeBlock(float const* x, float const* y,
                                                      float const* z, int count, int space,
                                                      int depth, PlacedBlock& placed) const {
    Container<Traits> const& tree = m_accessor.container();
    depth = std::min(depth, tree.depth());
    placed.depth = depth;
    if (depth < 0) {
        placed.runCount = 1;
        placed.runs[0] = {count, -1};
        return;
    }
    constexpr float kLast = Traits::kSamples - 1;
    Internal::TilesBelow<Traits> const tilesBelow(static_cast<unsigned>(depth));
    auto const width = static_cast<std::uint32_t>(Traits::tileWidth(depth));
    float const s = Internal::kVoxelScales<Traits>[static_cast<unsigned>(depth)];
    float const perVoxel = Traits::kBranch == 2 ? 2.0F * s : s;
    float const scale = space == kWorldSpace ? m_invVoxelSize : 1.0F;
    auto& cells = placed.cells;
    std::array<float const*, 3> const positions{x, y, z};
    for (unsigned axis = 0; axis < 3; ++axis)
        Quern::forEachPosition(count, [=, offset = m_offset[axis], from = positions[axis],
                                       cell = cells[axis].data(), voxel = placed.lijk[axis].data(),
                                       frac = placed.frac[axis].data()](int i) ZEL_ALWAYS_INLINE {
            // By bits, since of choices compilers make slow code: all bits of a mask are set
            // where it holds.
            auto const mask = [](bool holds) { return -static_cast<std::int32_t>(holds); };
            float v = from[i] * scale;
            std::int32_t const inReach =
                mask((std::bit_cast<std::int32_t>(v) & 0x7fffffff) < kReachBits);
            v = std::bit_cast<float>(std::bit_cast<std::int32_t>(v) & inReach);
            auto floor = static_cast<std::int32_t>(v);
            floor += mask(static_cast<float>(floor) > v);
            std::uint32_t above = Traits::aboveRoot(floor);
            above = above < Traits::kRootWidth ? above : Traits::kRootWidth;
            std::uint32_t const below = tilesBelow(above);
            cell[i] = below | ~static_cast<std::uint32_t>(inReach);
            std::int32_t const corner = Internal::cornerOf<Traits>(below, width);
            float l = (v - static_cast<float>(corner)) * perVoxel - offset;
            l = std::bit_cast<float>(std::bit_cast<std::int32_t>(l) &
                                     ~(mask(l > -1e-5F) & mask(l <= 0.0F)));
            auto const truncated = static_cast<std::int32_t>(l < kLast ? l : kLast);
            std::int32_t const lower = truncated + mask(l < 0.0F);
            voxel[i] = lower;
            frac[i] = l - static_cast<float>(lower);
        });
    placed.runCount = tree.findTiles(depth, cells[0].data(), cells[1].data(), cells[2].data(),
                                     count, placed.runs.data());
}

/// Moves the box to the tile over a position on the lattice, if there is one.
template <class Traits, class Real, class Position>
bool VoxelSampler<Traits, Real, Position>::moveBox(Internal::Float4 v, int depth) {
    using namespace Internal;
    if (!inReach(v)) return false;
    Int4 const floor = roundedDown(v);
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
    auto const cornerOf = [](int3 const& i) { return converted(Int4{i.x, i.y, i.z, 0}); };
    auto const w = static_cast<Real>(width);
    Float4 const low = cornerOf(corner);
    // The fourth coordinate, 0, is in the box whatever the width.
    Float4 const high = low + Float4{w, w, w, 1};
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
    box.corner = cornerOf(tile.m_tijk);
    Real const s = kVoxelScales<Traits>[static_cast<unsigned>(tile.m_depth)];
    box.perVoxel = (Traits::kBranch == 2 ? 2.0F * s : s) + Float4{};
    box.tree = tile.treeIndex();
    box.depth = depth;
    m_box = &box;
    return true;
}

template class VoxelSampler<BinaryTraits, float, float3>;
template class VoxelSampler<QuinaryTraits, float, float3>;

}  // namespace ORV::TileTree3D
