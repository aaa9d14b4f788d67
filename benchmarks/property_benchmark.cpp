// Measures the cost of reading a geometry property through a node, against a plain indexed loop
// over the same arrays, for 2^20 elements in the same run, in nanoseconds an element on one thread.
// After the report of the benchmarks, a table shows the medians and their ratios. All forms must
// agree before the first measurement.
//
//   float      a float property
//   converted  a property of type short
//   mapped     a float property through property indices and range indices, both shuffled blockwise
//
//   loop   a loop by hand, without checks of the indices, that writes to an existing array
//   point  the node's point eval in such a loop
//   batch  the node's batch eval, including the allocation of the result
//   view   evaluate() to an existing array

#include <benchmark/benchmark.h>
#include <tbb/global_control.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "allocation_count.h"
#include "ratio_table.h"
#include "zel/zel.h"

namespace {

using Orvane::Math::float3;
using Quern::Array;
using Quern::makePtr;

constexpr long long kCount = 1 << 20;

/// Evaluates all elements. The returned values are valid until the next call.
using Evaluate = std::function<float const*()>;

/// The indices below kCount, shuffled within groups of 64, so that neighbours stay close to each
/// other, as in a mesh.
template <class T> Quern::Ptr<Array<T>> shuffled(unsigned seed) {
    auto indices = makePtr<Array<T>>(kCount);
    for (long long i = 0; i < kCount; ++i) (*indices)[i] = static_cast<T>(i);
    std::mt19937 random(seed);
    for (long long i = 0; i < kCount; i += 64)
        std::shuffle(indices->begin() + i, indices->begin() + i + 64, random);
    return indices;
}

struct Form {
    std::string name;
    Evaluate evaluate;
};

struct Subject {
    std::string name;
    std::vector<Form> forms;
};

struct Arrays {
    Array<float3> positions = Array<float3>(kCount);
    Array<float> out = Array<float>(kCount);
};

/// The forms of a read: a node that is bound to `values`, through the maps if they are given, and
/// `read(values, i)` by hand.
template <class T, class Read>
Subject makeSubject(std::string const& name, Arrays& arrays,
                    Quern::Ptr<Array<long long>> const& indices,
                    Quern::Ptr<Array<unsigned int>> const& ranges, Read const& read) {
    auto const values = makePtr<Array<T>>(kCount);
    for (long long i = 0; i < kCount; ++i) (*values)[i] = static_cast<T>(i % 30000);
    Orvane::Object object;
    Orvane::Geometry::setGeoProperty(object, "p", T{}, values, "points");
    if (ranges) Orvane::Geometry::setRangeGeoPropIndices(object, "points", ranges);
    auto const node = makePtr<zel::ScalarGeoPropertyTriggered>("p");
    node->apply_object(object);
    if (indices) node->use_property_indices(indices);

    // A virtual call, like that of a node in a tree.
    zel::ScalarPtr const field = node;
    auto const loop = [values, read, &arrays] {
        T const* const in = values->data();
        float* const out = arrays.out.data();
        for (long long i = 0; i < kCount; ++i) out[i] = read(in, i);
        return static_cast<float const*>(out);
    };
    auto const point = [field, &arrays] {
        float3 const* const in = arrays.positions.data();
        float* const out = arrays.out.data();
        for (long long i = 0; i < kCount; ++i) out[i] = field->eval(in[i], i);
        return static_cast<float const*>(out);
    };
    auto const batch = [field, &arrays, result = Quern::Ptr<Array<float>>()]() mutable {
        result.reset();
        result = field->eval(arrays.positions);
        return static_cast<float const*>(result->data());
    };
    auto const view = [field, &arrays] {
        std::span<float3 const> const in(arrays.positions.data(), kCount);
        zel::evaluate(*field, zel::PointView::of(in), std::span(arrays.out.data(), kCount));
        return static_cast<float const*>(arrays.out.data());
    };
    return {name, {{"loop", loop}, {"point", point}, {"batch", batch}, {"view", view}}};
}

/// Whether every form gives the values of the loop by hand; prints the name of one that does not.
bool formsAgree(Subject const& subject) {
    float const* const loop = subject.forms.front().evaluate();
    std::vector<float> const expected(loop, loop + kCount);
    for (Form const& form : subject.forms) {
        if (std::equal(expected.begin(), expected.end(), form.evaluate())) continue;
        std::fprintf(stderr, "%s: %s and loop differ\n", subject.name.c_str(), form.name.c_str());
        return false;
    }
    return true;
}

void registerForms(Subject const& subject) {
    for (Form const& form : subject.forms) {
        auto const run = [&form](benchmark::State& state) {
            form.evaluate();
            AllocationCount const allocations;
            for (auto _ : state) {
                benchmark::DoNotOptimize(form.evaluate());
                benchmark::ClobberMemory();
            }
            using benchmark::Counter;
            state.counters["allocations"] =
                Counter(static_cast<double>(allocations.blocks()), Counter::kAvgIterations);
            state.SetItemsProcessed(state.iterations() * kCount);
            countItems(state, kCount);
        };
        benchmark::RegisterBenchmark((subject.name + "/" + form.name).c_str(), run)
            ->Unit(benchmark::kMillisecond);
    }
}

void printTable(RatioReporter const& report, std::vector<Subject> const& subjects) {
    std::printf("\nread       form      median     least  of loop   (ns an element, one thread)\n");
    for (Subject const& subject : subjects) {
        double const loop = report[subject.name + "/loop"].median;
        for (Form const& form : subject.forms) {
            RatioReporter::Times const own = report[subject.name + "/" + form.name];
            std::printf("%-10s %-6s", subject.name.c_str(), form.name.c_str());
            printCell(own.median, 10, 2);
            printCell(own.least, 10, 2);
            printCell(ratio(own.median, loop), 9, 2);
            std::printf("\n");
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!startBenchmarks(argc, argv, 9, "0.03")) return EXIT_FAILURE;
    // Reads are memory-bound: with more threads the benchmark would measure the memory.
    tbb::global_control const oneThread(tbb::global_control::max_allowed_parallelism, 1);

    Arrays arrays;
    auto const indices = shuffled<long long>(7);
    auto const ranges = shuffled<unsigned int>(8);
    auto const mappedRead = [indices, ranges](float const* in, long long i) {
        return in[ranges->data()[indices->data()[i]]];
    };
    std::vector<Subject> const subjects{
        makeSubject<float>("float", arrays, {}, {},
                           [](float const* in, long long i) { return in[i]; }),
        makeSubject<short>("converted", arrays, {}, {},
                           [](short const* in, long long i) { return static_cast<float>(in[i]); }),
        makeSubject<float>("mapped", arrays, indices, ranges, mappedRead),
    };
    for (Subject const& subject : subjects) {
        if (!formsAgree(subject)) return EXIT_FAILURE;
        registerForms(subject);
    }
    return runBenchmarks([&](RatioReporter const& report) { printTable(report, subjects); });
}
