// Measures how the time of an evaluation depends on the number of positions, for a tree of 21
// nodes: `evaluate` with its result in an existing array, the batch `eval`, point calls, and the
// formula by hand in one loop. For each count the forms take turns, and the least time of each is
// taken, since others may use the machine. Prints nanoseconds a position on one thread, and ratios.
//
//   evaluate_benchmark [TURNS]
//
//   columns   as `evaluate`, from three arrays
//   threads   as `evaluate`, with as many threads as the machine has
//   pool      as `eval`, with ArrayPool enabled

#include <tbb/global_control.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "positions.h"
#include "trees.h"
#include "zel_platform/orvane_geometry_volume/array_pool.h"
#include "zel_platform/quern_core/position_loop.h"

namespace {

using Orvane::Math::float3;

template <class F>
ZEL_WIDE_TARGET __attribute__((flatten, noinline)) void wideLoop(F f, float3 const* in, float* out,
                                                                 std::size_t count) {
    for (std::size_t i = 0; i != count; ++i) out[i] = f(in[i]);
}

struct Form {
    char const* name;
    std::function<void()> run;
    double least = std::numeric_limits<double>::infinity();  ///< nanoseconds a run
};

double timeOf(Form const& form, int runs) {
    auto const start = std::chrono::steady_clock::now();
    for (int i = 0; i < runs; ++i) form.run();
    std::chrono::duration<double, std::nano> const taken = std::chrono::steady_clock::now() - start;
    return taken.count() / runs;
}

/// Fills `forms` with the times of a count, in turns.
void measure(std::vector<Form>& forms, std::size_t count, int turns) {
    int const runs = std::max(1, static_cast<int>(20000 / count));
    for (int turn = 0; turn <= turns; ++turn)
        for (Form& form : forms) {
            double const time = timeOf(form, runs);
            if (turn > 0) form.least = std::min(form.least, time);
        }
}

}  // namespace

int main(int argc, char** argv) {
    int const turns = argc > 1 ? std::atoi(argv[1]) : 40;
    Parameters const parameters;
    zel::ScalarPtr const field = CsgTree<false>::build<ZelNodes>(parameters);
    CsgTree<false>::Fused const fused(parameters);
    Quern::Array<float3> const all = scanLines();
    std::vector<float> out(static_cast<std::size_t>(all.size())), x, y, z;
    for (float3 const& p : all) {
        x.push_back(p.x);
        y.push_back(p.y);
        z.push_back(p.z);
    }
    zel::EvaluateOptions serial;
    serial.parallel = false;
    namespace ArrayPool = ORV::TileTree3D::ArrayPool;

    std::printf("   count");
    for (char const* const name :
         {"points", "loop", "evaluate", "columns", "eval", "pool", "threads"})
        std::printf("%10s", name);
    std::printf("  of points: evaluate   eval  of loop: evaluate   eval   pool\n");
    constexpr std::size_t kCounts[] = {1,   2,    4,    6,      8,       16,       64,
                                       256, 1000, 1024, 10'000, 100'000, 1'000'000};
    for (std::size_t const count : kCounts) {
        std::span<float3 const> const points(all.data(), count);
        std::span const values(out.data(), count);
        Quern::Array<float3> positions;
        for (float3 const& p : points) positions.push_back(p);
        auto const column = [&](std::vector<float> const& floats) {
            return std::span(floats).first(count);
        };
        std::vector<Form> forms{
            {"points",
             [&] {
                 for (std::size_t i = 0; i < count; ++i)
                     values[i] = field->eval(points[i], static_cast<long long>(i));
             }},
            {"loop", [&] { wideLoop(fused, points.data(), values.data(), count); }},
            {"evaluate",
             [&] { zel::evaluate(*field, zel::PointView::of(points), values, serial); }},
            {"columns",
             [&] {
                 zel::evaluate(*field, zel::PointView::of(column(x), column(y), column(z)), values,
                               serial);
             }},
            {"eval", [&] { field->eval(positions); }},
        };
        std::vector<Form> pooled{{"pool", forms.back().run}};
        std::vector<Form> threaded{
            {"threads", [&] { zel::evaluate(*field, zel::PointView::of(points), values); }}};
        {
            tbb::global_control const one(tbb::global_control::max_allowed_parallelism, 1);
            measure(forms, count, turns);
            ArrayPool::setEnabled(true);
            measure(pooled, count, turns);
            ArrayPool::setEnabled(false);
        }
        measure(threaded, count, turns);
        forms.push_back(pooled.front());
        forms.push_back(threaded.front());
        auto const of = [&](std::size_t form, std::size_t base) {
            return forms[form].least / forms[base].least;
        };
        std::printf("%8zu", count);
        for (Form const& form : forms)
            std::printf("%10.2f", form.least / static_cast<double>(count));
        std::printf("%21.2f %6.2f %18.2f %6.2f %6.2f\n", of(2, 0), of(4, 0), of(2, 1), of(4, 1),
                    of(5, 1));
    }
    return EXIT_SUCCESS;
}
