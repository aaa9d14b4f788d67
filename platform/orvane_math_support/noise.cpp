#include "zel_platform/orvane_math_support/noise.h"

#include "zel_platform/orvane_math_support/scalar_arithmetic.h"
#include "zel_platform/orvane_math_support/simplex_time.h"

#include <limits>
#include <type_traits>

namespace Orvane::Math {
namespace {

using namespace Simplex;

/// The value of noise at a point outside the lattice: NaN if a coordinate is not finite, else 0.
/// `zeros` holds each coordinate minus itself, which is NaN for one that is not finite.
template <class Real> Real outside(Double4 const& zeros) {
    return ScalarCells::sum(zeros) == 0 ? Real{0} : std::numeric_limits<Real>::quiet_NaN();
}

Float4 gather(float4 const& p) {
    return Float4{p.x, p.y, p.z, p.w};
}
Double4 gather(double4 const& p) {
    return {Double2{p.x, p.y}, Double2{p.z, p.w}};
}
template <class Point> Double4 widen(Point const& p) {
    return {Double2{static_cast<double>(p.x), static_cast<double>(p.y)},
            Double2{static_cast<double>(p.z), static_cast<double>(p.w)}};
}

template <class Real, class Point> Real value(Point const& point, std::int64_t seed) {
    using Arith = ScalarArithmetic<Real>;
    Double4 const p = widen(point);
    if (!inLattice<Arith>(gather(point))) return outside<Real>(p - p);
    return atPlace<Arith>(skew<Arith>(p), NoOrigin{}, [&](auto const& d, auto const& cell) {
        return simplexValue<Arith>(d, hashCell<Arith>(cell, makeKeys(seed)));
    });
}

template <class Real, class Point>
Real valueAndDerivative(Point const& point, std::int64_t seed, Point& derivative) {
    using Arith = ScalarArithmetic<Real>;
    Double4 const p = widen(point);
    if (!inLattice<Arith>(gather(point))) {
        Real const none = outside<Real>(p - p);
        derivative = {none, none, none, none};
        return none;
    }
    typename Arith::Real4 d;
    Real const v =
        atPlace<Arith>(skew<Arith>(p), NoOrigin{}, [&](auto const& place, auto const& cell) {
            return simplexDerivative<Arith>(place, hashCell<Arith>(cell, makeKeys(seed)), d);
        });
    derivative = {d[0], d[1], d[2], d[3]};
    return v;
}

// The functions for curl noise below take a NoJacobian, or a float3x3 that they set.

using Arith = ScalarArithmetic<float>;

TimePlace placeTime(float time) {
    auto const t = static_cast<double>(time);
    Double4 const lattice = skewTime<Arith>(t);
    if (timeInLattice<Arith>(lattice))
        return Simplex::placeTime<Arith>(lattice,
                                         [](auto... members) { return TimePlace{members...}; });
    double const none = t - t + kLatticeLimit;  // NaN if the time is not finite
    return {none, none, 0, 0};
}

template <class Jacobian> float3 noCurl(Double4 const& zeros, Jacobian& jacobian) {
    auto const none = outside<float>(zeros);
    float3 const all = {none, none, none};
    if constexpr (std::is_same_v<Jacobian, float3x3>) jacobian = {{all, all, all}};
    return all;
}

template <int power, class Origin, class Jacobian>
float3 curlAt(Double4 const& lattice, Origin const& origin, std::uint32_t seed,
              Jacobian& jacobian) {
    auto const vector = [](Vec3<float> const& v) { return float3{v.x, v.y, v.z}; };
    return atPlace<Arith>(lattice, origin, [&](auto const& d, auto const& cell) {
        auto const hash = hashCell<Arith>(cell, makeKeys(seed));
        if constexpr (std::is_same_v<Jacobian, float3x3>) {
            Vec3<Vec3<float>> rows;
            auto const v = curl<Arith, power>(d, hash, rows);
            jacobian = {{vector(rows.x), vector(rows.y), vector(rows.z)}};
            return vector(v);
        } else {
            return vector(curl<Arith, power>(d, hash, jacobian));
        }
    });
}

template <class Jacobian>
float3 plainCurl(float3 const& position, float time, std::uint32_t seed, Jacobian& jacobian) {
    float4 const point = {position.x, position.y, position.z, time};
    Double4 const p = widen(point);
    if (!inLattice<Arith>(gather(point))) return noCurl(p - p, jacobian);
    return curlAt<3>(skew<Arith>(p), NoOrigin{}, seed, jacobian);
}

template <class Jacobian>
float3 smoothCurl(float3 const& position, TimePlace const& time, std::uint32_t seed,
                  Jacobian& jacobian) {
    float4 const point = {position.x, position.y, position.z, 0};
    Double4 const p = widen(point), lattice = Arith::spread(time.latticeXyz, time.latticeW);
    if (!inLattice<Arith>(gather(point)) || !timeInLattice<Arith>(lattice))
        return noCurl((p - p) + (lattice - lattice), jacobian);
    return curlAt<4>(skew<Arith>(p) + lattice, Arith::spread(time.cellXyz, time.cellW), seed,
                     jacobian);
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
    NoJacobian none;
    return plainCurl(position, time, seed, none);
}

float3 curl_noise_derivative(float3 const& position, float time, std::uint32_t seed,
                             float3x3& jacobian) {
    return plainCurl(position, time, seed, jacobian);
}

float3 smooth_curl_noise(float3 const& position, float time, std::uint32_t seed) {
    NoJacobian none;
    return smoothCurl(position, placeTime(time), seed, none);
}

float3 smooth_curl_noise_derivative(float3 const& position, float time, std::uint32_t seed,
                                    float3x3& jacobian) {
    return smoothCurl(position, placeTime(time), seed, jacobian);
}

void create_curl_noise_time_table(float time, float* table) {
    writeTimeTable(placeTime(time), table);
}

float3 smooth_curl_noise(float3 const& position, float const* table, std::uint32_t seed) {
    NoJacobian none;
    return smoothCurl(position, readTimeTable(table), seed, none);
}

}  // namespace Orvane::Math
