#include "zel/sampler/cubic/stencil.h"

#include "zel_platform/quern_core/simd_target.h"

// The kernels are compiled twice, for the processor that the library is built for and for wider
// vectors, and one is chosen when they run. Both give the same bits.
namespace ORV::TileTree3D::Internal {

namespace {

/// `Count` values at once.
template <unsigned Count, class Interpolant>
ZEL_ALWAYS_INLINE inline void interpolateAll(Interpolant const& along, float const* f0,
                                             float const* f1, float const* f2, float const* f3,
                                             float* to) {
    for (unsigned n = 0; n < Count; ++n) to[n] = along(f0[n], f1[n], f2[n], f3[n]);
}

/// The same with the derivatives by the fraction.
template <unsigned Count, int Type>
ZEL_ALWAYS_INLINE inline void interpolateAll(UniformInterpolant<Type> const& along,
                                             UniformSlope<Type> const& slope, float const* f0,
                                             float const* f1, float const* f2, float const* f3,
                                             float* to, float* slopes) {
    for (unsigned n = 0; n < Count; ++n) {
        to[n] = along(f0[n], f1[n], f2[n], f3[n]);
        slopes[n] = slope(f0[n], f1[n], f2[n], f3[n]);
    }
}

}  // namespace

template <class T>
template <int Type>
inline T CubicStencil<T>::value(bool clamp, Float4 const& frac) const {
    UniformWeights<Type, Float4> const weights(frac);
    float plane[kSlab], line[kRow], point[kFloats];
    interpolateAll<kSlab>(UniformInterpolant<Type>(weights, 0), m_values + slab(0),
                          m_values + slab(1), m_values + slab(2), m_values + slab(3), plane);
    interpolateAll<kRow>(UniformInterpolant<Type>(weights, 1), plane + row(0), plane + row(1),
                         plane + row(2), plane + row(3), line);
    interpolateAll<kFloats>(UniformInterpolant<Type>(weights, 2), line, line + kFloats,
                            line + 2 * kFloats, line + 3 * kFloats, point);
    Register value;
    __builtin_memcpy(&value, point, sizeof value);
    return RegisterTraits<T>::to(clamp ? limited(value, m_low, m_high) : value);
}

/// Sets derivatives to 0 where the value is clamped.
template <class T>
inline void CubicStencil<T>::clearClamped(Register const& value, Register& x, Register& y,
                                          Register& z) const {
    constexpr float kRounding = 1e-6F;
    Register const margin = kRounding * larger(larger(m_high, -m_high), larger(m_low, -m_low));
    auto const clamped = maskOf(value > m_high + margin) | maskOf(value < m_low - margin);
    x = cleared(x, clamped);
    y = cleared(y, clamped);
    z = cleared(z, clamped);
}

template <class T>
template <int Type>
inline T CubicStencil<T>::value(bool clamp, Float4 const& frac, float scale,
                                GradientOf<T>& gradient) const {
    UniformWeights<Type, Float4> const weights(frac);
    UniformSlopeWeights<Type, Float4> const slopeWeights(frac);
    auto const along = [&](int axis) { return UniformInterpolant<Type>(weights, axis); };
    auto const slope = [&](int axis) { return UniformSlope<Type>(slopeWeights, axis); };
    // The values, and their derivatives along x, y and z as far as those are known.
    float plane[kSlab], planeX[kSlab], line[kRow], lineX[kRow], lineY[kRow];
    interpolateAll<kSlab>(along(0), slope(0), m_values + slab(0), m_values + slab(1),
                          m_values + slab(2), m_values + slab(3), plane, planeX);
    unsigned const rows[4] = {row(0), row(1), row(2), row(3)};
    interpolateAll<kRow>(along(1), slope(1), plane + rows[0], plane + rows[1], plane + rows[2],
                         plane + rows[3], line, lineY);
    for (unsigned n = 0; n < kRow; ++n)
        lineX[n] = along(1).derivative(plane[rows[0] + n], plane[rows[1] + n], plane[rows[2] + n],
                                       plane[rows[3] + n], planeX[rows[0] + n], planeX[rows[1] + n],
                                       planeX[rows[2] + n], planeX[rows[3] + n]);
    float point[kFloats], x[kFloats], y[kFloats], z[kFloats];
    interpolateAll<kFloats>(along(2), slope(2), line, line + kFloats, line + 2 * kFloats,
                            line + 3 * kFloats, point, z);
    auto const derivative = [&](float const* d, unsigned n) {
        return along(2).derivative(line[n], line[kFloats + n], line[2 * kFloats + n],
                                   line[3 * kFloats + n], d[n], d[kFloats + n], d[2 * kFloats + n],
                                   d[3 * kFloats + n]);
    };
    for (unsigned n = 0; n < kFloats; ++n) {
        x[n] = derivative(lineX, n);
        y[n] = derivative(lineY, n);
    }
    Register value, dx, dy, dz;
    __builtin_memcpy(&value, point, sizeof value);
    __builtin_memcpy(&dx, x, sizeof dx);
    __builtin_memcpy(&dy, y, sizeof dy);
    __builtin_memcpy(&dz, z, sizeof dz);
    if (clamp) {
        clearClamped(value, dx, dy, dz);
        value = limited(value, m_low, m_high);
    }
    gradient = gradientOf(dx, dy, dz, scale);
    return RegisterTraits<T>::to(value);
}

template <class T>
template <int Type, class... Gradient>
T CubicStencil<T>::narrowValue(bool clamp, Float4 const& frac, Gradient&... gradient) const {
    return value<Type>(clamp, frac, gradient...);
}

template <class T>
template <int Type, class... Gradient>
T CubicStencil<T>::wideValue(bool clamp, Float4 const& frac, Gradient&... gradient) const {
    return value<Type>(clamp, frac, gradient...);
}

template <class T>
T CubicStencil<T>::interpolate(std::int32_t type, bool clamp, Float4 const& frac) const {
    return withType(type, [&]<int Type>() {
        return Quern::wideVectors ? wideValue<Type>(clamp, frac) : narrowValue<Type>(clamp, frac);
    });
}

template <class T>
T CubicStencil<T>::interpolate(std::int32_t type, bool clamp, Float4 const& frac, float scale,
                               GradientOf<T>& gradient) const {
    return withType(type, [&]<int Type>() {
        return Quern::wideVectors ? wideValue<Type>(clamp, frac, scale, gradient)
                                  : narrowValue<Type>(clamp, frac, scale, gradient);
    });
}

template class CubicStencil<float>;
template class CubicStencil<float3>;

}  // namespace ORV::TileTree3D::Internal
