#pragma once

#include <span>
#include <stop_token>
#include <utility>

#include <zel/zel.h>

namespace drawing {

/// Evaluates fields, and counts the points and the time that they take.
class Meter {
public:
    struct Tally {
        long long points = 0;
        double nanoseconds = 0;
    };

    /// Evaluations throw zel::Stopped when a stop is requested.
    explicit Meter(std::stop_token stop = {}) { options.stop = std::move(stop); }

    /// The values at all positions.
    template <class Field> auto values(Field const& field, Quern::Array<zel::float3> const& at) {
        using Value = decltype(field.eval(zel::float3(), 0LL));
        double const start = now();
        auto result = Quern::makePtr<Quern::Array<Value>>(at.size());
        evaluate(field, viewOf(at), std::span<Value>(*result), options);
        add(valueTally, at.size(), start);
        return result;
    }

    /// The gradients at all positions.
    Quern::Array<zel::float3> gradients(zel::ScalarField const& field,
                                        Quern::Array<zel::float3> const& at);

    Tally const& valuesDone() const { return valueTally; }
    Tally const& gradientsDone() const { return gradientTally; }

private:
    static zel::PointView viewOf(Quern::Array<zel::float3> const& at) {
        return zel::PointView::of(std::span<zel::float3 const>(at));
    }
    static double now();  // nanoseconds of a steady clock
    static void add(Tally& tally, long long points, double start);

    zel::EvaluateOptions options;
    Tally valueTally, gradientTally;
};

}  // namespace drawing
