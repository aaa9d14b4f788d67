#include "gallery/meter.h"

#include <tbb/parallel_for.h>

#include <chrono>

namespace examples {

Quern::Array<zel::float3> Meter::gradients(zel::ScalarField const& field,
                                           Quern::Array<zel::float3> const& at) {
    Quern::Array<zel::float3> result(at.size());
    double const start = now();
    field.preSampleField();
    tbb::parallel_for(0LL, at.size(), [&](long long i) { result[i] = field.grad(at[i], i); });
    field.postSampleField();
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

}  // namespace examples
