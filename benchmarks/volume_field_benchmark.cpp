// Measures the cost of sampling a volume through a node, against the same sampler without a node,
// in the same run: a million positions, along scan lines or in random order, inside a volume of ten
// million voxels of one depth, which exceeds the caches. Also measures the steps of binding a node
// to that volume. After the report of the benchmarks, tables show the medians. All forms must agree
// bit for bit before the first measurement.
//
//   dense  the samples in an array, read by a trilinear or tricubic Lagrange loop written by hand
//   bare   the sampler in a loop that writes to an existing array; one sampler for each thread
//   point  the node's point eval in such a loop
//   batch  the node's batch eval, including the allocation of the result
//   points the node's point eval and grad in a loop
//   both   evalAndGrad of the node

#include <benchmark/benchmark.h>
#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "dense_volume.h"
#include "ratio_table.h"
#include "zel/volume/volume_reader.h"
#include "zel/zel.h"
#include "zel_platform/orvane_geometry_volume/channel_pool.h"
#include "zel_platform/orvane_geometry_volume/halo.h"
#include "zel_platform/orvane_geometry_volume/volume_builder.h"

namespace {

using namespace ORV::TileTree3D;
using zel::SamplerType;
using Positions = Quern::Array<float3>;

constexpr char const* kTypes[] = {"linear", "cubicC0", "cubicC1"};

/// A cube from -1 to 1 of voxels of the deepest depth, in a tree with a far larger root.
template <class Traits> struct Cube {
    static constexpr int kHalf = 108;  // voxels
    static constexpr float kVoxelSize = 1.0F / kHalf;

    Cube()
        : volume(buildVolume<Traits, float>(
              kVoxelSize, Traits::kMaxDepth,
              [](float3 const& low, float3 const& high, int) {
                  bool inside = true;
                  for (int a = 0; a < 3; ++a) inside = inside && low[a] < 1 && high[a] > -1;
                  return inside;
              },
              [](float3 const& p) { return std::sin(5 * p.x) * p.y + p.z; })),
          dense(denseCopy(volume, -kHalf, 2 * kHalf)), view(Quern::makePtr<ORV::Object>()) {
        view->setComponent(Orvane::Geometry::sVoxelTileTree, volume.container);
        view->setComponent(Orvane::Geometry::sVoxelComp, volume.topology);
        view->setComponent("density", volume.channel);
        Orvane::Geometry::setVolume(object, view);
    }

    Volume<Traits, float> volume;
    DenseVolume<float> dense;
    Quern::Ptr<ORV::Object> view;
    Orvane::Object object;
};

template <class Traits> Cube<Traits> const& cube() {
    static Cube<Traits> const made;
    return made;
}
template <class Traits> constexpr char const* kKind = Traits::kBranch == 2 ? "2-tree" : "5-tree";

// Positions far enough inside the cube that all stencils lie in it.

/// Lines from side to side, with half a voxel between positions and between lines, in distant
/// slices.
Positions scanPositions() {
    constexpr int kSteps = 400, kSlices = 6;
    constexpr float kStep = 0.5F / Cube<BinaryTraits>::kHalf;
    auto const coordinate = [](int i, float step) {
        return (static_cast<float>(i) + 0.3F) * step - 0.92F;
    };
    Positions positions;
    positions.reserve(kSteps * kSteps * kSlices);
    for (int z = 0; z < kSlices; ++z)
        for (int y = 0; y < kSteps; ++y)
            for (int x = 0; x < kSteps; ++x)
                positions.push_back(
                    {coordinate(x, kStep), coordinate(y, kStep), coordinate(z, 0.3F)});
    return positions;
}
Positions randomPositions(long long count) {
    std::mt19937 random(7);
    std::uniform_real_distribution<float> coordinate(-0.9F, 0.9F);
    Positions positions(count);
    for (float3& p : positions) p = {coordinate(random), coordinate(random), coordinate(random)};
    return positions;
}

/// Runs on a number of threads, at most that of the processors.
tbb::global_control limitedTo(int threads) {
    return tbb::global_control(tbb::global_control::max_allowed_parallelism,
                               static_cast<std::size_t>(threads));
}

/// Evaluates all positions on a number of threads. The returned values are valid until the next
/// call.
using Evaluate = std::function<float const*(int threads)>;

/// The loop out[i] = sample(positions[i]), with a sampler from `make` for each thread.
template <class Make>
Evaluate bareLoop(Positions const& positions, Quern::Array<float>& values, Make const& make) {
    using Sampler = decltype(make());
    auto const samplers = std::make_shared<tbb::enumerable_thread_specific<Sampler>>(make);
    return [&positions, &values, samplers](int threads) -> float const* {
        float3 const* const in = positions.data();
        float* const out = values.data();
        auto const loop = [&](tbb::blocked_range<long long> const& range) {
            auto& sampler = *samplers->local();
            for (long long i = range.begin(); i != range.end(); ++i) out[i] = sampler(in[i]);
        };
        tbb::blocked_range<long long> const all(0, positions.size());
        if (threads == 1)
            loop(all);
        else
            tbb::parallel_for(all, loop);
        return out;
    };
}

/// Wraps a sampler as a function of a position in world units.
template <class Traits> struct Linear {
    zel::detail::LinearSampler<Traits, float> sampler;
    float operator()(float3 const& p) { return sampler.sample(p, Traits::kMaxDepth, 2); }
};
template <class Traits> struct Cubic {
    zel::detail::CubicSampler<Traits, float> sampler;
    float operator()(float3 const& p) { return sampler.sample(p, 2); }
};

struct Form {
    std::string name;
    Evaluate evaluate;
    bool parallel = true;
};
struct Subject {
    std::string name;
    std::vector<Form> forms;
};

template <class Traits>
Subject makeSubject(char const* order, Positions const& positions, Quern::Array<float>& values,
                    SamplerType type) {
    auto const number = static_cast<int>(type);
    auto const field = Quern::makePtr<zel::ScalarOrvane>(cube<Traits>().object, "density", type);
    // A virtual call, like that of a node in a tree.
    zel::ScalarPtr const node = field;
    auto const state = std::make_shared<zel::detail::VolumeStateOf<Traits, float>>();
    zel::detail::initSamplerState(cube<Traits>().view, "density", type, true, *state);
    Evaluate bare;
    if (type == SamplerType::kLinear) {
        auto const make = [state] {
            return std::shared_ptr<Linear<Traits>>(
                new Linear<Traits>{{*state->container, *state->topology, *state->haloChannel}});
        };
        bare = bareLoop(positions, values, make);
    } else {
        auto const make = [state, number] {
            return std::shared_ptr<Cubic<Traits>>(
                new Cubic<Traits>{{*state->container, *state->topology, *state->channel, number,
                                   true, 1, nullptr, 0, 0}});
        };
        bare = bareLoop(positions, values, make);
    }
    auto const makeDense = [linear = type == SamplerType::kLinear] {
        auto const sample = [linear, &dense = cube<Traits>().dense](float3 const& p) {
            return linear ? dense.linear(p) : dense.cubic(p);
        };
        return std::make_shared<std::decay_t<decltype(sample)>>(sample);
    };
    auto const dense = bareLoop(positions, values, makeDense);
    auto const point = [node, &positions, &values](int) -> float const* {
        float3 const* const in = positions.data();
        float* const out = values.data();
        for (long long i = 0; i < positions.size(); ++i) out[i] = node->eval(in[i], i);
        return out;
    };
    auto const batch = [node, &positions,
                        result = Quern::Ptr<Quern::Array<float>>()](int) mutable -> float const* {
        result.reset();
        result = node->eval(positions);
        return result->data();
    };
    auto const points = [node, &positions, &values,
                         gradients = Positions(positions.size())](int) mutable -> float const* {
        for (long long i = 0; i < positions.size(); ++i) {
            values[i] = node->eval(positions[i], i);
            gradients[i] = node->grad(positions[i], i);
        }
        return values.data();
    };
    using Both = Core::Fields::ValuesAndGradients<zel::ScalarField>;
    auto const both = [node, &positions, result = Both()](int) mutable -> float const* {
        result = {};
        result = Core::Fields::evalAndGrad(*node, positions);
        return result.values->data();
    };
    return {std::string(kKind<Traits>) + "/" + order + "/" + kTypes[number],
            {{"bare", bare},
             {"point", point, false},
             {"batch", batch},
             {"dense", dense},
             {"points", points, false},
             {"both", both}}};
}

std::string nameOf(Subject const& subject, int threads, std::string const& form) {
    return subject.name + "/" + std::to_string(threads) + "/" + form;
}

/// Exits with an error if a form differs in a bit from the bare sampler, or if the dense array
/// differs by more than a clamp or another spline can explain.
void checkForms(Subject const& subject, long long count, int threads) {
    auto const limit = limitedTo(threads);
    float const* const bare = subject.forms.front().evaluate(threads);
    std::vector<float> const expected(bare, bare + count);
    for (Form const& form : subject.forms) {
        float const* const got = form.evaluate(threads);
        bool const same =
            form.name == "dense"
                ? std::equal(expected.begin(), expected.end(), got,
                             [](float a, float b) { return std::fabs(a - b) < 1e-3F; })
                : std::memcmp(got, expected.data(), expected.size() * sizeof(float)) == 0;
        if (same) continue;
        std::fprintf(stderr, "%s: %s and bare differ\n", subject.name.c_str(), form.name.c_str());
        std::exit(EXIT_FAILURE);
    }
}

/// Measures processor time on one thread, which other programs disturb least; real time on more.
void inThreads(benchmark::internal::Benchmark* benchmark, int threads) {
    benchmark->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
    if (threads > 1) benchmark->UseRealTime();
}

void registerForms(Subject const& subject, long long count, int threads) {
    for (Form const& form : subject.forms) {
        if (threads > 1 && !form.parallel) continue;
        auto const run = [&form, count, threads](benchmark::State& state) {
            auto const limit = limitedTo(threads);
            for (auto _ : state) {
                benchmark::DoNotOptimize(form.evaluate(threads));
                benchmark::ClobberMemory();
            }
            countItems(state, static_cast<double>(count));
        };
        inThreads(benchmark::RegisterBenchmark(nameOf(subject, threads, form.name).c_str(), run),
                  threads);
    }
}

// The steps of binding.

using Step = std::function<void()>;
struct NamedStep {
    std::string name;
    Step run;
    double bytes;
};

template <class Traits> std::vector<NamedStep> bindingSteps() {
    using namespace zel::detail;
    auto const& made = cube<Traits>();
    auto const& tree = made.volume.container;
    auto const& topology = made.volume.topology;
    auto const& channel = made.volume.channel;
    auto const newHalo = [&] {
        return allocateHaloChannel<Traits, float, Traits::kSamples>(*topology, 0.0F, true, true, 0,
                                                                    Traits::kMaxDepth);
    };
    auto const halo = newHalo();
    auto const bytesOf = [](ORV::Component const& component) {
        unsigned long long used = 0, held = 0;
        component.memUse(used, held, true);
        return static_cast<double>(held);
    };
    double const haloBytes = bytesOf(*halo);
    auto const bind = [&made](SamplerType type) {
        zel::ScalarOrvane const node(made.object, "density", type);
        benchmark::DoNotOptimize(&node);
    };
    auto const bound =
        Quern::makePtr<zel::ScalarOrvane>(made.object, "density", SamplerType::kLinear);
    std::string const kind = std::string(kKind<Traits>) + "/bind/";
    return {
        {kind + "(the tree)", {}, bytesOf(*tree)},
        {kind + "(the channel)", {}, bytesOf(*channel)},
        {kind + "find components",
         [&made] {
             VolumeStateOf<Traits, float> state;
             auto const view = Orvane::Geometry::shallow_copy_object_to_orv_volume(made.object);
             initSamplerState(view, "density", SamplerType::kLinear, false, state);
         },
         0},
        {kind + "allocate halo", [newHalo] { newHalo(); }, haloBytes},
        {kind + "allocate halo, pooled",
         [newHalo] {
             ChannelPool::setEnabled(true);
             newHalo();
         },
         haloBytes},
        {kind + "compute halo",
         [&tree = tree, &channel = channel, halo] {
             computeHalo<Traits, float, 0, 0, 1, 0>(*channel, *tree, *halo, 0, Traits::kMaxDepth);
         },
         0},
        {kind + "linear node", [bind] { bind(SamplerType::kLinear); }, haloBytes},
        {kind + "cubic node", [bind] { bind(SamplerType::kCubicC1); }, 0},
        {kind + "copy of a linear node",
         [bound] {
             zel::ScalarOrvane const copy(*bound);
             benchmark::DoNotOptimize(&copy);
         },
         0},
    };
}

void registerSteps(std::vector<NamedStep> const& steps, int threads) {
    for (NamedStep const& step : steps) {
        if (!step.run) continue;
        auto const run = [&step, threads](benchmark::State& state) {
            auto const limit = limitedTo(threads);
            for (auto _ : state) step.run();
            ChannelPool::setEnabled(false);
            countItems(state, 1);
        };
        inThreads(
            benchmark::RegisterBenchmark((step.name + "/" + std::to_string(threads)).c_str(), run),
            threads);
    }
}

void printTables(RatioReporter const& report, std::vector<Subject> const& subjects,
                 std::vector<std::vector<NamedStep>> const& binding, int allThreads) {
    std::printf("\nns a sample             threads  form     median     least  over bare  of "
                "dense  of 1 thread   busy\n");
    for (Subject const& subject : subjects)
        for (int threads = 1;; threads = allThreads) {
            double const bare = report[nameOf(subject, threads, "bare")].median;
            double const dense = report[nameOf(subject, threads, "dense")].median;
            for (Form const& form : subject.forms) {
                auto const [median, least, busy] = report[nameOf(subject, threads, form.name)];
                if (median == 0) continue;
                std::printf("%-23s %7d  %-6s", subject.name.c_str(), threads, form.name.c_str());
                printCell(median, 9, 2);
                printCell(least, 10, 2);
                if (bare > 0)
                    std::printf("%+11.2f", median - bare);
                else
                    printCell(0, 11, 2);
                printCell(ratio(median, dense), 10, 2);
                printCell(threads > 1 ? ratio(median, report[nameOf(subject, 1, form.name)].median)
                                      : 0,
                          13, 2);
                printCell(busy, 7, 2);
                std::printf("\n");
            }
            if (threads == allThreads) break;
        }
    std::printf(
        "\nOn one thread processor time, on more real time. busy: processor time by real time; "
        "below the\nnumber of threads, others had the machine.\n");
    std::printf("\nbinding                              MB  ms, 1 thread  ms, %d threads\n",
                allThreads);
    for (auto const& steps : binding)
        for (NamedStep const& step : steps) {
            std::printf("%-29s", step.name.c_str());
            printCell(step.bytes * 1e-6, 10, 1);
            printCell(report[step.name + "/1"].median * 1e-6, 14, 3);
            printCell(report[step.name + "/" + std::to_string(allThreads)].median * 1e-6, 15, 3);
            std::printf("\n");
        }
    std::printf("\nvoxels of the deepest depth: %lld, %lld\n",
                cube<BinaryTraits>().volume.channel->elementCount(BinaryTraits::kMaxDepth),
                cube<QuinaryTraits>().volume.channel->elementCount(QuinaryTraits::kMaxDepth));
}

}  // namespace

int main(int argc, char** argv) {
    if (!startBenchmarks(argc, argv, 3, "0.005")) return EXIT_FAILURE;

    Positions const scan = scanPositions();
    Positions const random = randomPositions(scan.size());
    Quern::Array<float> values(scan.size());
    std::vector<Subject> subjects;
    for (auto const& [order, positions] : {std::pair{"scan", &scan}, std::pair{"random", &random}})
        for (int type = 0; type < 3; ++type) {
            subjects.push_back(
                makeSubject<BinaryTraits>(order, *positions, values, SamplerType(type)));
            subjects.push_back(
                makeSubject<QuinaryTraits>(order, *positions, values, SamplerType(type)));
        }
    int const allThreads = tbb::info::default_concurrency();
    std::vector const binding{bindingSteps<BinaryTraits>(), bindingSteps<QuinaryTraits>()};
    for (int threads = 1;; threads = allThreads) {
        for (Subject const& subject : subjects) {
            checkForms(subject, scan.size(), threads);
            registerForms(subject, scan.size(), threads);
        }
        for (auto const& steps : binding) registerSteps(steps, threads);
        if (threads == allThreads) break;
    }
    return runBenchmarks(
        [&](RatioReporter const& report) { printTables(report, subjects, binding, allThreads); });
}
