#include "vdb_tiles.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "zel_platform/orvane_geometry_volume/messages.h"

namespace zel::detail {

/// A part of a voxel by which decimals may be rounded.
constexpr double kOfVoxel = 1e-4;

openvdb::CoordBBox voxelsIn(Box const& box, float voxelSize) {
    openvdb::CoordBBox voxels;
    for (int axis = 0; axis < 3; ++axis) {
        auto const at = [&](float p, double direction, double (*round)(double)) {
            double const index = double{p} / double{voxelSize};
            // The position and the size are each half a unit in the last place off, at most.
            double const near = std::min(kOfVoxel + 0x1p-23 * std::abs(index), 0.25);
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
                                   openvdb::math::Transform::Ptr const& transform,
                                   std::function<void(openvdb::Coord const& at)> const& refuse) {
    auto grid = makeGrid<openvdb::FloatGrid>(band);
    auto& tree = grid->tree();
    auto const& tiles = *volume.container;
    forEachUncovered<BinaryTraits, float>(
        tiles, *volume.channel, BinaryTraits::kMaxDepth,
        [&](auto const& tile, int3 const& first, float const* sample) {
            if (*sample >= 0) return;
            int3 const low = tile.tijk() + first * tile.voxelDataWidth();
            openvdb::CoordBBox inside(
                vdbCoord(low),
                vdbCoord(low).offsetBy(BinaryTraits::tileWidth(tile.depth() + 1) - 1));
            inside.intersect(box);
            if (inside.empty()) return;
            if (std::isnan(*sample)) refuse(vdbCoord(low));
            fillVoxels(tree, inside, -band, false);
        });
    openvdb::tree::ValueAccessor<openvdb::FloatTree> voxels(tree);
    forEachSample<BinaryTraits, float>(tiles, *volume.channel, BinaryTraits::kMaxDepth,
                                       [&](int3 const& at, long long /*sample*/, float value) {
                                           if (!box.isInside(vdbCoord(at))) return;
                                           if (std::isnan(value)) refuse(vdbCoord(at));
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

BoxFace nearestFace(Box const& box, double const (&p)[3]) {
    BoxFace nearest{-std::numeric_limits<double>::infinity(), {}};
    for (int axis = 0; axis < 3; ++axis)
        for (int const side : {-1, 1}) {
            double const distance =
                side < 0 ? double{box.low[axis]} - p[axis] : p[axis] - double{box.high[axis]};
            if (distance <= nearest.distance) continue;
            nearest = {distance, {}};
            nearest.normal[axis] = static_cast<float>(side);
        }
    return nearest;
}

namespace {

using openvdb::Coord;
using openvdb::CoordBBox;

/// Closes a level set at the faces of a box.
class FaceCloser {
public:
    FaceCloser(openvdb::FloatGrid& grid, Box const& box, float voxelSize, float band)
        : m_tree(grid.tree()), m_voxels(grid.tree()), m_box(box), m_voxelSize(voxelSize),
          m_band(band), m_inBox(voxelsIn(box, voxelSize)),
          m_layers(static_cast<int>(
              std::min(std::ceil(band / voxelSize) + 1.0F, static_cast<float>(1 << 29)))) {
        findRegions();
    }

    bool isCut() {
        bool found = false;
        forEachAtFaces(1, [&](Coord const& at, Coord const& /*beyond*/) {
            found = found || m_voxels.getValue(at) < 0;
        });
        return found;
    }

    void close(ScalarField const& field, EvaluateOptions const& how) {
        forEachAtFaces(m_layers, [&](Coord const& at, Coord const& /*beyond*/) {
            float const distance = distanceOf(at);
            if (m_voxels.getValue(at) < distance && std::abs(distance) < m_band)
                m_voxels.setValueOn(at, distance);
        });
        // Faces between voxels; those on voxels have values of 0 there.
        std::vector<Coord> beyond;
        std::vector<float3> positions;
        forEachAtFaces(1, [&](Coord const& at, Coord const& next) {
            if (!(m_voxels.getValue(at) < 0)) return;
            beyond.push_back(next);
            positions.push_back({static_cast<float>(place(next.x())),
                                 static_cast<float>(place(next.y())),
                                 static_cast<float>(place(next.z()))});
        });
        std::vector<float> values(positions.size());
        evaluate(field, PointView::of(positions), values, how);
        for (std::size_t i = 0; i < beyond.size(); ++i)
            m_voxels.setValueOn(beyond[i],
                                std::min(std::max(distanceOf(beyond[i]), values[i]), m_band));
    }

private:
    /// The leaves, and the tiles inside the solid, that reach into the layers along the faces.
    void findRegions() {
        CoordBBox inner = m_inBox;
        inner.expand(-m_layers);
        auto const add = [&](CoordBBox region) {
            if (inner.isInside(region)) return;
            region.intersect(m_inBox);
            if (!region.empty()) m_regions.push_back(region);
        };
        for (auto leaf = m_tree.cbeginLeaf(); leaf; ++leaf) add(leaf->getNodeBoundingBox());
        auto tile = m_tree.cbeginValueAll();
        tile.setMaxDepth(tile.getLeafDepth() - 1);
        for (; tile; ++tile)
            if (*tile < 0) add(tile.getBoundingBox());
    }

    /// Calls `use(at, beyond)` for voxels of the regions in this many layers along each face, with
    /// the voxel's neighbour in the direction of the face.
    template <class Use> void forEachAtFaces(int layers, Use const& use) {
        for (CoordBBox const& region : m_regions)
            for (std::size_t axis = 0; axis < 3; ++axis)
                for (int const side : {-1, 1}) {
                    CoordBBox slab = m_inBox;
                    if (side < 0)
                        slab.max()[axis] = slab.min()[axis] + layers - 1;
                    else
                        slab.min()[axis] = slab.max()[axis] - layers + 1;
                    slab.intersect(region);
                    if (slab.empty()) continue;
                    Coord step(0, 0, 0);
                    step[axis] = side;
                    for (Coord const& at : slab) use(at, at + step);
                }
    }

    double place(int index) const { return index * double{m_voxelSize}; }
    /// From the nearest face; 0 of a voxel that lies on it but for rounding.
    float distanceOf(Coord const& at) const {
        double const distance =
            nearestFace(m_box, {place(at.x()), place(at.y()), place(at.z())}).distance;
        return std::abs(distance) < kOfVoxel * double{m_voxelSize} ? 0
                                                                   : static_cast<float>(distance);
    }

    openvdb::FloatTree& m_tree;
    openvdb::tree::ValueAccessor<openvdb::FloatTree> m_voxels;
    Box m_box;
    float m_voxelSize, m_band;
    CoordBBox m_inBox;
    int m_layers;
    std::vector<CoordBBox> m_regions{};
};

}  // namespace

bool closeAtFaces(openvdb::FloatGrid& grid, ScalarField const& field, Box const& box,
                  float voxelSize, float band, EvaluateOptions const& how) {
    FaceCloser closer(grid, box, voxelSize, band);
    if (!closer.isCut()) return false;
    closer.close(field, how);
    return true;
}

}  // namespace zel::detail
