// Measures volumes made of fields, in ns a sample: a band of about five million voxels around a
// sphere, of two fields and of both kinds of tree. After the report of the benchmarks, a table
// shows the medians, and their ratios to a batch. All forms must agree bit for bit before the first
// measurement.
//
//   batch   the batch eval of the field at as many positions, with the allocation of the result
//   fill    fillChannel of the field
//   points  ORV's fillChannel of a function that calls the point eval of the field
//   build   buildVolume of the field: the tree, the channel and its samples

#include <benchmark/benchmark.h>
#include <tbb/global_control.h>
#include <tbb/info.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ratio_table.h"
#include "trees.h"
#include "zel/zel.h"
#include "zel_platform/orvane_geometry_volume/sample_places.h"

namespace {

using namespace ORV::TileTree3D;
using zel::ScalarPtr;

constexpr zel::Box kBox{{-1.1F, -1.1F, -1.1F}, {1.1F, 1.1F, 1.1F}};
constexpr float kVoxelSize = 1.0F / 150, kBand = 3;

struct Form {
    char const* name;
    std::function<void()> run;
    double samples;
};

/// A field in a tree of one kind, and the forms of filling a channel with it.
struct Subject {
    std::string name;
    std::vector<Form> forms;
};

/// The places of all samples, in the order of the channel.
template <class Traits>
Quern::Array<float3> samplePositions(VoxelTopology<Traits> const& topology) {
    Quern::Array<float3> positions;
    positions.reserve(static_cast<long long>(topology.size()));
    auto const& tree = topology.container();
    for (int depth = 0; depth <= tree.depth(); ++depth)
        for (long long i = 0; i < tree.tileCount(depth); ++i) {
            auto const places = Internal::samplePlaces(topology, tree.tile(i, depth));
            for (float const z : places.z)
                for (float const y : places.y)
                    for (float const x : places.x) positions.push_back({x, y, z});
        }
    return positions;
}

template <class Traits> Subject makeSubject(char const* name, ScalarPtr const& field) {
    zel::ScalarFieldSphere const sphere({}, 1);
    auto const volume = zel::buildVolume<Traits>(sphere, kBox, kVoxelSize, kBand);
    auto const positions = Quern::makePtr<Quern::Array<float3>>(samplePositions(*volume.topology));
    auto const fill = [=] { zel::fillChannel(*volume.channel, *volume.topology, *field); };
    auto const points = [=] {
        fillChannel<Traits, float>(*volume.channel, *volume.topology,
                                   [&](float3 const& p) { return field->eval(p, 0); });
    };
    fill();
    DataChannel<Traits, float> const filled = *volume.channel;
    points();
    std::size_t const bytes = filled.size() * sizeof(float);
    if (std::memcmp(filled.samples({0, 0}), volume.channel->samples({0, 0}), bytes) != 0) {
        std::fprintf(stderr, "%s: fill and points differ\n", name);
        std::exit(EXIT_FAILURE);
    }
    auto const build = [=] {
        return zel::buildVolume<Traits>(*field, kBox, kVoxelSize, kBand).channel->size();
    };
    auto const count = static_cast<double>(filled.size());
    return {std::string(Traits::kBranch == 2 ? "2-tree/" : "5-tree/") + name,
            {{"batch", [=] { benchmark::DoNotOptimize(field->eval(*positions)); }, count},
             {"fill", fill, count},
             {"points", points, count},
             {"build", [=] { benchmark::DoNotOptimize(build()); }, static_cast<double>(build())}}};
}

std::string nameOf(Subject const& subject, int threads, char const* form) {
    return subject.name + "/" + std::to_string(threads) + "/" + form;
}

void registerForms(Subject const& subject, int threads) {
    for (Form const& form : subject.forms) {
        auto const run = [&form, threads](benchmark::State& state) {
            tbb::global_control const limit(tbb::global_control::max_allowed_parallelism,
                                            static_cast<std::size_t>(threads));
            for (auto _ : state) form.run();
            countItems(state, form.samples);
        };
        auto* const made =
            benchmark::RegisterBenchmark(nameOf(subject, threads, form.name).c_str(), run);
        made->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
        if (threads > 1) made->UseRealTime();
    }
}

void printTable(RatioReporter const& report, std::vector<Subject> const& subjects, int allThreads) {
    std::printf("\nns a sample       threads  form      median     least  of batch\n");
    for (Subject const& subject : subjects)
        for (int const threads : {1, allThreads})
            for (Form const& form : subject.forms) {
                auto const times = report[nameOf(subject, threads, form.name)];
                std::printf("%-17s %7d  %-6s", subject.name.c_str(), threads, form.name);
                printCell(times.median, 10, 2);
                printCell(times.least, 10, 2);
                printCell(ratio(times.least, report[nameOf(subject, threads, "batch")].least), 10,
                          2);
                std::printf("\n");
            }
}

}  // namespace

int main(int argc, char** argv) {
    if (!startBenchmarks(argc, argv, 5, "0.005")) return EXIT_FAILURE;
    ScalarPtr const sphere = Quern::makePtr<zel::ScalarFieldSphere>(float3{}, 1.0F);
    ScalarPtr const noise = Quern::makePtr<zel::ScalarFieldAdd>(
        sphere, Quern::makePtr<zel::ScalarFieldFractalNoise>(
                    0.02F, 3.0F, 4.0F, 0.5F, 2.0F, Quern::makePtr<zel::ScalarFieldConstant>(0.0F),
                    1.0F, 7));
    ScalarPtr const solids = CsgTree<false>::build<ZelNodes>({});
    std::vector<Subject> subjects;
    for (auto const& [name, field] :
         {std::pair{"sphere", sphere}, {"solids", solids}, {"noise", noise}}) {
        subjects.push_back(makeSubject<BinaryTraits>(name, field));
        subjects.push_back(makeSubject<QuinaryTraits>(name, field));
    }
    int const allThreads = tbb::info::default_concurrency();
    for (Subject const& subject : subjects)
        for (int const threads : {1, allThreads}) registerForms(subject, threads);
    return runBenchmarks(
        [&](RatioReporter const& report) { printTable(report, subjects, allThreads); });
}
