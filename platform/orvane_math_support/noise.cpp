#include "orvane_math_support/noise.h"

#include "orvane_math_support/simplex_kernel.h"
#include "orvane_math_support/simplex_time.h"

#include <cmath>

namespace Orvane::Math {
namespace {

using namespace Simplex;

bool inLattice(Double4 const& lattice) {
    return ScalarCells::size(lattice) < kLatticeLimit;
}

/// What noise is for a point outside the lattice: NaN if a coordinate is not finite, else 0.
template <class Real> Real outside(Double4 const& p) {
    return static_cast<Real>(ScalarCells::sum(p - p));
}

template <class Point> Double4 widen(Point const& p) {
    return {Double2{static_cast<double>(p.x), static_cast<double>(p.y)},
            Double2{static_cast<double>(p.z), static_cast<double>(p.w)}};
}

template <class Real, class Point> Real value(Point const& point, std::int64_t seed) {
    using L = ScalarLane<Real>;
    Double4 const p = widen(point), lattice = skew<L>(p);
    if (!inLattice(lattice)) return outside<Real>(p);
    return simplexValue<L>(p, lattice, makeKeys(static_cast<std::uint64_t>(seed)));
}

template <class Real, class Point>
Real valueAndDerivative(Point const& point, std::int64_t seed, Point& derivative) {
    using L = ScalarLane<Real>;
    Double4 const p = widen(point), lattice = skew<L>(p);
    if (!inLattice(lattice)) {
        Real const none = outside<Real>(p);
        derivative = {none, none, none, none};
        return none;
    }
    typename L::Real4 d;
    Real const v = simplexDerivative<L>(p, lattice, makeKeys(static_cast<std::uint64_t>(seed)), d);
    derivative = {d[0], d[1], d[2], d[3]};
    return v;
}

template <int power>
float3 curlAt(Double4 const& p, Double4 const& lattice, Long4 const& origin, std::uint32_t seed) {
    if (!inLattice(lattice)) {
        // The time may show in the lattice coordinates alone.
        auto const none = outside<float>(p + (lattice - lattice));
        return {none, none, none};
    }
    auto const v = curl<ScalarLane<float>, power>(p, lattice, origin, makeKeys(seed));
    return {v.x, v.y, v.z};
}

float3 smoothCurlAt(float3 const& position, TimePlace const& time, std::uint32_t seed) {
    Double4 const p = widen(float4{position.x, position.y, position.z, 0});
    Double4 const lattice = skew<ScalarLane<float>>(p);
    return curlAt<4>(
        p + Double4{Double2{time.offsetXyz, time.offsetXyz}, Double2{time.offsetXyz, time.offsetW}},
        lattice + Double4{Double2{time.latticeXyz, time.latticeXyz},
                          Double2{time.latticeXyz, time.latticeW}},
        {Long2{time.cellXyz, time.cellXyz}, Long2{time.cellXyz, time.cellW}}, seed);
}

}  // namespace

float simplex_noise(float4 const& point, std::int64_t seed) {
    return value<float>(point, seed);
}

double simplex_noise(double4 const& point, std::int64_t seed) {
    return value<double>(point, seed);
}

float simplex_noise(float4 const& point, std::int64_t seed, float4& derivative) {
    return valueAndDerivative<float>(point, seed, derivative);
}

double simplex_noise(double4 const& point, std::int64_t seed, double4& derivative) {
    return valueAndDerivative<double>(point, seed, derivative);
}

float3 curl_noise(float3 const& position, float time, std::uint32_t seed) {
    Double4 const p = widen(float4{position.x, position.y, position.z, time});
    return curlAt<3>(p, skew<ScalarLane<float>>(p), Long4{}, seed);
}

float3 smooth_curl_noise(float3 const& position, float time, std::uint32_t seed) {
    return smoothCurlAt(position, placeTime(time), seed);
}

void create_curl_noise_time_table(float time, float* table) {
    writeTimeTable(placeTime(time), table);
}

float3 smooth_curl_noise(float3 const& position, float const* table, std::uint32_t seed) {
    return smoothCurlAt(position, readTimeTable(table), seed);
}

}  // namespace Orvane::Math
