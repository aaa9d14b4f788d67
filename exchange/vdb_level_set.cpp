#include "vdb_tiles.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "zel_platform/orvane_geometry_volume/messages.h"

namespace zel::detail {

openvdb::CoordBBox voxelsIn(Box const& box, float voxelSize) {
    openvdb::CoordBBox voxels;
    for (int axis = 0; axis < 3; ++axis) {
        auto const at = [&](float p, double direction, double (*round)(double)) {
            double const index = double{p} / double{voxelSize};
            // The position and the size are each half a unit in the last place off, at most.
            double const near = std::min(1e-4 + 0x1p-23 * std::abs(index), 0.25);
            return static_cast<int>(std::clamp(round(index + direction * near), -0x1p29, 0x1p29));
        };
        voxels.min()[static_cast<std::size_t>(axis)] = at(box.low[axis], -1, std::ceil);
        voxels.max()[static_cast<std::size_t>(axis)] = at(box.high[axis], 1, std::floor);
    }
    return voxels;
}

Box widened(Box box, float voxelSize) {
    constexpr float kFarthest = std::numeric_limits<float>::max();
    bool isGood = voxelSize > 0 && !std::isinf(voxelSize);
    for (int axis = 0; axis < 3; ++axis)
        isGood = isGood && box.low[axis] < box.high[axis] && !std::isinf(box.low[axis]) &&
                 !std::isinf(box.high[axis]);
    if (!isGood) return box;
    auto const voxels = voxelsIn(box, voxelSize);
    for (int axis = 0; axis < 3; ++axis) {
        double const low = voxels.min()[static_cast<std::size_t>(axis)] * double{voxelSize};
        double const high = voxels.max()[static_cast<std::size_t>(axis)] * double{voxelSize};
        if (low < double{box.low[axis]}) {
            box.low[axis] = static_cast<float>(low);
            if (double{box.low[axis]} > low)
                box.low[axis] = std::nextafter(box.low[axis], -kFarthest);
        }
        if (high > double{box.high[axis]}) {
            box.high[axis] = static_cast<float>(high);
            if (double{box.high[axis]} < high)
                box.high[axis] = std::nextafter(box.high[axis], kFarthest);
        }
    }
    return box;
}

openvdb::math::Transform::Ptr transformOf(float voxelSize) {
    try {
        return openvdb::math::Transform::createLinearTransform(double{voxelSize});
    } catch (openvdb::ArithmeticError const&) {
        throw std::invalid_argument(ORV::TileTree3D::Internal::message(
            "zel: a voxelSize of ", voxelSize, ", too small for OpenVDB"));
    }
}

openvdb::FloatGrid::Ptr levelSetOf(Volume<BinaryTraits, float> const& volume, float band,
                                   openvdb::CoordBBox const& box,
                                   openvdb::math::Transform::Ptr const& transform) {
    auto grid = makeGrid<openvdb::FloatGrid>(band);
    auto& tree = grid->tree();
    auto const& tiles = *volume.container;
    forEachUncovered<BinaryTraits, float>(
        tiles, *volume.channel, BinaryTraits::kMaxDepth,
        [&](auto const& tile, int3 const& first, float const* sample) {
            if (!(*sample < 0)) return;
            int3 const low = tile.tijk() + first * tile.voxelDataWidth();
            openvdb::CoordBBox inside(
                vdbCoord(low),
                vdbCoord(low).offsetBy(BinaryTraits::tileWidth(tile.depth() + 1) - 1));
            inside.intersect(box);
            if (!inside.empty()) fillVoxels(tree, inside, -band, false);
        });
    openvdb::tree::ValueAccessor<openvdb::FloatTree> voxels(tree);
    forEachSample<BinaryTraits, float>(tiles, *volume.channel, BinaryTraits::kMaxDepth,
                                       [&](int3 const& at, long long /*sample*/, float value) {
                                           if (!box.isInside(vdbCoord(at))) return;
                                           if (std::abs(value) < band)
                                               voxels.setValueOn(vdbCoord(at), value);
                                           else if (value < 0)
                                               voxels.setValueOff(vdbCoord(at), -band);
                                       });
    tree.prune();
    grid->setGridClass(openvdb::GRID_LEVEL_SET);
    grid->setTransform(transform);
    return grid;
}

}  // namespace zel::detail
