#pragma once

#include <openvdb/openvdb.h>
#include <openvdb/tools/Composite.h>
#include <openvdb/tools/Interpolation.h>
#include <openvdb/tools/LevelSetSphere.h>
#include <openvdb/tools/LevelSetUtil.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "zel_platform/orvane_math/vectors.h"

// Grids of OpenVDB, made, read and sampled by OpenVDB itself.
namespace vdb_grids {

using namespace openvdb;
using Orvane::Math::float3;
using Orvane::Math::int3;
using GridPtr = GridBase::Ptr;

template <class G = FloatGrid> typename G::Ptr as(GridPtr const& grid) {
    return gridPtrCast<G>(grid);
}
inline FloatGrid::Ptr copyOf(GridPtr const& grid) {
    return as(grid->deepCopyGrid());
}
/// An empty grid. OpenVDB's own library constructs it: a constructor here would compile all virtual
/// functions of the grid again.
template <class G> typename G::Ptr make(typename G::ValueType const& background) {
    initialize();
    auto grid = as<G>(GridBase::createGrid(G::gridType()));
    grid->tree().root().setBackground(background, false);
    return grid;
}

inline GridPtr sphere(float radius, float3 const& centre, float voxelSize) {
    initialize();
    return tools::createLevelSetSphere<FloatGrid>(radius, Vec3f(centre.x, centre.y, centre.z),
                                                  voxelSize);
}
inline GridPtr fogOf(GridPtr const& levelSet) {
    auto grid = copyOf(levelSet);
    tools::sdfToFogVolume(*grid);
    return grid;
}

/// Random voxels, boxes and tiles of two levels.
template <class G, class Value> GridPtr random(unsigned seed, Value const& value) {
    std::mt19937 engine(seed);
    auto const below = [&](int n) { return static_cast<int>(engine() % static_cast<unsigned>(n)); };
    auto grid = make<G>(value(below(100)));
    auto& tree = grid->tree();
    auto const near = [&](int reach) {
        return Coord(below(2 * reach) - reach, below(2 * reach) - reach, below(2 * reach) - reach);
    };
    for (int i = 0; i < 3; ++i) tree.addTile(1, near(40), value(below(100)), below(2) == 0);
    for (int i = 0; i < 2; ++i) tree.addTile(2, near(200), value(below(100)), below(2) == 0);
    for (int i = 0; i < 4; ++i) {
        Coord const low = near(30);
        tree.fill(CoordBBox(low, low + Coord(below(30), below(30), below(30))), value(below(3)),
                  below(2) == 0);
    }
    for (int i = 0; i < 300; ++i) tree.setValue(near(40), value(below(100)));
    for (int i = 0; i < 20; ++i) tree.setValue(near(300), value(below(100)));
    for (int i = 0; i < 20; ++i) tree.setValueOff(near(40), value(below(100)));
    tree.prune();
    return grid;
}

template <class G> auto sampled(GridPtr const& grid, std::vector<float3> const& positions) {
    auto const typed = as<G>(grid);
    tools::GridSampler<G, tools::BoxSampler> const sampler(*typed);
    std::vector<decltype(sampler.wsSample(Vec3d()))> values;
    for (auto const& p : positions) values.push_back(sampler.wsSample(Vec3d(p.x, p.y, p.z)));
    return values;
}

inline GridPtr inDouble(GridPtr const& grid) {
    auto const from = as(grid);
    auto copy = make<DoubleGrid>(double{from->background()});
    for (auto value = from->cbeginValueAll(); value; ++value)
        copy->tree().addTile(3 - value.getDepth(), value.getCoord(), double{*value},
                             value.isValueOn());
    copy->setTransform(grid->transformPtr());
    return copy;
}
/// A copy whose inactive values are all outside.
inline GridPtr withoutInside(GridPtr const& levelSet) {
    auto grid = copyOf(levelSet);
    for (auto value = grid->beginValueOff(); value; ++value) value.setValue(grid->background());
    return grid;
}
inline GridPtr randomScalars(unsigned seed) {
    return random<FloatGrid>(seed, [](int i) { return 0.25F * static_cast<float>(i) - 7.1F; });
}
inline GridPtr randomVectors(unsigned seed) {
    return random<Vec3SGrid>(seed, [](int i) {
        auto const x = static_cast<float>(i);
        return Vec3s(x, 3 - x, x * x);
    });
}
inline GridPtr booleans() {
    initialize();
    return GridBase::createGrid(BoolGrid::gridType());
}
/// A copy that also has a value at a voxel.
inline GridPtr withValue(GridPtr const& grid, int3 const& at, float value) {
    auto copy = copyOf(grid);
    copy->tree().setValue(Coord(at.x, at.y, at.z), value);
    return copy;
}
/// Tiles of the largest size, with different values.
inline GridPtr largeTiles(int count) {
    auto grid = make<FloatGrid>(0);
    for (int i = 0; i < count; ++i)
        grid->tree().addTile(3, Coord(4096 * i, 0, 0), static_cast<float>(i + 1), true);
    return grid;
}
/// A copy with another transform, whose rows are the images of the axes and of 0.
inline GridPtr transformed(GridPtr const& grid, float const (&rows)[4][3]) {
    auto copy = copyOf(grid);
    Mat4d matrix = Mat4d::identity();
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 3; ++c) matrix[r][c] = double{rows[r][c]};
    copy->setTransform(math::Transform::createLinearTransform(matrix));
    return copy;
}
inline GridPtr inFrustum(GridPtr const& grid) {
    auto copy = copyOf(grid);
    copy->setTransform(
        math::Transform::createFrustumTransform(BBoxd(Vec3d(-20), Vec3d(20)), 0.5, 10));
    return copy;
}

inline void write(std::string const& path,
                  std::vector<std::pair<std::string, GridPtr>> const& grids, bool half = false) {
    GridPtrVec all;
    for (auto const& [name, grid] : grids) {
        auto const copy = grid->copyGrid();
        copy->setName(name);
        copy->setSaveFloatAsHalf(half);
        all.push_back(copy);
    }
    io::File(path).write(all);
}
/// Reads all grids of a file, and writes them to another.
inline void writeAgain(std::string const& from, std::string const& to) {
    io::File file(from);
    file.open(false);
    io::File(to).write(*file.getGrids(), *file.getMetadata());
}

inline GridPtr read(std::string const& path, std::string const& name) {
    initialize();
    io::File file(path);
    file.open(false);
    return file.readGrid(name);
}
inline std::string metadata(GridPtr const& grid, std::string const& name) {
    auto const value = (*grid)[name];
    return value ? value->str() : std::string();
}

/// The values of openvdb::tools::BoxSampler at positions in world space.
inline std::vector<float> sample(GridPtr const& grid, std::vector<float3> const& positions) {
    if (!as<DoubleGrid>(grid)) return sampled<FloatGrid>(grid, positions);
    auto const values = sampled<DoubleGrid>(grid, positions);
    return std::vector<float>(values.begin(), values.end());
}
inline std::vector<float3> sampleVectors(GridPtr const& grid,
                                         std::vector<float3> const& positions) {
    std::vector<float3> values;
    for (auto const& v : sampled<Vec3SGrid>(grid, positions)) values.push_back({v[0], v[1], v[2]});
    return values;
}
/// The positions and the values of the active voxels.
inline std::vector<std::pair<float3, float>> voxels(GridPtr const& grid) {
    std::vector<std::pair<float3, float>> all;
    auto const typed = as(grid);
    for (auto value = typed->cbeginValueOn(); value; ++value) {
        Vec3d const p = typed->indexToWorld(value.getCoord());
        all.emplace_back(
            float3{static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2])},
            *value);
    }
    return all;
}

}  // namespace vdb_grids
