// Measures the cost of evaluating and building a tree, against the same formula in other forms,
// over 1000 to 2^20 positions and in the same run, in nanoseconds a point, on one thread and on all
// threads. After the report of the benchmarks, tables show the medians and their ratios. All forms
// must agree bit for bit before the first measurement.
//
//   loop   only reads the positions and writes floats
//   fused  the formula by hand, in one loop
//   naive  a tree of std::shared_ptr and one virtual function
//   point  the tree of ZEL, its point eval in a loop
//   batch  the tree of ZEL, its batch eval, including the allocation of the result
//   view   evaluate() to an existing array, which begins 4 bytes behind the start of a cache line;
//          the positions begin 12 bytes behind one
//   narrow as batch, without wide registers even if the processor has them
//   both   values and gradients by evalAndGrad
//
// The loops by hand use registers as wide as those of the batch. All forms but the batches write to
// one existing array, and run in a tbb::parallel_for on several threads.

#include <benchmark/benchmark.h>
#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "allocation_count.h"
#include "positions.h"
#include "ratio_table.h"
#include "trees.h"
#include "zel_platform/quern_core/position_loop.h"
#include "zel_platform/quern_core/simd_target.h"

namespace {

using Orvane::Math::float3;
using Positions = Quern::Array<float3>;

/// Evaluates all positions on a number of threads. The returned values are valid until the next
/// call.
using Evaluate = std::function<float const*(int threads)>;

struct Form {
    std::string name;
    Evaluate evaluate;
};

struct Subject {
    std::string name;
    int nodes;
    Positions const* positions;
    std::vector<Form> forms;
};

std::string nameOf(Subject const& subject, int threads, std::string const& form) {
    return subject.name + "/" + std::to_string(subject.positions->size()) + "/" +
           std::to_string(threads) + "/" + form;
}

void reportItems(benchmark::State& state, std::size_t itemsAnIteration) {
    auto const items = static_cast<double>(itemsAnIteration);
    state.SetItemsProcessed(state.iterations() * static_cast<benchmark::IterationCount>(items));
    countItems(state, items);
}

template <class F, class T>
void narrowLoop(F f, float3 const* in, T* out, std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i != end; ++i) out[i] = f(in[i], i);
}

template <class F, class T>
ZEL_WIDE_TARGET __attribute__((flatten)) void wideLoop(F f, float3 const* in, T* out,
                                                       std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i != end; ++i) out[i] = f(in[i], i);
}

template <class F, class T>
ZEL_WIDEST_TARGET __attribute__((flatten)) void widestLoop(F f, float3 const* in, T* out,
                                                           std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i != end; ++i) out[i] = f(in[i], i);
}

/// out[i] = f(in[i], i), with `f` inlined. It is passed by value, so that it may stay in registers.
template <class F, class T>
void runLoop(F const& f, float3 const* in, T* out, std::size_t begin, std::size_t end) {
    (Quern::widestVectors ? widestLoop<F, T>
     : Quern::wideVectors ? wideLoop<F, T>
                          : narrowLoop<F, T>)(f, in, out, begin, end);
}

/// The same at all positions.
template <class F>
Evaluate loopOf(Positions const& positions, Quern::Array<float>& values, F const& f) {
    return [&positions, &values, f](int threads) -> float const* {
        float3 const* const in = positions.data();
        float* const out = values.data();
        auto const loop = [=](std::size_t begin, std::size_t end) {
            runLoop(f, in, out, begin, end);
        };
        auto const count = static_cast<std::size_t>(positions.size());
        if (threads == 1) {
            loop(0, count);
        } else {
            tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count),
                              [&](auto const& range) { loop(range.begin(), range.end()); });
        }
        return out;
    };
}

class NodeCounter : public zel::FieldConstVisitor {
public:
    void operator()(zel::Field const& node) override {
        ++count;
        node.accept(*this);
    }
    int count = 0;
};

/// Positions and values that begin within a cache line.
class Unaligned {
public:
    explicit Unaligned(Positions const& positions)
        : m_count(static_cast<std::size_t>(positions.size())), m_positions(m_count + 33),
          m_values(m_count + 33) {
        std::copy(positions.begin(), positions.end(),
                  m_positions.begin() + behindLine(m_positions));
    }
    float const* evaluate(zel::ScalarField const& field, int threads) {
        zel::EvaluateOptions options;
        options.parallel = threads > 1;
        float* const values = m_values.data() + behindLine(m_values);
        float3 const* const positions = m_positions.data() + behindLine(m_positions);
        zel::evaluate(field, zel::PointView::of({positions, m_count}), std::span(values, m_count),
                      options);
        return values;
    }

private:
    /// The index of the first element that begins its own size behind the start of a cache line.
    template <class T> static std::ptrdiff_t behindLine(std::vector<T> const& elements) {
        std::ptrdiff_t i = 0;
        while (reinterpret_cast<std::uintptr_t>(&elements[static_cast<std::size_t>(i)]) % 64 !=
               sizeof(T))
            ++i;
        return i;
    }

    std::size_t m_count;
    std::vector<float3> m_positions;
    std::vector<float> m_values;
};

template <class Tree>
Subject makeSubject(Parameters const& parameters, Positions const& positions,
                    Quern::Array<float>& values) {
    zel::ScalarPtr const field = Tree::template build<ZelNodes>(parameters);
    naive::NodePtr const naiveTree = Tree::template build<NaiveNodes>(parameters);
    NodeCounter counter;
    counter(*field);

    Subject subject{Tree::kName, counter.count, &positions, {}};
    auto const add = [&](char const* name, auto const& f) {
        subject.forms.push_back({name, loopOf(positions, values, f)});
    };
    add("loop", [](float3 const& p, std::size_t) { return p.x + p.y + p.z; });
    add("fused", [fused = typename Tree::Fused(parameters)](float3 const& p, std::size_t) {
        return fused(p);
    });
    add("naive", [naiveTree](float3 const& p, std::size_t) { return naiveTree->eval(p); });
    add("point", [field](float3 const& p, std::size_t i) {
        return field->eval(p, static_cast<long long>(i));
    });
    subject.forms.push_back(
        {"batch", [&positions, field, result = Quern::Ptr<Quern::Array<float>>()](int) mutable {
             result.reset();
             result = field->eval(positions);
             return static_cast<float const*>(result->data());
         }});
    subject.forms.push_back(
        {"view", [field, moved = std::make_shared<Unaligned>(positions)](int threads) {
             return moved->evaluate(*field, threads);
         }});
    subject.forms.push_back(
        {"narrow", [&positions, field, result = Quern::Ptr<Quern::Array<float>>()](int) mutable {
             result.reset();
             Quern::useSimdTarget(Quern::simdTargets().back());
             result = field->eval(positions);
             Quern::useSimdTarget(Quern::simdTargets().front());
             return static_cast<float const*>(result->data());
         }});
    using Both = Core::Fields::ValuesAndGradients<zel::ScalarField>;
    subject.forms.push_back({"both", [&positions, field, result = Both()](int) mutable {
                                 result = {};
                                 result = Core::Fields::evalAndGrad(*field, positions);
                                 return static_cast<float const*>(result.values->data());
                             }});
    return subject;
}

/// Exits with an error unless every form gives the bits of the fused loop.
void checkForms(Subject const& subject, int threads) {
    tbb::global_control const control(tbb::global_control::max_allowed_parallelism,
                                      static_cast<std::size_t>(threads));
    auto const count = static_cast<std::size_t>(subject.positions->size());
    std::vector<float> expected;
    for (Form const& form : subject.forms) {
        if (form.name == "loop") continue;
        float const* const values = form.evaluate(threads);
        if (expected.empty()) expected.assign(values, values + count);
        for (std::size_t i = 0; i < count; ++i) {
            if (std::memcmp(&values[i], &expected[i], sizeof(float)) == 0) continue;
            std::fprintf(stderr, "%s: %a at point %zu, where the fused loop gives %a\n",
                         nameOf(subject, threads, form.name).c_str(),
                         static_cast<double>(values[i]), i, static_cast<double>(expected[i]));
            std::exit(EXIT_FAILURE);
        }
    }
}

void registerForms(Subject const& subject, int threads) {
    Positions const& positions = *subject.positions;
    for (Form const& form : subject.forms) {
        auto const run = [&form, &positions, threads](benchmark::State& state) {
            tbb::global_control const control(tbb::global_control::max_allowed_parallelism,
                                              static_cast<std::size_t>(threads));
            form.evaluate(threads);  // starts the threads
            AllocationCount const allocations;
            for (auto _ : state) {
                benchmark::DoNotOptimize(form.evaluate(threads));
                benchmark::ClobberMemory();
            }
            state.counters["allocations"] = benchmark::Counter(
                static_cast<double>(allocations.blocks()), benchmark::Counter::kAvgIterations);
            reportItems(state, static_cast<std::size_t>(positions.size()));
        };
        auto* const registered =
            benchmark::RegisterBenchmark(nameOf(subject, threads, form.name).c_str(), run)
                ->MeasureProcessCPUTime()
                ->Unit(benchmark::kMillisecond);
        // For one thread processor time is measured, which other programs disturb least.
        if (threads > 1) registered->UseRealTime();
    }
}

/// Measures building many trees, or releasing them, but not both.
template <class Nodes, class Tree> void registerBuilding(Parameters const& parameters, int nodes) {
    constexpr bool kZel = std::is_same_v<Nodes, ZelNodes>;
    double blocks = 0, bytes = 0;
    (void)Tree::template build<Nodes>(parameters);  // the first tree initialises the type names
    {
        AllocationCount const allocations;
        auto const tree = Tree::template build<Nodes>(parameters);
        blocks = static_cast<double>(allocations.blocks()) / nodes;
        bytes = static_cast<double>(allocations.bytes()) / nodes;
    }
    if (kZel && blocks != 1) {
        std::fprintf(stderr, "building: %g allocations a node, where 1 is right\n", blocks);
        std::exit(EXIT_FAILURE);
    }

    for (bool const timeBuild : {true, false}) {
        auto const run = [=, &parameters](benchmark::State& state) {
            std::vector<typename Nodes::Ptr> trees(256);
            auto const build = [&] {
                for (auto& tree : trees) tree = Tree::template build<Nodes>(parameters);
            };
            auto const release = [&] {
                for (auto& tree : trees) tree = nullptr;
            };
            for (auto _ : state) {
                if (timeBuild) {
                    build();
                    state.PauseTiming();
                    release();
                    state.ResumeTiming();
                } else {
                    state.PauseTiming();
                    build();
                    state.ResumeTiming();
                    release();
                }
            }
            state.counters["allocations"] = blocks;
            state.counters["bytes"] = bytes;
            reportItems(state, trees.size() * static_cast<std::size_t>(nodes));
        };
        std::string const name = timeBuild ? "build a node/" : "release a node/";
        benchmark::RegisterBenchmark((name + (kZel ? "zel" : "naive")).c_str(), run)
            ->MeasureProcessCPUTime();
    }
}

/// Measures a tree of vector nodes, which are computed block by block, and the same formula in a
/// loop.
std::string vectorsName(long long size, bool fused) {
    return "vectors/" + std::to_string(size) + (fused ? "/fused" : "/view");
}
void registerVectors(Positions const& positions) {
    auto const values = std::make_shared<std::vector<float3>>(positions.size());
    zel::VectorPtr const tree = VectorTree::build({});
    VectorTree::Parameters parameters;
    benchmark::DoNotOptimize(parameters);
    auto const fused = [=, &positions, f = VectorTree::Fused{parameters}] {
        runLoop([f](float3 const& p, std::size_t) { return f(p); }, positions.data(),
                values->data(), 0, values->size());
    };
    auto const view = [=, &positions] {
        zel::EvaluateOptions options;
        options.parallel = false;
        zel::evaluate(*tree, zel::PointView::of({positions.data(), values->size()}), *values,
                      options);
    };
    fused();
    std::vector<float3> const expected = *values;
    view();
    if (std::memcmp(expected.data(), values->data(), sizeof(float3) * expected.size()) != 0) {
        std::fprintf(stderr, "vectors: the tree and the loop differ\n");
        std::exit(EXIT_FAILURE);
    }
    auto const add = [&](bool isFused, std::function<void()> const& work) {
        benchmark::RegisterBenchmark(vectorsName(positions.size(), isFused).c_str(),
                                     [work, size = values->size()](benchmark::State& state) {
                                         for (auto _ : state) {
                                             work();
                                             benchmark::ClobberMemory();
                                         }
                                         reportItems(state, size);
                                     })
            ->MeasureProcessCPUTime();
    };
    add(true, fused);
    add(false, view);
}

/// Measures a chain of 200 sums with constants, which are all different or all the same. A block
/// reads a column of each.
std::string constantsName(bool different) {
    return different ? "constants/different" : "constants/equal";
}
void registerConstants(Positions const& positions, bool different) {
    constexpr int kNodes = 200;
    zel::ScalarPtr sum = Quern::makePtr<zel::ScalarFieldXPosition>();
    for (int n = 0; n < kNodes; ++n)
        sum = Quern::makePtr<zel::ScalarFieldAdd>(
            sum, Quern::makePtr<zel::ScalarFieldConstant>(different ? static_cast<float>(n) : 1));
    auto const run = [sum, &positions](benchmark::State& state) {
        auto const count = static_cast<std::size_t>(positions.size());
        std::vector<float> values(count);
        zel::EvaluateOptions options;
        options.parallel = false;
        for (auto _ : state) {
            zel::evaluate(*sum, zel::PointView::of({positions.data(), count}), values, options);
            benchmark::ClobberMemory();
        }
        reportItems(state, count * kNodes);
    };
    benchmark::RegisterBenchmark(constantsName(different).c_str(), run)->MeasureProcessCPUTime();
}

void printTable(RatioReporter const& report, std::vector<Subject> const& subjects, int allThreads) {
    for (Subject const& subject : subjects) {
        std::printf("\n%s, %d nodes, %lld points; ns a point\n"
                    "threads  form      median     least  of fused  of naive  busy  of 1 thread\n",
                    subject.name.c_str(), subject.nodes, subject.positions->size());
        for (int threads = 1;; threads = allThreads) {
            double const fused = report[nameOf(subject, threads, "fused")].median;
            double const naive = report[nameOf(subject, threads, "naive")].median;
            for (Form const& form : subject.forms) {
                auto const [median, least, busy] = report[nameOf(subject, threads, form.name)];
                if (median == 0) continue;
                std::printf("%7d  %-6s", threads, form.name.c_str());
                printCell(median, 10, 2);
                printCell(least, 10, 2);
                printCell(ratio(median, fused), 10, 2);
                printCell(ratio(median, naive), 10, 2);
                printCell(busy, 6, 2);
                if (threads > 1)
                    printCell(ratio(median, report[nameOf(subject, 1, form.name)].median), 13, 2);
                std::printf("\n");
            }
            if (threads == allThreads) break;
        }
    }
    std::printf("\nns a node        median     least  of naive\n");
    for (std::string const work : {"build a node", "release a node"}) {
        for (char const* nodes : {"naive", "zel"}) {
            auto const [median, least, busy] = report[work + "/" + nodes];
            if (median == 0) continue;
            std::printf("%-7.7s  %-6s", work.c_str(), nodes);
            printCell(median, 10, 2);
            printCell(least, 10, 2);
            printCell(ratio(median, report[work + "/naive"].median), 10, 2);
            std::printf("\n");
        }
    }
    auto const different = report[constantsName(true)].median,
               equal = report[constantsName(false)].median;
    std::printf("\nvectors, 14 nodes; ns a point\n points     fused      view  of fused\n");
    for (auto subject = subjects.begin(); subject < subjects.end(); subject += 3) {
        long long const size = subject->positions->size();
        double const fused = report[vectorsName(size, true)].median,
                     view = report[vectorsName(size, false)].median;
        std::printf("%7lld", size);
        printCell(fused, 10, 2);
        printCell(view, 10, 2);
        printCell(ratio(view, fused), 10, 2);
        std::printf("\n");
    }
    std::printf("\nns a sum with a constant, in a chain of 200\nall different ");
    printCell(different, 8, 3);
    std::printf("\nall equal     ");
    printCell(equal, 8, 3);
    std::printf(
        "\n\nbusy: processor time by real time. Below the number of threads, others had the "
        "machine.\nInstruction set: %s; fused loops and batches of light nodes: %s.\n",
        Quern::simdTargets().front().name,
        Quern::widestVectors ? "AVX-512"
        : Quern::wideVectors ? "AVX2"
                             : "baseline");
}

}  // namespace

int main(int argc, char** argv) {
    if (!startBenchmarks(argc, argv, 9, "0.03")) return EXIT_FAILURE;

    Parameters parameters;
    benchmark::DoNotOptimize(parameters);
    Positions const all = scanLines();
    Quern::Array<float> values(all.size());
    std::vector<std::unique_ptr<Positions>> sizes;
    std::vector<Subject> subjects;
    for (long long const size : {1000LL, 10'000LL, 100'000LL, 1'000'000LL, all.size()}) {
        // Scan lines of the middle, where the shapes are.
        auto const first = all.begin() + (all.size() - size) / 2;
        sizes.push_back(std::make_unique<Positions>(size));
        std::copy_n(first, size, sizes.back()->begin());
        subjects.push_back(makeSubject<CsgTree<false>>(parameters, *sizes.back(), values));
        subjects.push_back(makeSubject<CsgTree<true>>(parameters, *sizes.back(), values));
        subjects.push_back(makeSubject<ArithmeticTree>(parameters, *sizes.back(), values));
    }

    int const allThreads = tbb::info::default_concurrency();
    for (Subject const& subject : subjects) {
        for (int threads = 1;; threads = allThreads) {
            checkForms(subject, threads);
            registerForms(subject, threads);
            if (threads == allThreads) break;
        }
    }
    for (auto const& positions : sizes) registerVectors(*positions);
    for (bool const different : {false, true}) registerConstants(*sizes[1], different);
    registerBuilding<ZelNodes, CsgTree<false>>(parameters, subjects.front().nodes);
    registerBuilding<NaiveNodes, CsgTree<false>>(parameters, subjects.front().nodes);

    return runBenchmarks(
        [&](RatioReporter const& report) { printTable(report, subjects, allThreads); });
}
