#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

#include "zel/sampler/common/float4.h"
#include "zel_platform/orvane_math/vectors.h"

// The arithmetic of the cubic sampler: the one-dimensional interpolants, uniform and not. Each
// formula stands once, for a float and for four floats in a register, with the same operations.
namespace ORV::TileTree3D {

/// The interpolant through four points 0, 1, 2, 3, for a sample between 1 and 2.
enum CubicType : std::int32_t {
    kQuadraticC0Averaged = 0,  ///< the mean of the parabolas through 0, 1, 2 and 1, 2, 3
    kCubicC0 = 1,              ///< the cubic through all four points
    kCubicC1 = 2,              ///< Hermite, with central differences as slopes
    /// The same without slopes against the rise from 1 to 2. It is monotone there if neither slope
    /// is more than three times the rise; a steeper one is kept, and may overshoot.
    kCubicC1Monotonic = 3
};

namespace Internal {

using Orvane::Math::float3;

/// The form of a value in a register, for the kernels.
template <class T> struct RegisterTraits;
template <> struct RegisterTraits<float> {
    using Register = float;
    static constexpr int kComponents = 1;
    static float from(float v) { return v; }
    static float to(float v) { return v; }
};
template <> struct RegisterTraits<float3> {
    using Register = Float4;  // x, y, z, and an unused fourth
    static constexpr int kComponents = 3;
    static Float4 from(float3 const& v) { return float4Of(v); }
    static float3 to(Float4 v) { return float3Of(v); }
};
template <class T> using RegisterOf = typename RegisterTraits<T>::Register;

inline bool isNaN(float v) {
    return std::isnan(v);
}
inline bool isNaN(float3 const& v) {
    return isNaN(v.x) || isNaN(v.y) || isNaN(v.z);
}

template <class V> V larger(V a, V b) {
    return a < b ? b : a;
}
template <class V> V smaller(V a, V b) {
    return b < a ? b : a;
}
inline Float4 smaller(Float4 a, Float4 b) {
    return lower(b, a);
}
inline Float4 larger(Float4 a, Float4 b) {
#ifdef __SSE__
    return _mm_max_ps(b, a);
#else
    return a < b ? b : a;
#endif
}
template <class V> V limited(V v, V low, V high) {
    v = v > high ? high : v;
    return v < low ? low : v;
}

/// Limits the slopes of kCubicC1Monotonic for a rise of `d`: a slope against the rise becomes 0.
/// Without a rise both slopes and the rise become 0.
template <class V> void limitSlopes(V& d, V& m1, V& m2) {
    constexpr V kZero{};
    using Mask = decltype(maskOf(d > kZero));
    constexpr Mask kSign = Mask{} | std::numeric_limits<std::int32_t>::min();
    auto const bits = std::bit_cast<Mask>(d);
    Mask const sign = bits & kSign;
    Mask const rises = maskOf(std::bit_cast<V>(bits & ~kSign) > kZero);  // not if NaN
    auto const limited = [&](V const& m) {
        auto const slope = std::bit_cast<Mask>(m);
        Mask const against = maskOf(std::bit_cast<V>(slope ^ sign) < kZero);
        return std::bit_cast<V>(slope & rises & ~against);
    };
    m1 = limited(m1);
    m2 = limited(m2);
    d = std::bit_cast<V>(bits & rises);
}

/// Limits the derivatives of these, as the points move: to 0 where `m1`, `m2` or `d` became 0.
template <class V>
void limitDerivatives(V const& d, V const& m1, V const& m2, V& dd, V& dm1, V& dm2) {
    constexpr V kZero{};
    dd = cleared(dd, maskOf(d == kZero));
    dm1 = cleared(dm1, maskOf(m1 == kZero));
    dm2 = cleared(dm2, maskOf(m2 == kZero));
}

/// The coefficients that the interpolant of a type computes from the fraction t of the step from
/// point 1, for points one step apart: weights, or the powers of t. For one fraction, or for four.
template <int Type, class V> struct UniformWeights {
    V a{}, b{}, c{}, d{};

    explicit UniformWeights(V t) {
        V const t2 = t * t, t3 = t2 * t;
        if constexpr (Type == kQuadraticC0Averaged) {
            a = 0.25F * (t2 - t);
            b = 1.0F - 0.75F * t - 0.25F * t2;
            c = 0.25F * (5.0F * t - t2);
        } else if constexpr (Type == kCubicC0) {
            a = 0.5F * t2 - 0.33333334F * t - 0.16666667F * t3;
            b = 0.5F * (t3 - t) + 1.0F - t2;
            c = 0.5F * (t2 - t3) + t;
            d = 0.16666667F * (t3 - t);
        } else {
            a = t;
            b = t2;
            c = t3;
        }
    }
};

/// The derivatives of UniformWeights by t.
template <int Type, class V> struct UniformSlopeWeights {
    V a{}, b{}, c{}, d{};

    explicit UniformSlopeWeights(V t) {
        if constexpr (Type == kQuadraticC0Averaged) {
            a = 0.5F * t - 0.25F;
            c = 1.25F - 0.5F * t;
        } else if constexpr (Type == kCubicC0) {
            V const t2 = t * t;
            a = t - 0.33333334F - 0.5F * t2;
            c = 1.0F + t - 1.5F * t2;
            d = 0.5F * t2 - 0.16666667F;
        } else {
            b = 2.0F * t;
            c = 3.0F * (t * t);
        }
    }
};

/// The interpolant of a type through points one step apart. Any other type gives 0.
template <int Type> class UniformInterpolant {
public:
    explicit UniformInterpolant(float t) : UniformInterpolant(UniformWeights<Type, float>(t)) {}
    explicit UniformInterpolant(UniformWeights<Type, float> const& w)
        : m_a(w.a), m_b(w.b), m_c(w.c), m_d(w.d) {}
    /// At the fraction in a lane.
    UniformInterpolant(UniformWeights<Type, Float4> const& w, int lane)
        : m_a(w.a[lane]), m_b(w.b[lane]), m_c(w.c[lane]), m_d(w.d[lane]) {}

    template <class V> V operator()(V f0, V f1, V f2, V f3) const {
        if constexpr (Type == kQuadraticC0Averaged) {
            return m_b * f1 + m_a * f0 + m_c * f2 + m_a * f3;
        } else if constexpr (Type == kCubicC0) {
            return m_a * f0 + m_b * f1 + m_c * f2 + m_d * f3;
        } else if constexpr (Type == kCubicC1) {
            V const m1 = 0.5F * (f2 - f0), m2 = 0.5F * (f3 - f1);
            return f1 + m1 * m_a + (3.0F * f2 - 3.0F * f1 - 2.0F * m1 - m2) * m_b +
                   (2.0F * f1 - 2.0F * f2 + m1 + m2) * m_c;
        } else if constexpr (Type == kCubicC1Monotonic) {
            V d = f2 - f1, m1 = 0.5F * (f2 - f0), m2 = 0.5F * (f3 - f1);
            limitSlopes(d, m1, m2);
            return f1 + m1 * m_a + (3.0F * d - 2.0F * m1 - m2) * m_b + (m1 + m2 - 2.0F * d) * m_c;
        } else {
            return V{};
        }
    }

    /// The derivative of the value, as the points f move with the derivatives g.
    template <class V> V derivative(V f0, V f1, V f2, V f3, V g0, V g1, V g2, V g3) const {
        if constexpr (Type == kCubicC1Monotonic) {
            V d = f2 - f1, m1 = 0.5F * (f2 - f0), m2 = 0.5F * (f3 - f1);
            V dd = g2 - g1, dm1 = 0.5F * (g2 - g0), dm2 = 0.5F * (g3 - g1);
            limitSlopes(d, m1, m2);
            limitDerivatives(d, m1, m2, dd, dm1, dm2);
            return g1 + dm1 * m_a + (3.0F * dd - 2.0F * dm1 - dm2) * m_b +
                   (dm1 + dm2 - 2.0F * dd) * m_c;
        } else {
            return (*this)(g0, g1, g2, g3);
        }
    }

private:
    float m_a, m_b, m_c, m_d;
};

/// The derivative of UniformInterpolant by t. It is made of differences between points, and so
/// exactly 0 where the points are equal.
template <int Type> class UniformSlope {
public:
    UniformSlope(UniformSlopeWeights<Type, Float4> const& w, int lane)
        : m_a(w.a[lane]), m_b(w.b[lane]), m_c(w.c[lane]), m_d(w.d[lane]) {}

    template <class V> V operator()(V f0, V f1, V f2, V f3) const {
        if constexpr (Type == kQuadraticC0Averaged) {
            return m_a * ((f0 - f1) + (f3 - f1)) + m_c * (f2 - f1);
        } else if constexpr (Type == kCubicC0) {
            return m_a * (f0 - f1) + m_c * (f2 - f1) + m_d * (f3 - f1);
        } else if constexpr (Type == kCubicC1) {
            // The terms of the value, so that a compiler computes them once.
            V const m1 = 0.5F * (f2 - f0), m2 = 0.5F * (f3 - f1);
            return m1 + (3.0F * f2 - 3.0F * f1 - 2.0F * m1 - m2) * m_b +
                   (2.0F * f1 - 2.0F * f2 + m1 + m2) * m_c;
        } else if constexpr (Type == kCubicC1Monotonic) {
            V d = f2 - f1, m1 = 0.5F * (f2 - f0), m2 = 0.5F * (f3 - f1);
            limitSlopes(d, m1, m2);
            return m1 + (3.0F * d - 2.0F * m1 - m2) * m_b + (m1 + m2 - 2.0F * d) * m_c;
        } else {
            return V{};
        }
    }

private:
    float m_a, m_b, m_c, m_d;
};

/// The interpolant of a type through points at rising positions x0 to x3, at x. Positions that
/// coincide divide by zero.
template <int Type, class V> V nonUniform(V f0, V f1, V f2, V f3, float const (&p)[4], float x) {
    float const x0 = p[0], x1 = p[1], x2 = p[2], x3 = p[3];
    float const h0 = x1 - x0, h1 = x2 - x1, h2 = x3 - x2;
    if constexpr (Type == kQuadraticC0Averaged) {
        V const s0 = (f1 - f0) / h0, s1 = (f2 - f1) / h1, s2 = (f3 - f2) / h2;
        V const q1 = f0 + (x - x0) * s0 + (s1 - s0) / (h1 + h0) * (x - x0) * (x - x1);
        V const q2 = f1 + (x - x1) * s1 + (s2 - s1) / (h2 + h1) * (x - x1) * (x - x2);
        return 0.5F * (q1 + q2);
    } else if constexpr (Type == kCubicC0) {
        float const d0 = x - x0, d1 = x - x1, d2 = x - x2, d3 = x - x3;
        return f0 * ((d1 * d2 * d3) / ((x0 - x1) * (x0 - x2) * (x0 - x3))) +
               f1 * ((d0 * d2 * d3) / ((x1 - x0) * (x1 - x2) * (x1 - x3))) +
               f2 * ((d0 * d1 * d3) / ((x2 - x0) * (x2 - x1) * (x2 - x3))) +
               f3 * ((d0 * d1 * d2) / ((x3 - x0) * (x3 - x1) * (x3 - x2)));
    } else if constexpr (Type == kCubicC1 || Type == kCubicC1Monotonic) {
        float const u = (x - x1) / h1, u2 = u * u, u3 = u2 * u;
        float const h00 = 2.0F * u3 - 3.0F * u2 + 1.0F, h01 = 3.0F * u2 - 2.0F * u3;
        float const h10 = u3 - 2.0F * u2 + u, h11 = u3 - u2;
        V m1 = ((h1 / h0) * (f1 - f0) + (h0 / h1) * (f2 - f1)) / (h1 + h0);
        V m2 = ((h1 / h2) * (f3 - f2) + (h2 / h1) * (f2 - f1)) / (h2 + h1);
        V d = f2 - f1;
        if constexpr (Type == kCubicC1Monotonic) limitSlopes(d, m1, m2);
        V const value = h00 * f1 + h01 * f2 + h1 * h10 * m1 + h1 * h11 * m2;
        if constexpr (Type == kCubicC1Monotonic) return d == V{} ? f1 : value;
        return value;
    } else {
        return V{};
    }
}

/// Calls `function` with the type as a compile-time constant, or with -1 for any other number.
template <class Function> decltype(auto) withType(std::int32_t type, Function&& function) {
    switch (type) {
    case kQuadraticC0Averaged:
        return function.template operator()<kQuadraticC0Averaged>();
    case kCubicC0:
        return function.template operator()<kCubicC0>();
    case kCubicC1:
        return function.template operator()<kCubicC1>();
    case kCubicC1Monotonic:
        return function.template operator()<kCubicC1Monotonic>();
    default:
        return function.template operator()<-1>();
    }
}

/// The value of one row of a stencil: four values at four positions. `atResolutionJump` says that
/// the positions are not one step apart.
template <class V>
V interpolateValues1D(std::int32_t type, bool clamp, V const (&f)[4], float const (&positions)[4],
                      float samplePosition, bool atResolutionJump) {
    V const value = withType(type, [&]<int Type>() -> V {
        if (atResolutionJump)
            return nonUniform<Type>(f[0], f[1], f[2], f[3], positions, samplePosition);
        float const t = (samplePosition - positions[1]) / (positions[2] - positions[1]);
        return UniformInterpolant<Type>(t)(f[0], f[1], f[2], f[3]);
    });
    return clamp ? limited(value, smaller(f[1], f[2]), larger(f[1], f[2])) : value;
}

}  // namespace Internal

}  // namespace ORV::TileTree3D
