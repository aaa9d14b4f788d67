#include <chrono>
#include <cstddef>

#include "zel/field/evaluate.h"
#include "zel_scene/json.h"

// Evaluates a scene as a program in C++ would, for python_benchmark.py, which loads this library.

namespace {

using Orvane::Math::float3;

zel::ScalarPtr& scene() {
    static zel::ScalarPtr tree;
    return tree;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void setScene(char const* json) {
    scene() = zel::scalarFromJson(json);
}

/// The seconds that a call takes, on average over some calls.
__attribute__((visibility("default"))) double secondsOfCall(float const* xyz, std::size_t count,
                                                            float* values, int calls) {
    std::span<float3 const> const points(reinterpret_cast<float3 const*>(xyz), count);
    auto const start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i)
        zel::evaluate(*scene(), zel::PointView::of(points), std::span<float>(values, count));
    std::chrono::duration<double> const taken = std::chrono::steady_clock::now() - start;
    return taken.count() / calls;
}

}  // extern "C"
