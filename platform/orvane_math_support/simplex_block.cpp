#include "zel_platform/orvane_math_support/noise.h"
#include "zel_platform/orvane_math_support/noise_block.h"
#include "zel_platform/quern_core/simd_kernels.h"

#include <type_traits>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "zel_platform/orvane_math_support/simplex_block.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "zel_platform/orvane_math_support/block_loop.h"

HWY_BEFORE_NAMESPACE();
namespace Orvane::Math {
namespace HWY_NAMESPACE {

// A body reads x, y, z and w, and sets the value or adds to it; with five output arrays, the four
// derivatives, too.

/// The parts common to all bodies.
template <class Arrays> struct SimplexParts {
    using Real = typename Arrays::Number;
    static constexpr bool kDerives = Arrays::kOutputs == 5;
    std::int64_t seed;

#if ZEL_HAS_SIMD_ARITHMETIC
    using Arith = Simplex::HWY_NAMESPACE::SimdArithmetic<Real>;

    static HWY_INLINE void keep(typename Arith::Word const& hash, std::uint32_t* to) {
        Arith::store(Arith::template toKeep<Real>(hash), to);
    }
    static HWY_INLINE auto kept(std::uint32_t const* p) {
        return Arith::kept(p);
    }
#endif
};

template <class Arrays> struct SimplexBody : SimplexParts<Arrays> {
    using Parts = SimplexParts<Arrays>;
    using Parts::kDerives, Parts::seed;
    using typename Parts::Real;
    static constexpr bool kAdds = false;

    void point(Arrays const& a) const {
        using Point = std::conditional_t<std::is_same_v<Real, float>, float4, double4>;
        Point const p = {*a.in[0], *a.in[1], *a.in[2], *a.in[3]};
        if constexpr (kDerives) {
            Point d;
            *a.out[0] = simplex_noise(p, seed, d);
            *a.out[1] = d.x, *a.out[2] = d.y, *a.out[3] = d.z, *a.out[4] = d.w;
        } else {
            *a.out[0] = simplex_noise(p, seed);
        }
    }

#if ZEL_HAS_SIMD_ARITHMETIC
    using typename Parts::Arith;

    template <class Use> HWY_INLINE bool find(Arrays const& a, Use&& use) const {
        using namespace Simplex::HWY_NAMESPACE;
        typename Arith::Wide4 const p = {Arith::load(a.in[0]), Arith::load(a.in[1]),
                                         Arith::load(a.in[2]), Arith::load(a.in[3])};
        atPlace<Arith>(skew<Arith>(p), Simplex::NoOrigin{}, use);
        return inLattice<Arith>({Arith::loadOne(a.in[0]), Arith::loadOne(a.in[1]),
                                 Arith::loadOne(a.in[2]), Arith::loadOne(a.in[3])});
    }

    template <class Vertices>
    HWY_INLINE void evaluate(typename Arith::Real4 const& place, Vertices const& vertices,
                             Arrays const& a) const {
        using namespace Simplex::HWY_NAMESPACE;
        if constexpr (kDerives) {
            typename Arith::Real4 d;
            Arith::store(simplexDerivative<Arith>(place, vertices, d), a.out[0]);
            Arith::store(d.x, a.out[1]);
            Arith::store(d.y, a.out[2]);
            Arith::store(d.z, a.out[3]);
            Arith::store(d.w, a.out[4]);
        } else {
            Arith::store(simplexValue<Arith>(place, vertices), a.out[0]);
        }
    }
#endif
};

/// Adds an octave to sums.
template <class Arrays> struct OctaveBody : SimplexParts<Arrays> {
    using Parts = SimplexParts<Arrays>;
    using Parts::kDerives, Parts::seed;
    static constexpr bool kAdds = true;
    NoiseOctave octave;

    void point(Arrays const& a) const {
        double4 const p = {*a.in[0] * octave.scale, *a.in[1] * octave.scale,
                           *a.in[2] * octave.scale, *a.in[3] * octave.timeScale};
        if constexpr (kDerives) {
            double4 d;
            *a.out[0] += octave.weight * simplex_noise(p, seed, d);
            *a.out[1] += octave.weight * (octave.scale * d.x);
            *a.out[2] += octave.weight * (octave.scale * d.y);
            *a.out[3] += octave.weight * (octave.scale * d.z);
            *a.out[4] += octave.weight * (octave.timeScale * d.w);
        } else {
            *a.out[0] += octave.weight * simplex_noise(p, seed);
        }
    }

#if ZEL_HAS_SIMD_ARITHMETIC
    using typename Parts::Arith;

    template <class Use> HWY_INLINE bool find(Arrays const& a, Use&& use) const {
        using namespace Simplex::HWY_NAMESPACE;
        typename Arith::Wide4 const p = {
            Arith::load(a.in[0]) * octave.scale, Arith::load(a.in[1]) * octave.scale,
            Arith::load(a.in[2]) * octave.scale, Arith::load(a.in[3]) * octave.timeScale};
        atPlace<Arith>(skew<Arith>(p), Simplex::NoOrigin{}, use);
        return inLattice<Arith>(p);
    }

    static HWY_INLINE void add(typename Arith::Real const& v, double* sum) {
        Arith::store(Arith::loadOne(sum) + v, sum);
    }

    template <class Vertices>
    HWY_INLINE void evaluate(typename Arith::Real4 const& place, Vertices const& vertices,
                             Arrays const& a) const {
        using namespace Simplex::HWY_NAMESPACE;
        double const weight = octave.weight;
        if constexpr (kDerives) {
            typename Arith::Real4 d;
            add(simplexDerivative<Arith>(place, vertices, d) * weight, a.out[0]);
            add(d.x * octave.scale * weight, a.out[1]);
            add(d.y * octave.scale * weight, a.out[2]);
            add(d.z * octave.scale * weight, a.out[3]);
            add(d.w * octave.timeScale * weight, a.out[4]);
        } else {
            add(simplexValue<Arith>(place, vertices) * weight, a.out[0]);
        }
    }
#endif
};

template <class Arrays>
HWY_INLINE void simplexBlock(Arrays const& arrays, int count, std::int64_t seed) {
    forEachInBlock(arrays, count, SimplexBody<Arrays>{{seed}});
}

void simplexFloat(BlockArrays<float, 4, 1> const& a, int count, std::int64_t seed) {
    simplexBlock(a, count, seed);
}
void simplexDouble(BlockArrays<double, 4, 1> const& a, int count, std::int64_t seed) {
    simplexBlock(a, count, seed);
}
void simplexFloatDerivative(BlockArrays<float, 4, 5> const& a, int count, std::int64_t seed) {
    simplexBlock(a, count, seed);
}
void simplexDoubleDerivative(BlockArrays<double, 4, 5> const& a, int count, std::int64_t seed) {
    simplexBlock(a, count, seed);
}

template <class Arrays>
HWY_INLINE void octaveBlock(Arrays const& arrays, int count, NoiseOctave const& octave,
                            std::int64_t seed) {
    forEachInBlock(arrays, count, OctaveBody<Arrays>{{seed}, octave});
}

void simplexOctave(BlockArrays<double, 4, 1> const& a, int count, NoiseOctave const& octave,
                   std::int64_t seed) {
    octaveBlock(a, count, octave, seed);
}
void simplexOctaveDerivative(BlockArrays<double, 4, 5> const& a, int count,
                             NoiseOctave const& octave, std::int64_t seed) {
    octaveBlock(a, count, octave, seed);
}

}  // namespace HWY_NAMESPACE
}  // namespace Orvane::Math
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Orvane::Math {

HWY_EXPORT(simplexFloat);
HWY_EXPORT(simplexDouble);
HWY_EXPORT(simplexFloatDerivative);
HWY_EXPORT(simplexDoubleDerivative);
HWY_EXPORT(simplexOctave);
HWY_EXPORT(simplexOctaveDerivative);

void simplex_noise_block(float const* x, float const* y, float const* z, float const* w, int count,
                         std::int64_t seed, float* out) {
    HWY_DYNAMIC_DISPATCH(simplexFloat)({{x, y, z, w}, {out}}, count, seed);
}

void simplex_noise_block(double const* x, double const* y, double const* z, double const* w,
                         int count, std::int64_t seed, double* out) {
    HWY_DYNAMIC_DISPATCH(simplexDouble)({{x, y, z, w}, {out}}, count, seed);
}

void simplex_noise_block(float const* x, float const* y, float const* z, float const* w, int count,
                         std::int64_t seed, float* out, float* alongX, float* alongY, float* alongZ,
                         float* alongW) {
    HWY_DYNAMIC_DISPATCH(simplexFloatDerivative)
    ({{x, y, z, w}, {out, alongX, alongY, alongZ, alongW}}, count, seed);
}

void simplex_noise_block(double const* x, double const* y, double const* z, double const* w,
                         int count, std::int64_t seed, double* out, double* alongX, double* alongY,
                         double* alongZ, double* alongW) {
    HWY_DYNAMIC_DISPATCH(simplexDoubleDerivative)
    ({{x, y, z, w}, {out, alongX, alongY, alongZ, alongW}}, count, seed);
}

void add_simplex_octave_block(double const* x, double const* y, double const* z, double const* w,
                              int count, NoiseOctave const& octave, std::int64_t seed,
                              double* sum) {
    HWY_DYNAMIC_DISPATCH(simplexOctave)({{x, y, z, w}, {sum}}, count, octave, seed);
}

void add_simplex_octave_block(double const* x, double const* y, double const* z, double const* w,
                              int count, NoiseOctave const& octave, std::int64_t seed, double* sum,
                              double* alongX, double* alongY, double* alongZ, double* alongW) {
    HWY_DYNAMIC_DISPATCH(simplexOctaveDerivative)
    ({{x, y, z, w}, {sum, alongX, alongY, alongZ, alongW}}, count, octave, seed);
}

}  // namespace Orvane::Math
#endif
