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
        auto const order = Arith::order(d);
        auto const hash = hashCell<Arith>(cell, makeKeys(seed));
        return simplexValue<Arith>(d, CellVertices<Arith>{order, hash});
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
            auto const order = Arith::order(place);
            auto const hash = hashCell<Arith>(cell, makeKeys(seed));
            return simplexDerivative<Arith>(place, CellVertices<Arith>{order, hash}, d);
        });
    derivative = {d[0], d[1], d[2], d[3]};
    return v;
}

// The functions for curl noise below take a NoDerivative, or a Derivative whose members they set.

struct Derivative {
    float3x3& jacobian;
    float3& alongTime;
};

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

template <class D> float3 noCurl(Double4 const& zeros, D const& derivative) {
    auto const none = outside<float>(zeros);
    float3 const all = {none, none, none};
    if constexpr (std::is_same_v<D, Derivative>) {
        derivative.jacobian = {{all, all, all}};
        derivative.alongTime = all;
    }
    return all;
}

template <int power, class Origin, class D>
float3 curlAt(Double4 const& lattice, Origin const& origin, std::uint32_t seed, D& derivative) {
    auto const vector = [](Vec3<float> const& v) { return float3{v.x, v.y, v.z}; };
    return atPlace<Arith>(lattice, origin, [&](auto const& d, auto const& cell) {
        auto const order = Arith::order(d);
        auto const hash = hashCell<Arith>(cell, makeKeys(seed));
        CellVertices<Arith> const vertices{order, hash};
        if constexpr (std::is_same_v<D, Derivative>) {
            CurlDerivative<float> parts;
            auto const v = curl<Arith, power>(d, vertices, parts);
            auto const& [x, y, z] = parts.rows;
            derivative.jacobian = {{vector(x), vector(y), vector(z)}};
            derivative.alongTime = vector(parts.alongTime);
            return vector(v);
        } else {
            return vector(curl<Arith, power>(d, vertices, derivative));
        }
    });
}

template <class D>
float3 plainCurl(float3 const& position, float time, std::uint32_t seed, D&& derivative) {
    float4 const point = {position.x, position.y, position.z, time};
    Double4 const p = widen(point);
    if (!inLattice<Arith>(gather(point))) return noCurl(p - p, derivative);
    return curlAt<3>(skew<Arith>(p), NoOrigin{}, seed, derivative);
}

template <class D>
float3 smoothCurl(float3 const& position, TimePlace const& time, std::uint32_t seed,
                  D&& derivative) {
    float4 const point = {position.x, position.y, position.z, 0};
    Double4 const p = widen(point), lattice = Arith::spread(time.latticeXyz, time.latticeW);
    if (!inLattice<Arith>(gather(point)) || !timeInLattice<Arith>(lattice))
        return noCurl((p - p) + (lattice - lattice), derivative);
    return curlAt<4>(skew<Arith>(p) + lattice, Arith::spread(time.cellXyz, time.cellW), seed,
                     derivative);
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
    return plainCurl(position, time, seed, NoDerivative());
}

float3 curl_noise_derivative(float3 const& position, float time, std::uint32_t seed,
                             float3x3& jacobian, float3& alongTime) {
    return plainCurl(position, time, seed, Derivative{jacobian, alongTime});
}

float3 smooth_curl_noise(float3 const& position, float time, std::uint32_t seed) {
    return smoothCurl(position, placeTime(time), seed, NoDerivative());
}

float3 smooth_curl_noise_derivative(float3 const& position, float time, std::uint32_t seed,
                                    float3x3& jacobian, float3& alongTime) {
    return smoothCurl(position, placeTime(time), seed, Derivative{jacobian, alongTime});
}

void create_curl_noise_time_table(float time, float* table) {
    writeTimeTable(placeTime(time), table);
}

float3 smooth_curl_noise(float3 const& position, float const* table, std::uint32_t seed) {
    return smoothCurl(position, readTimeTable(table), seed, NoDerivative());
}

}  // namespace Orvane::Math
