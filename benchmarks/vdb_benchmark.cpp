// Measures volumes of OpenVDB files against OpenVDB itself, on a level set, its fog volume and a
// field of vectors. Forms alternate, and the least time of each counts. All of it runs on one
// thread, but for what OpenVDB does by itself.
//
//   read    readVdb, and io::File with a pass over all voxels of the leaves
//   sample  the batch of a field bound to the volume, its point eval, and BoxSampler by an
//           accessor, at a million random positions in the box of the grid, and in its active
//           voxels

#include <openvdb/openvdb.h>
#include <openvdb/tools/Interpolation.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "zel/zel.h"
#include "zel_exchange/vdb.h"
#include "zel_exchange/vdb_write.h"

namespace {

using Orvane::Math::float3;

constexpr std::size_t kPoints = 1000000;
constexpr int kRepetitions = 7;

template <class Run> double milliseconds(Run const& run) {
    auto const start = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

/// The least times of two forms that take turns.
template <class A, class B> std::pair<double, double> least(A const& a, B const& b) {
    std::pair<double, double> times{std::numeric_limits<double>::max(),
                                    std::numeric_limits<double>::max()};
    for (int i = 0; i < kRepetitions; ++i) {
        times.first = std::min(times.first, milliseconds(a));
        times.second = std::min(times.second, milliseconds(b));
    }
    return times;
}

double length(float value) {
    return double{value};
}
double length(openvdb::Vec3s const& value) {
    return double{value[0]} + double{value[1]} + double{value[2]};
}

double volatile sink;  ///< keeps what is computed for its time alone

template <class Grid> void measureReading(std::string const& path, char const* what) {
    auto const [ours, theirs] =
        least([&] { zel::readVdb(path, "grid", {.parallel = false}); },
              [&] {
                  openvdb::io::File file(path);
                  file.open(false);
                  auto const grid = openvdb::gridPtrCast<Grid>(file.readGrid("grid"));
                  double sum = 0;
                  for (auto leaf = grid->tree().cbeginLeaf(); leaf; ++leaf)
                      for (auto value = leaf->cbeginValueAll(); value; ++value)
                          sum += length(*value);
                  sink = sum;
              });
    std::printf("read    %-10s %9.2f ms, OpenVDB with a pass %9.2f ms: %5.2f\n", what, ours, theirs,
                ours / theirs);
}

std::vector<float3> boxPositions(openvdb::FloatGrid const& grid) {
    std::mt19937 engine(1);
    auto const box = grid.evalActiveVoxelBoundingBox();
    auto const low = grid.indexToWorld(box.min()), high = grid.indexToWorld(box.max());
    std::uniform_real_distribution<double> unit(0, 1);
    std::vector<float3> at(kPoints);
    for (float3& p : at)
        for (int a = 0; a < 3; ++a)
            p[a] = static_cast<float>(low[a] + (high[a] - low[a]) * unit(engine));
    return at;
}
std::vector<float3> voxelPositions(openvdb::FloatGrid const& grid) {
    std::mt19937 engine(2);
    std::vector<openvdb::Coord> voxels;
    for (auto value = grid.cbeginValueOn(); value; ++value) voxels.push_back(value.getCoord());
    std::uniform_real_distribution<double> unit(0, 1);
    std::vector<float3> at(kPoints);
    for (float3& p : at) {
        auto const& voxel = voxels[engine() % voxels.size()];
        auto const place = grid.indexToWorld(
            voxel.asVec3d() + openvdb::Vec3d(unit(engine), unit(engine), unit(engine)));
        p = {static_cast<float>(place[0]), static_cast<float>(place[1]),
             static_cast<float>(place[2])};
    }
    return at;
}

void measureSampling(openvdb::FloatGrid const& grid, zel::ScalarField const& field,
                     std::vector<float3> const& at, char const* what) {
    std::vector<float> ours(at.size()), points(at.size()), theirs(at.size());
    auto const sampleTheirs = [&] {
        auto const accessor = grid.getConstAccessor();
        openvdb::tools::GridSampler<openvdb::FloatGrid::ConstAccessor,
                                    openvdb::tools::BoxSampler> const sampler(accessor,
                                                                              grid.transform());
        for (std::size_t i = 0; i < at.size(); ++i)
            theirs[i] = sampler.wsSample(openvdb::Vec3d(at[i].x, at[i].y, at[i].z));
    };
    zel::EvaluateOptions serial;
    serial.parallel = false;
    auto const [batch, box] =
        least([&] { zel::evaluate(field, zel::PointView::of(at), ours, serial); }, sampleTheirs);
    auto const [point, again] = least(
        [&] {
            for (std::size_t i = 0; i < at.size(); ++i) points[i] = field.eval(at[i], 0);
        },
        sampleTheirs);
    double most = 0, error = 0;
    for (std::size_t i = 0; i < at.size(); ++i) {
        most = std::max(most, std::abs(double{theirs[i]}));
        error = std::max(error, std::abs(double{ours[i]} - double{theirs[i]}));
        if (ours[i] != points[i]) std::abort();
    }
    double const per = 1e6 / static_cast<double>(at.size());
    std::printf("sample  %-10s batch %6.1f ns, BoxSampler %6.1f ns: %5.2f; point %6.1f ns: %5.2f; "
                "error %.2g of the largest value\n",
                what, batch * per, box * per, batch / box, point * per, point / again,
                error / most);
}

void write(std::string const& path, openvdb::GridBase::Ptr const& grid, std::uint32_t compression) {
    grid->setName("grid");
    openvdb::io::File file(path);
    file.setCompression(compression);
    file.write(openvdb::GridPtrVec{grid});
}

/// A ball of radius 1. Its voxels have a power of two as their size, so that both find the same
/// places in them.
openvdb::FloatGrid::Ptr makeBall(std::string const& path, zel::VdbClass gridClass) {
    zel::VdbField field;
    field.name = "grid";
    field.scalar = Quern::makePtr<zel::ScalarFieldSphere>(float3{}, 1.0F);
    field.gridClass = gridClass;
    zel::WriteVdbOptions options;
    options.band = 3;
    constexpr float kReach = 1.0625F;
    zel::writeVdb(path, {field},
                  {float3{-kReach, -kReach, -kReach}, float3{kReach, kReach, kReach}}, 1.0F / 128,
                  options);
    openvdb::io::File file(path);
    file.open(false);
    return openvdb::gridPtrCast<openvdb::FloatGrid>(file.readGrid("grid"));
}

}  // namespace

int main() {
    using namespace openvdb;
    initialize();
    auto const path =
        (std::filesystem::temp_directory_path() / ("vdb_benchmark" + std::to_string(getpid())))
            .string();
    auto const ball = makeBall(path, zel::VdbClass::kLevelSet);
    auto const fog = makeBall(path, zel::VdbClass::kFogVolume);
    auto const vectors = gridPtrCast<Vec3SGrid>(GridBase::createGrid(Vec3SGrid::gridType()));
    auto to = vectors->getAccessor();
    for (auto value = ball->cbeginValueOn(); value; ++value)
        to.setValueOn(value.getCoord(), Vec3s(*value, 1, -*value));

    constexpr std::uint32_t kMask = io::COMPRESS_ACTIVE_MASK;
    write(path, ball, kMask | io::COMPRESS_BLOSC);
    measureReading<FloatGrid>(path, "blosc");
    write(path, ball, kMask | io::COMPRESS_ZIP);
    measureReading<FloatGrid>(path, "zip");
    write(path, ball, kMask);
    measureReading<FloatGrid>(path, "plain");
    auto const surface = zel::readVdb(path, "grid");
    write(path, fog, kMask | io::COMPRESS_BLOSC);
    measureReading<FloatGrid>(path, "fog");
    auto const smoke = zel::readVdb(path, "grid");
    write(path, vectors, kMask | io::COMPRESS_BLOSC);
    measureReading<Vec3SGrid>(path, "vectors");
    std::filesystem::remove(path);

    measureSampling(*ball, *surface.scalar("grid"), boxPositions(*ball), "ball, box");
    measureSampling(*ball, *surface.scalar("grid"), voxelPositions(*ball), "ball, band");
    measureSampling(*fog, *smoke.scalar("grid"), boxPositions(*fog), "fog, box");
    measureSampling(*fog, *smoke.scalar("grid"), voxelPositions(*fog), "fog, in it");
}
