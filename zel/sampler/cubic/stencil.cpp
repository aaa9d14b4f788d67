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

}  // namespace

template <class T>
template <int Type>
ZEL_ALWAYS_INLINE inline T CubicStencil<T>::value(bool clamp, Float4 const& frac) const {
    UniformWeights<Type, Float4> const weights(frac);
    float plane[kSlab], line[kRow], point[kFloats];
    interpolateAll<kSlab>(UniformInterpolant<Type>(weights, 0), m_values + slab(0),
                          m_values + slab(1), m_values + slab(2), m_values + slab(3), plane);
    interpolateAll<kRow>(UniformInterpolant<Type>(weights, 1), plane + row(0), plane + row(1),
                         plane + row(2), plane + row(3), line);
    interpolateAll<kFloats>(UniformInterpolant<Type>(weights, 2), line, line + kFloats,
                            line + 2 * kFloats, line + 3 * kFloats, point);
    Register value;
    std::memcpy(&value, point, sizeof value);
    return RegisterTraits<T>::to(clamp ? limited(value, m_low, m_high) : value);
}

template <class T>
template <int Type>
__attribute__((flatten)) T CubicStencil<T>::narrowValue(bool clamp, Float4 const& frac) const {
    return value<Type>(clamp, frac);
}

template <class T>
template <int Type>
ZEL_WIDE_TARGET __attribute__((flatten)) T CubicStencil<T>::wideValue(bool clamp,
                                                                      Float4 const& frac) const {
    return value<Type>(clamp, frac);
}

template <class T>
T CubicStencil<T>::interpolate(std::int32_t type, bool clamp, Float4 const& frac) const {
    return withType(type, [&]<int Type>() {
        return Quern::wideVectors ? wideValue<Type>(clamp, frac) : narrowValue<Type>(clamp, frac);
    });
}

template class CubicStencil<float>;
template class CubicStencil<float3>;

}  // namespace ORV::TileTree3D::Internal
