#include <openvdb/tools/Interpolation.h>

#include <random>

#include "exchange/vdb_grid.h"

namespace vdb_grids {

using namespace openvdb;

namespace {

/// Fills a grid with random voxels, boxes and tiles.
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
    return wrap(grid);
}

template <class G> auto sampled(GridPtr const& grid, std::vector<float3> const& positions) {
    auto const typed = grid->as<G>();
    tools::GridSampler<G, tools::BoxSampler> const sampler(*typed);
    std::vector<decltype(sampler.wsSample(Vec3d()))> values;
    for (auto const& p : positions) values.push_back(sampler.wsSample(Vec3d(p.x, p.y, p.z)));
    return values;
}

}  // namespace

GridPtr inDouble(GridPtr const& grid) {
    auto const from = grid->as();
    auto copy = make<DoubleGrid>(double{from->background()});
    for (auto value = from->cbeginValueAll(); value; ++value)
        copy->tree().addTile(3 - value.getDepth(), value.getCoord(), double{*value},
                             value.isValueOn());
    copy->setTransform(grid->base->transformPtr());
    return wrap(copy);
}
GridPtr withoutInside(GridPtr const& levelSet) {
    auto grid = copyOf(levelSet);
    for (auto value = grid->beginValueOff(); value; ++value) value.setValue(grid->background());
    return wrap(grid);
}
GridPtr randomScalars(unsigned seed) {
    return random<FloatGrid>(seed, [](int i) { return 0.25F * static_cast<float>(i) - 7.1F; });
}
GridPtr randomVectors(unsigned seed) {
    return random<Vec3SGrid>(seed, [](int i) {
        auto const x = static_cast<float>(i);
        return Vec3s(x, 3 - x, x * x);
    });
}
GridPtr booleans() {
    initialize();
    return wrap(GridBase::createGrid(BoolGrid::gridType()));
}
GridPtr withValue(GridPtr const& grid, int3 const& at, float value) {
    auto copy = copyOf(grid);
    copy->tree().setValue(Coord(at.x, at.y, at.z), value);
    return wrap(copy);
}
GridPtr largeTiles(int count) {
    auto grid = make<FloatGrid>(0);
    for (int i = 0; i < count; ++i)
        grid->tree().addTile(3, Coord(4096 * i, 0, 0), static_cast<float>(i + 1), true);
    return wrap(grid);
}
GridPtr transformed(GridPtr const& grid, float const (&rows)[4][3]) {
    auto copy = copyOf(grid);
    Mat4d matrix = Mat4d::identity();
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 3; ++c) matrix[r][c] = double{rows[r][c]};
    copy->setTransform(math::Transform::createLinearTransform(matrix));
    return wrap(copy);
}
GridPtr inFrustum(GridPtr const& grid) {
    auto copy = copyOf(grid);
    copy->setTransform(
        math::Transform::createFrustumTransform(BBoxd(Vec3d(-20), Vec3d(20)), 0.5, 10));
    return wrap(copy);
}

void write(std::string const& path, std::vector<std::pair<std::string, GridPtr>> const& grids,
           bool half) {
    GridPtrVec all;
    for (auto const& [name, grid] : grids) {
        auto const copy = grid->base->copyGrid();
        copy->setName(name);
        copy->setSaveFloatAsHalf(half);
        all.push_back(copy);
    }
    io::File(path).write(all);
}
void writeAgain(std::string const& from, std::string const& to) {
    io::File file(from);
    file.open(false);
    io::File(to).write(*file.getGrids(), *file.getMetadata());
}

GridPtr read(std::string const& path, std::string const& name) {
    initialize();
    io::File file(path);
    file.open(false);
    return wrap(file.readGrid(name));
}
std::string metadata(GridPtr const& grid, std::string const& name) {
    auto const value = (*grid->base)[name];
    return value ? value->str() : std::string();
}
std::int64_t activeVoxels(GridPtr const& grid) {
    return static_cast<std::int64_t>(grid->base->activeVoxelCount());
}
bool hasSameTopology(GridPtr const& a, GridPtr const& b) {
    return a->as()->tree().hasSameTopology(b->as()->tree());
}
float background(GridPtr const& grid) {
    return grid->as()->background();
}

std::vector<float> sample(GridPtr const& grid, std::vector<float3> const& positions) {
    if (!grid->as<DoubleGrid>()) return sampled<FloatGrid>(grid, positions);
    auto const values = sampled<DoubleGrid>(grid, positions);
    return std::vector<float>(values.begin(), values.end());
}
std::vector<float3> sampleVectors(GridPtr const& grid, std::vector<float3> const& positions) {
    std::vector<float3> values;
    for (auto const& v : sampled<Vec3SGrid>(grid, positions)) values.push_back({v[0], v[1], v[2]});
    return values;
}
std::vector<std::pair<float3, float>> voxels(GridPtr const& grid) {
    std::vector<std::pair<float3, float>> all;
    auto const typed = grid->as();
    for (auto value = typed->cbeginValueOn(); value; ++value) {
        Vec3d const p = typed->indexToWorld(value.getCoord());
        all.emplace_back(
            float3{static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2])},
            *value);
    }
    return all;
}

}  // namespace vdb_grids
