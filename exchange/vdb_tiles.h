#pragma once

#include <openvdb/openvdb.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "vdb_write.h"
#include "zel/field/evaluate.h"

// Walks through tile trees, and grids of OpenVDB made of them.
namespace zel::detail {

using ORV::TileTree3D::TileOf;
using ORV::TileTree3D::Volume;
using Orvane::Math::int3;

inline float vdbValue(float value) {
    return value;
}
inline openvdb::Vec3s vdbValue(float3 const& value) {
    return {value.x, value.y, value.z};
}
inline openvdb::Coord vdbCoord(int3 const& at) {
    return {at.x, at.y, at.z};
}

/// An empty grid, of a type that initializeVdb() has made known. OpenVDB's own library constructs
/// it: a constructor in this one would compile all virtual functions of the grid again.
template <class Grid> typename Grid::Ptr makeGrid(typename Grid::ValueType const& background) {
    auto grid = openvdb::gridPtrCast<Grid>(openvdb::GridBase::createGrid(Grid::gridType()));
    grid->tree().root().setBackground(background, false);
    return grid;
}

/// Calls `use(first)` for the children that a tile does not have, with the place of the first
/// sample over the child.
template <class Traits, class Use>
void forEachUncoveredChild(TileOf<Traits> const& tile, Use const& use) {
    constexpr int B = Traits::kBranch, kSpan = Traits::kSamples / B;
    for (int slot = 0; slot < Traits::kChildCount; ++slot) {
        int3 const child{slot % B, slot / B % B, slot / (B * B)};
        if (tile.isLeaf(child)) use(child * kSpan);
    }
}

/// Calls `use(tile, first, sample)` for the children that tiles above the depth `finest` do not
/// have: with the tile, the place of the first sample over the child, and that sample.
template <class Traits, class T, class Use>
void forEachUncovered(ORV::TileTree3D::Container<Traits> const& tree,
                      ORV::TileTree3D::DataChannel<Traits, T> const& channel, int finest,
                      Use const& use) {
    constexpr int W = Traits::kSamples;
    for (int depth = 0; depth < finest; ++depth)
        for (long long i = 0; i < tree.tileCount(depth); ++i) {
            TileOf<Traits> const& tile = tree.tile(i, depth);
            T const* const samples = channel.samples({i, depth});
            forEachUncoveredChild<Traits>(tile, [&](int3 const& first) {
                use(tile, first, samples + first.x + W * (first.y + W * first.z));
            });
        }
}

/// Calls `use(at, number, value)` for the samples of a depth: with the lattice point, and the
/// number of the sample at its depth.
template <class Traits, class T, class Use>
void forEachSample(ORV::TileTree3D::Container<Traits> const& tree,
                   ORV::TileTree3D::DataChannel<Traits, T> const& channel, int depth,
                   Use const& use) {
    constexpr int W = Traits::kSamples;
    int const width = Traits::voxelWidth(depth);
    for (long long i = 0; i < tree.tileCount(depth); ++i) {
        int3 const corner = tree.tile(i, depth).tijk();
        T const* const samples = channel.samples({i, depth});
        for (int z = 0; z < W; ++z)
            for (int y = 0; y < W; ++y)
                for (int x = 0; x < W; ++x)
                    use(corner + int3{x, y, z} * width,
                        i * Traits::kSampleCount + (x + W * (y + W * z)),
                        samples[x + W * (y + W * z)]);
    }
}

/// Sets a box of voxels, by tiles as large as possible. Throws std::length_error for a box of more
/// of the largest tiles than memory should be spent on.
template <class Tree>
void fillVoxels(Tree& tree, openvdb::CoordBBox const& box, typename Tree::ValueType const& value,
                bool active) {
    constexpr double kLargest = 4096, kMost = 1 << 20;
    double count = 1;
    for (std::size_t axis = 0; axis < 3; ++axis)
        count *= (static_cast<double>(box.max()[axis]) - static_cast<double>(box.min()[axis])) /
                     kLargest +
                 1;
    if (count > kMost)
        throw std::length_error("zel: a constant region of " + std::to_string(count) +
                                " times 4096^3 voxels");
    tree.sparseFill(box, value, active);
}

/// The voxels whose samples lie in a box, or outside by less than 1e-4 of a voxel and the rounding
/// of floats: a box of a whole number of voxels in decimals has those of both faces. There is no
/// voxel if the indices of an axis are not in order.
openvdb::CoordBBox voxelsIn(Box const& box, float voxelSize);
/// The box, widened to hold the samples of its voxels; as it is, if buildVolume() refuses it.
Box widened(Box box, float voxelSize);

/// The transform of voxels of a size. Throws std::invalid_argument for a size that OpenVDB takes
/// for 0, which is below about 1.5e-5.
openvdb::math::Transform::Ptr transformOf(float voxelSize);

/// The level set of a volume that buildVolume() made, clipped to a box of voxels. Calls
/// `refuse(at)`, which is to throw, for a voxel at which a sample is NaN that the level set needs.
openvdb::FloatGrid::Ptr levelSetOf(Volume<BinaryTraits, float> const& volume, float band,
                                   openvdb::CoordBBox const& box,
                                   openvdb::math::Transform::Ptr const& transform,
                                   std::function<void(openvdb::Coord const& at)> const& refuse);

/// The face of a box that is nearest to a position, or that the position is farthest beyond.
struct BoxFace {
    double distance;  ///< from the face, negative inside the box
    float3 normal;    ///< outwards
};
BoxFace nearestFace(Box const& box, double const (&p)[3]);

/// Closes the level set of a field at the faces of the box that cut it: it becomes that of the
/// field's solid within the box, max(field, distance from the faces), whose voxels are active along
/// the faces, too. The field is evaluated at the first voxels beyond a face. Returns whether a face
/// cuts the solid; otherwise the grid stays as it is.
bool closeAtFaces(openvdb::FloatGrid& grid, ScalarField const& field, Box const& box,
                  float voxelSize, float band, EvaluateOptions const& how);

}  // namespace zel::detail
