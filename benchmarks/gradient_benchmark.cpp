// Measures what gradients cost beside values, in batches on one thread, at several numbers of
// positions on scan lines: the values alone, and values with gradients that are differences, or
// derivatives. After the report of the benchmarks, a table shows the medians.

#include <benchmark/benchmark.h>
#include <tbb/global_control.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "ratio_table.h"
#include "zel/zel.h"
#include "zel_platform/orvane_geometry_volume/volume_builder.h"

namespace {

using namespace zel;
using Positions = Quern::Array<float3>;

constexpr long long kCounts[] = {256, 1000, 10'000, 1'000'003};
constexpr char const* kForms[] = {"value", "derivative", "difference"};

template <class Node> Quern::Ptr<ScalarField> make(auto... arguments) {
    return Quern::makePtr<Node>(std::move(arguments)...);
}

/// Lines along x in the cube from -0.9 to 0.9, whose positions are `kStep` apart.
Positions scanLines(long long count) {
    constexpr float kStep = 1 / 216.0F;
    constexpr long long kColumns = 388;
    auto const coordinate = [](long long i) {
        return (static_cast<float>(i % kColumns) + 0.3F) * kStep - 0.9F;
    };
    Positions positions(count);
    for (long long i = 0; i < count; ++i)
        positions[i] = {coordinate(i), coordinate(i / kColumns),
                        coordinate(37 * (i / kColumns / kColumns))};
    return positions;
}

/// A volume of voxels of one depth in the cube from -1 to 1.
Orvane::Object volumeObject() {
    using namespace ORV::TileTree3D;
    constexpr float kVoxelSize = 1 / 108.0F;
    auto const volume = buildVolume<QuinaryTraits, float>(
        kVoxelSize, QuinaryTraits::kMaxDepth,
        [](float3 const& low, float3 const& high, int) {
            bool inside = true;
            for (int a = 0; a < 3; ++a) inside = inside && low[a] < 1 && high[a] > -1;
            return inside;
        },
        [](float3 const& p) { return std::sin(5 * p.x) * p.y + p.z; });
    auto const parts = Quern::makePtr<ORV::Object>();
    parts->setComponent(Orvane::Geometry::sVoxelTileTree, volume.container);
    parts->setComponent(Orvane::Geometry::sVoxelComp, volume.topology);
    parts->setComponent("density", volume.channel);
    Orvane::Object object;
    Orvane::Geometry::setVolume(object, parts);
    return object;
}

/// Twenty nodes: a ball and a box, each displaced by noise, cut by a plane and joined.
ScalarPtr displacedShapes() {
    auto const constant = [](float value) { return make<ScalarFieldConstant>(value); };
    auto const displaced = [&](ScalarPtr shape, float amplitude, std::int64_t seed) {
        ScalarPtr const noise = make<ScalarFieldSimplexNoise>(constant(0.25F), seed);
        return make<ScalarFieldAdd>(std::move(shape),
                                    make<ScalarFieldMultiply>(noise, constant(amplitude)));
    };
    ScalarPtr const ball = displaced(make<ScalarFieldSphere>(float3{-0.2F, 0, 0}, 0.5F), 0.2F, 1),
                    other =
                        displaced(make<ScalarFieldSphere>(float3{0.3F, 0.2F, 0}, 0.4F), 0.1F, 2),
                    floor = make<ScalarFieldPlane>(float3{0, -0.4F, 0}, float3{0, 1, 0});
    ScalarPtr const cut = make<ScalarFieldMax>(
        ball, make<ScalarFieldNegative>(make<ScalarFieldSubtract>(floor, constant(0.1F))));
    return make<ScalarFieldMin>(cut, make<ScalarFieldMax>(other, floor));
}

struct Measured {
    char const* name;
    ScalarPtr tree;
};

std::string nameOf(Measured const& field, long long count, char const* form) {
    return std::string(field.name) + "/" + std::to_string(count) + "/" + form;
}

void measure(benchmark::State& state, ScalarField const& tree, Positions const& positions,
             bool gradients) {
    for (auto _ : state) {
        if (gradients)
            benchmark::DoNotOptimize(Core::Fields::evalAndGrad(tree, positions));
        else
            benchmark::DoNotOptimize(tree.eval(positions));
    }
    countItems(state, static_cast<double>(positions.size()));
}

void print(RatioReporter const& report, std::vector<Measured> const& fields) {
    std::printf("\nns a position     count    value  with derivatives    with differences\n");
    for (Measured const& field : fields)
        for (long long const count : kCounts) {
            auto const time = [&](int form) {
                return report[nameOf(field, count, kForms[form])].median;
            };
            double const value = time(0);
            std::printf("%-14s %8lld %8.2f %8.2f (%5.2f x) %9.2f (%5.2f x)\n", field.name, count,
                        value, time(1), ratio(time(1), value), time(2), ratio(time(2), value));
        }
}

}  // namespace

int main(int argc, char** argv) {
    tbb::global_control const limit(tbb::global_control::max_allowed_parallelism, 1);
    if (!startBenchmarks(argc, argv, 5, "0.1")) return EXIT_FAILURE;
    Orvane::Object const object = volumeObject();
    ScalarPtr const still = make<ScalarFieldConstant>(0.25F);
    auto const volume = [&](SamplerType type) {
        return make<ScalarOrvane>(object, Quern::String("density"), type);
    };
    std::vector<Measured> const fields{
        {"simplex", make<ScalarFieldSimplexNoise>(still, 7)},
        {"fractal", make<ScalarFieldFractalNoise>(1.0F, 5.0F, 2.0F, 0.5F, 0.5F, still, 1.0F, 7)},
        {"linear", volume(SamplerType::kLinear)},
        {"cubic", volume(SamplerType::kCubicC1)},
        {"shapes", displacedShapes()}};
    for (Measured const& field : fields)
        for (long long const count : kCounts) {
            Positions const positions = scanLines(count);
            for (int form = 0; form < 3; ++form) {
                ScalarPtr const tree = form == 1 ? withExactGradients(field.tree) : field.tree;
                benchmark::RegisterBenchmark(nameOf(field, count, kForms[form]).c_str(),
                                             [tree, positions, form](benchmark::State& state) {
                                                 measure(state, *tree, positions, form != 0);
                                             });
            }
        }
    return runBenchmarks([&](RatioReporter const& report) { print(report, fields); });
}
