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
      m_reach(Internal::Float4{} + 16 * static_cast<float>(Traits::tileWidth(container.depth()))),
      m_boxes(Traits::tileWidth(container.depth())) {}

template <class Traits, class Real, class Position>
VoxelSampler<Traits, Real, Position>::~VoxelSampler() = default;

template <class Traits, class Real, class Position>
Quern::String VoxelSampler<Traits, Real, Position>::samplerName() const {
    return "kNone";
}

namespace {

/// For each of three integers, the least float that is not below it.
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

}  // namespace

/// The cells, voxels and fractions of a batch in tiles of its depth, whether those exist or not.
template <class Traits, class Real, class Position>
void VoxelSampler<Traits, Real, Position>::splitBatch(float const* x, float const* y,
                                                      float const* z, int count, int space,
                                                      VoxelBatch& batch) const {
    Internal::TilesBelow<Traits> const tilesBelow(static_cast<unsigned>(batch.depth));
    auto const width = static_cast<std::uint32_t>(Traits::tileWidth(batch.depth));
    float const voxelScale = Internal::voxelScale<Traits>(batch.depth);
    float const unit = unitOf(space);
    auto& cells = batch.cells;
    std::array<float const*, 3> const positions{x, y, z};
    for (unsigned axis = 0; axis < 3; ++axis)
        Quern::forEachPosition(count, [=, offset = m_offset[axis], from = positions[axis],
                                       cell = cells[axis].data(), voxel = batch.lijk[axis].data(),
                                       frac = batch.frac[axis].data()](int i) ZEL_ALWAYS_INLINE {
            float v = from[i] * unit;
            // Out of reach the point is moved to 0, and its cell is one without a tile.
            std::int32_t const outOfReach =
                ~Internal::maskOf((std::bit_cast<std::int32_t>(v) & 0x7fffffff) < kReachBits);
            v = Internal::cleared(v, outOfReach);
            std::uint32_t above = Traits::aboveRoot(Internal::floorOf(v));
            above = above < Traits::kRootWidth ? above : Traits::kRootWidth;
            std::uint32_t const below = tilesBelow(above);
            cell[i] = below | static_cast<std::uint32_t>(outOfReach);
            std::int32_t const corner = Internal::cornerOf<Traits>(below, width);
            Internal::splitVoxel<Traits>((v - static_cast<float>(corner)) * voxelScale - offset,
                                         voxel[i], frac[i]);
        });
}

template <class Traits, class Real, class Position>
bool VoxelSampler<Traits, Real, Position>::splitOne(Position const& position, int space, int depth,
                                                    VoxelBatch& batch) const {
    batch.depth = std::min(depth, m_accessor.container().depth());
    if (batch.depth < 0) return false;
    splitBatch(&position.x, &position.y, &position.z, 1, space, batch);
    auto const width = static_cast<std::uint32_t>(Traits::tileWidth(batch.depth));
    auto const& cells = batch.cells;
    return std::max({cells[0][0], cells[1][0], cells[2][0]}) < Traits::kRootWidth / width;
}

template <class Traits, class Real, class Position>
void VoxelSampler<Traits, Real, Position>::locateBatch(float const* x, float const* y,
                                                       float const* z, int count, int space,
                                                       int depth, VoxelBatch& batch) const {
    batch.depth = std::min(depth, m_accessor.container().depth());
    if (batch.depth < 0) {
        batch.runCount = 1;
        batch.runs[0] = {count, -1};
        return;
    }
    splitBatch(x, y, z, count, space, batch);
    auto const& cells = batch.cells;
    batch.runCount = m_accessor.container().findTiles(batch.depth, cells[0].data(), cells[1].data(),
                                                      cells[2].data(), count, batch.runs.data());
}

template <class Traits, class Real, class Position>
void VoxelSampler<Traits, Real, Position>::locateDeepest(float const* x, float const* y,
                                                         float const* z, int count, int space,
                                                         int depth, VoxelBatch& batch) {
    batch.depth = std::min(depth, m_accessor.container().depth());
    if (!m_isScattered || batch.depth < 0) {
        locateBatch(x, y, z, count, space, depth, batch);
    } else {
        splitBatch(x, y, z, count, space, batch);
        batch.runCount = count;
        for (int i = 0; i < count; ++i) batch.runs[static_cast<unsigned>(i)] = {i + 1, -1};
    }
    batch.runDepths.fill(static_cast<std::int8_t>(batch.depth));
    std::int32_t some = 0;  // negative where a run has no tile
    for (unsigned run = 0; run < static_cast<unsigned>(batch.runCount); ++run)
        some |= batch.runs[run].tile;
    if (some < 0 && batch.depth >= 0)
        m_isScattered = 2 * locateCoarse(x, y, z, space, batch) > count;
}

namespace {

/// The runs of a batch that have no tile, lie in the root, and are not close to the one before or
/// after: their numbers, their first positions, and the cells of those by axis.
template <int Size> struct LoneRuns {
    std::array<std::uint8_t, Size> runs, firsts;
    std::array<std::array<std::uint32_t, Size>, 3> cells;
    unsigned count = 0;

    /// `end` is the number of cells of the root along an axis.
    template <class Batch> LoneRuns(Batch const& batch, std::uint32_t end) {
        std::array<std::uint32_t, 3> last{end + 1, end + 1, end + 1};
        bool isLastHere = false;
        unsigned first = 0;
        for (unsigned run = 0; run < static_cast<unsigned>(batch.runCount); ++run) {
            if (batch.runs[run].tile < 0) {
                std::array<std::uint32_t, 3> const cell{
                    batch.cells[0][first], batch.cells[1][first], batch.cells[2][first]};
                auto const isClose = [&](unsigned axis) {
                    return cell[axis] - last[axis] + 1 <= 2;
                };
                bool const isNear = isClose(0) && isClose(1) && isClose(2);
                if (isNear && isLastHere) --count;
                isLastHere = !isNear && std::max({cell[0], cell[1], cell[2]}) < end;
                last = cell;
                if (isLastHere) {
                    runs[count] = static_cast<std::uint8_t>(run);
                    firsts[count] = static_cast<std::uint8_t>(first);
                    for (unsigned axis = 0; axis < 3; ++axis) cells[axis][count] = cell[axis];
                    ++count;
                }
            }
            first = static_cast<unsigned>(batch.runs[run].end);
        }
    }
};

}  // namespace

/// Looks up the tiles of the runs without one, but for those close to another and those outside the
/// root. Returns how many are coarser than the batch's depth.
template <class Traits, class Real, class Position>
int VoxelSampler<Traits, Real, Position>::locateCoarse(float const* x, float const* y,
                                                       float const* z, int space,
                                                       VoxelBatch& batch) const {
    LoneRuns<VoxelBatch::kSize> const lone(
        batch, Traits::kRootWidth / static_cast<std::uint32_t>(Traits::tileWidth(batch.depth)));
    if (lone.count == 0) return 0;
    Container<Traits> const& tree = m_accessor.container();
    std::array<TreeIndex, VoxelBatch::kSize> tiles;
    tree.findDeepestTiles(batch.depth, lone.cells[0].data(), lone.cells[1].data(),
                          lone.cells[2].data(), static_cast<int>(lone.count), tiles.data());
    float const unit = unitOf(space);
    int coarse = 0;
    for (unsigned n = 0; n < lone.count; ++n) {
        TreeIndex const& found = tiles[n];
        TileRun& run = batch.runs[lone.runs[n]];
        if (!found.valid()) continue;
        run.tile = static_cast<std::int32_t>(found.tile);
        if (found.depth == batch.depth) continue;
        ++coarse;
        batch.runDepths[lone.runs[n]] = static_cast<std::int8_t>(found.depth);
        Internal::Float4 const corner =
            Internal::converted(Internal::int4Of(tree.tile(found).m_tijk, 0));
        float const scale = Internal::voxelScale<Traits>(found.depth);
        for (unsigned i = lone.firsts[n]; i < static_cast<unsigned>(run.end); ++i) {
            Internal::Float4 const v = Internal::Float4{x[i], y[i], z[i], 0} * unit;
            Internal::Int4 voxel;
            Internal::Float4 frac;
            Internal::splitVoxel<Traits>((v - corner) * scale - m_offset, voxel, frac);
            for (unsigned axis = 0; axis < 3; ++axis) {
                batch.lijk[axis][i] = voxel[axis];
                batch.frac[axis][i] = frac[axis];
            }
        }
    }
    return coarse;
}

/// Makes `m_box` the box of the tile over a position on the lattice. Returns false if there is no
/// tile.
template <class Traits, class Real, class Position>
bool VoxelSampler<Traits, Real, Position>::moveBox(Internal::Float4 v, int depth) {
    using namespace Internal;
    if (!inReach(v)) return false;
    Int4 const point = floorOf(v);
    Box& box = m_boxes.slotOf(point);
    if (box.holds(v, depth)) {
        m_box = &box;
        return true;
    }
    auto const& tile = m_accessor.tile(point[0], point[1], point[2], depth);
    if (!tile.m_exists) return false;

    // A tile with children is found only over child positions that have no child: the box is then
    // that one child position.
    int3 corner = tile.m_tijk;
    int width = tile.tileVoxelWidth();
    if (tile.m_depth < depth && tile.m_children) {
        int3 const child = tile.childIJK(int3Of(point));
        width /= Traits::kBranch;
        corner = corner + child * width;
    }
    auto const w = static_cast<Real>(width);
    Float4 const low = converted(int4Of(corner, 0));
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
    box.corner = converted(int4Of(tile.m_tijk, 0));
    box.scale = voxelScale<Traits>(tile.m_depth) + Float4{};
    box.tree = tile.treeIndex();
    box.depth = depth;
    m_box = &box;
    return true;
}

template class VoxelSampler<BinaryTraits, float, float3>;
template class VoxelSampler<QuinaryTraits, float, float3>;

}  // namespace ORV::TileTree3D
