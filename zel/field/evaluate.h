#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <stop_token>

#include "zel/api.h"
#include "zel/field/scalar_field.h"
#include "zel/field/stopped.h"
#include "zel/field/vector_field.h"
#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"

// Batches over arrays of the caller: positions as they lie in memory, results where they are
// wanted.
namespace zel {

/// Positions in memory of the caller, which must stay unchanged while they are evaluated.
struct PointView {
    float const *x = nullptr, *y = nullptr,
                *z = nullptr;  ///< the coordinates of the first position
    /// The floats from one position to the next, in each of the three: 1 for three arrays, 3 for
    /// an array of float3. May be 0 or negative.
    std::ptrdiff_t stride = 1;
    std::size_t count = 0;

    static PointView of(std::span<Orvane::Math::float3 const> points) {
        if (points.empty()) return {};
        Orvane::Math::float3 const& first = points.front();
        return {&first.x, &first.y, &first.z, 3, points.size()};
    }
    /// Throws std::invalid_argument if the arrays differ in length.
    ZEL_API static PointView of(std::span<float const> x, std::span<float const> y,
                                std::span<float const> z);
};

struct EvaluateOptions {
    /// The element index of the first position. Those of the others follow it, and begin again with
    /// the least number after the greatest.
    long long firstIndex = 0;
    /// Whether other threads may take a part of the positions.
    bool parallel = true;
    /// Ends the evaluation when a stop is requested, within the time that 256 positions take on one
    /// thread.
    std::stop_token stop;
    /// Is told how many of all positions are done: every 20 ms at most, by one thread at a time but
    /// not always the same, and at the end with `done == all`, by the calling thread. It may throw.
    std::function<void(std::size_t done, std::size_t all)> progress;
};

/// Writes the values, the gradients, or both, of a field at all positions: the bits of the batch
/// `eval` of the interface, and of Core::Fields::grad. An empty span is a result that is not
/// wanted. The arrays of results must overlap neither each other nor the positions. They need no
/// more alignment than a float has.
///
/// Hooks, exceptions, rounding and cancelled tasks are as in the batch `eval`. Any number of
/// threads may evaluate one field. A batch that is over within the time that it takes to wake other
/// threads stays on the calling one. A thread that has evaluated a field just before allocates
/// nothing, as long as no other thread takes a part. A node below the field must not be destroyed
/// and constructed anew in place.
///
/// Throws std::invalid_argument before anything else is done if the length of a result that is not
/// empty is not the number of positions, or if an array of coordinates is null. Throws Stopped if a
/// stop is requested before all positions are done. After Stopped, or an exception of `progress`,
/// each element of the results is either as before or has its value. After an exception of a node,
/// elements of the block of 256 positions in which it was thrown are unspecified. In each of these
/// cases `postSampleField` is not called.
ZEL_API void evaluate(Core::Fields::ScalarField const& field, PointView const& points,
                      std::span<float> values);
ZEL_API void evaluate(Core::Fields::ScalarField const& field, PointView const& points,
                      std::span<float> values, EvaluateOptions const& options);
ZEL_API void evaluate(Core::Fields::ScalarField const& field, PointView const& points,
                      std::span<float> values, std::span<Orvane::Math::float3> gradients,
                      EvaluateOptions const& options = {});
ZEL_API void evaluate(Core::Fields::VectorField const& field, PointView const& points,
                      std::span<Orvane::Math::float3> values);
ZEL_API void evaluate(Core::Fields::VectorField const& field, PointView const& points,
                      std::span<Orvane::Math::float3> values, EvaluateOptions const& options);
ZEL_API void evaluate(Core::Fields::VectorField const& field, PointView const& points,
                      std::span<Orvane::Math::float3> values,
                      std::span<Orvane::Math::float3x3> gradients,
                      EvaluateOptions const& options = {});

}  // namespace zel
