#pragma once

#include <zel/zel.h>

namespace examples {

/// Evaluates fields, and counts the points and the time that they take.
class Meter {
public:
    struct Tally {
        long long points = 0;
        double nanoseconds = 0;
    };

    /// The batch `eval` of a field.
    template <class Field> auto values(Field const& field, Quern::Array<zel::float3> const& at) {
        double const start = now();
        auto result = field.eval(at);
        add(valueTally, at.size(), start);
        return result;
    }

    /// The point `grad` at all positions, in parallel.
    Quern::Array<zel::float3> gradients(zel::ScalarField const& field,
                                        Quern::Array<zel::float3> const& at);

    Tally const& valuesDone() const { return valueTally; }
    Tally const& gradientsDone() const { return gradientTally; }

private:
    static double now();  // nanoseconds of a steady clock
    static void add(Tally& tally, long long points, double start);

    Tally valueTally, gradientTally;
};

}  // namespace examples
