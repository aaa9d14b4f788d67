#include <tbb/task_arena.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>

#include <zel/field/evaluate.h>

#include "commands.h"
#include "scene.h"
#include "session.h"

namespace command {

namespace {

using Orvane::Math::float3;
using Orvane::Math::float3x3;

std::vector<float3> randomPoints(BenchOptions const& options) {
    std::vector<float3> points(options.points);
    std::mt19937 generator(1);
    for (float3& point : points)
        for (std::size_t axis = 0; axis < 3; ++axis) {
            double const t = static_cast<double>(generator()) * 0x1p-32;
            point[static_cast<int>(axis)] =
                static_cast<float>(std::lerp(options.box[axis], options.box[axis + 3], t));
        }
    return points;
}

/// The least time of several calls, in seconds.
template <class Call> double leastTime(double seconds, Call const& call) {
    using Clock = std::chrono::steady_clock;
    double least = INFINITY;
    double sum = 0;
    for (int count = 0; count < 3 || sum < seconds; ++count) {
        auto const start = Clock::now();
        call();
        double const time = std::chrono::duration<double>(Clock::now() - start).count();
        least = std::min(least, time);
        sum += time;
    }
    return least;
}

std::string line(char const* what, bool isParallel, std::size_t points, double seconds) {
    int const threads = isParallel ? tbb::this_task_arena::max_concurrency() : 1;
    double const count = static_cast<double>(points);
    char text[160];
    std::snprintf(text, sizeof text, "%-22s %3d thread%s %10.2f ns a point, %s points/s\n", what,
                  threads, threads == 1 ? " " : "s", seconds * 1e9 / count,
                  shortNumber(count / seconds).c_str());
    return text;
}

template <class Value, class Gradient, class Interface>
std::string measure(Interface const& field, BenchOptions const& options,
                    std::stop_token const& stop) {
    std::vector<float3> const points = randomPoints(options);
    auto const view = zel::PointView::of(points);
    std::vector<Value> values(points.size());
    std::vector<Gradient> gradients(points.size());
    std::string text;
    for (bool const isParallel : {false, true}) {
        zel::EvaluateOptions how;
        how.parallel = isParallel;
        how.stop = stop;
        text += line("values", isParallel, points.size(),
                     leastTime(options.seconds, [&] { evaluate(field, view, values, how); }));
        text += line(
            "values and gradients", isParallel, points.size(),
            leastTime(options.seconds, [&] { evaluate(field, view, values, gradients, how); }));
    }
    return text;
}

}  // namespace

void bench(BenchOptions const& options, std::stop_token const& stop) {
    checkCorners(options.box);
    zel::Tree const tree = Scene(options.scene).complete();
    std::string text;
    if (auto const* const scalar = std::get_if<zel::ScalarPtr>(&tree))
        text = measure<float, float3>(**scalar, options, stop);
    else
        text = measure<float3, float3x3>(*std::get<zel::VectorPtr>(tree), options, stop);
    print(text);
}

}  // namespace command
