#include "drawing/meter.h"

#include <chrono>

namespace drawing {

Quern::Array<zel::float3> Meter::gradients(zel::ScalarField const& field,
                                           Quern::Array<zel::float3> const& at) {
    Quern::Array<zel::float3> result(at.size());
    double const start = now();
    evaluate(field, viewOf(at), {}, std::span<zel::float3>(result), options);
    add(gradientTally, at.size(), start);
    return result;
}

double Meter::now() {
    auto const time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::nano>(time).count();
}

void Meter::add(Tally& tally, long long points, double start) {
    tally.points += points;
    tally.nanoseconds += now() - start;
}

}  // namespace drawing
