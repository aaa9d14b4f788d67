#include "zel/field/evaluate.h"

#include <optional>
#include <string>

#include "zel/batch/run_batch.h"
#include "zel/batch/watch.h"

namespace zel {

namespace {

using Core::Fields::ScalarField;
using Core::Fields::VectorField;
using Orvane::Math::float3;
using Orvane::Math::float3x3;

[[noreturn, gnu::cold]] void refuse(char const* what, std::size_t length, std::size_t count) {
    throw std::invalid_argument("zel::evaluate: " + std::to_string(length) + ' ' + what + " for " +
                                std::to_string(count) + " positions");
}

bool isWatched(EvaluateOptions const& options) {
    return options.progress || options.stop.stop_possible();
}

template <class Interface>
[[gnu::noinline]] void evaluateAt(Interface const& field, PointView const& points,
                                  std::span<typename Interface::Value> values,
                                  std::span<typename Interface::Gradient> gradients,
                                  EvaluateOptions const& options) {
    if (!values.empty() && values.size() != points.count)
        refuse("values", values.size(), points.count);
    if (!gradients.empty() && gradients.size() != points.count)
        refuse("gradients", gradients.size(), points.count);
    if (points.count > 0 && (!points.x || !points.y || !points.z))
        refuse("coordinates (a null pointer)", 0, points.count);

    detail::Batch<Interface> batch;
    batch.points = points;
    batch.values = values.empty() ? nullptr : values.data();
    batch.gradients = gradients.empty() ? nullptr : gradients.data();
    batch.firstIndex = options.firstIndex;
    batch.parallel = options.parallel;
    batch.ownedByCaller = true;
    std::optional<detail::Watch> watch;
    if (isWatched(options)) batch.watch = &watch.emplace(options, points.count);
    bool const isWanted = batch.values || batch.gradients;
    if (isWanted && (!watch || watch->goesOn()) &&
        detail::callPoints(field, points, batch.values, batch.gradients, options.firstIndex)) {
        if (watch) watch->finishAll();
        return;
    }
    detail::runBatch(field, batch);
}

/// The same with default options.
template <class Interface>
[[gnu::noinline]] void evaluateAt(Interface const& field, PointView const& points,
                                  std::span<typename Interface::Value> values) {
    evaluateAt(field, points, values, {}, {});
}

/// Writes the results at a few positions, or returns false: see detail::callPoints(). The functions
/// below call it first and little else, since that takes a part of the time of a point call.
template <class Interface>
ZEL_ALWAYS_INLINE inline bool evaluateFew(Interface const& field, PointView const& points,
                                          std::span<typename Interface::Value> values,
                                          long long firstIndex = 0) {
    return values.size() == points.count && points.x && points.y && points.z &&
           detail::callPoints(field, points, values.data(), nullptr, firstIndex);
}

}  // namespace

PointView PointView::of(std::span<float const> x, std::span<float const> y,
                        std::span<float const> z) {
    if (x.size() != y.size() || x.size() != z.size())
        throw std::invalid_argument("zel::PointView::of: arrays of " + std::to_string(x.size()) +
                                    ", " + std::to_string(y.size()) + " and " +
                                    std::to_string(z.size()) + " coordinates");
    return {x.data(), y.data(), z.data(), 1, x.size()};
}

Stopped::Stopped() : std::runtime_error("zel: stopped by request") {}
Stopped::Stopped(Stopped const&) = default;
Stopped::~Stopped() = default;

void evaluate(ScalarField const& field, PointView const& points, std::span<float> values) {
    if (!evaluateFew(field, points, values)) evaluateAt(field, points, values);
}

void evaluate(ScalarField const& field, PointView const& points, std::span<float> values,
              EvaluateOptions const& options) {
    if (isWatched(options) || !evaluateFew(field, points, values, options.firstIndex))
        evaluateAt(field, points, values, {}, options);
}

void evaluate(ScalarField const& field, PointView const& points, std::span<float> values,
              std::span<float3> gradients, EvaluateOptions const& options) {
    evaluateAt(field, points, values, gradients, options);
}

void evaluate(VectorField const& field, PointView const& points, std::span<float3> values) {
    if (!evaluateFew(field, points, values)) evaluateAt(field, points, values);
}

void evaluate(VectorField const& field, PointView const& points, std::span<float3> values,
              EvaluateOptions const& options) {
    if (isWatched(options) || !evaluateFew(field, points, values, options.firstIndex))
        evaluateAt(field, points, values, {}, options);
}

void evaluate(VectorField const& field, PointView const& points, std::span<float3> values,
              std::span<float3x3> gradients, EvaluateOptions const& options) {
    evaluateAt(field, points, values, gradients, options);
}

}  // namespace zel
