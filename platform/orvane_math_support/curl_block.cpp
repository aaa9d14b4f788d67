#include "zel_platform/orvane_math_support/noise.h"
#include "zel_platform/orvane_math_support/noise_block.h"
#include "zel_platform/orvane_math_support/simplex_time.h"
#include "zel_platform/quern_core/simd_kernels.h"

#include <cstddef>
#include <cstring>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "zel_platform/orvane_math_support/curl_block.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "zel_platform/orvane_math_support/block_loop.h"

HWY_BEFORE_NAMESPACE();
namespace Orvane::Math {
namespace HWY_NAMESPACE {

// A body reads x, y, z and the time, and writes the three components of the curl; with fifteen
// output arrays it also writes the nine entries of the Jacobian, and the derivatives along the
// time.

/// The parts common to all bodies. `Scalar` offers the function for one point: `at(position, time,
/// seed)` and `at(position, time, seed, jacobian, alongTime)`.
template <class Arrays, int power, class Scalar> struct CurlBody {
    static constexpr bool kDerives = Arrays::kOutputs == 15, kAdds = false;
    std::uint32_t seed;

    void point(Arrays const& a) const {
        auto const put = [&](std::size_t at, float3 const& v) {
            *a.out[at] = v.x, *a.out[at + 1] = v.y, *a.out[at + 2] = v.z;
        };
        float3 const position = {*a.in[0], *a.in[1], *a.in[2]};
        if constexpr (kDerives) {
            float3x3 jacobian;
            float3 alongTime;
            put(0, Scalar::at(position, *a.in[3], seed, jacobian, alongTime));
            for (int r = 0; r < 3; ++r) put(3 + 3 * static_cast<std::size_t>(r), jacobian[r]);
            put(12, alongTime);
        } else {
            put(0, Scalar::at(position, *a.in[3], seed));
        }
    }

#if ZEL_HAS_SIMD_ARITHMETIC
    using Arith = Simplex::HWY_NAMESPACE::SimdArithmetic<float>;
    using Components = Simplex::Vec3<Arith::Real>;

    static HWY_INLINE void store(Components const& v, float* const* out) {
        Arith::store(v.x, out[0]);
        Arith::store(v.y, out[1]);
        Arith::store(v.z, out[2]);
    }
    static HWY_INLINE void keep(Arith::Word const& hash, std::uint32_t* to) {
        Arith::store(hash, to);
    }
    static HWY_INLINE Arith::Word kept(std::uint32_t const* p) {
        return Arith::loadOne(p);
    }

    template <class Vertices>
    HWY_INLINE void evaluate(Arith::Real4 const& d, Vertices const& vertices,
                             Arrays const& a) const {
        using namespace Simplex::HWY_NAMESPACE;
        if constexpr (kDerives) {
            Simplex::CurlDerivative<Arith::Real> derivative;
            store(curl<Arith, power>(d, vertices, derivative), a.out.data());
            store(derivative.rows.x, a.out.data() + 3);
            store(derivative.rows.y, a.out.data() + 6);
            store(derivative.rows.z, a.out.data() + 9);
            store(derivative.alongTime, a.out.data() + 12);
        } else {
            Simplex::NoDerivative none;
            store(curl<Arith, power>(d, vertices, none), a.out.data());
        }
    }
#endif
};

struct PlainScalar {
    template <class... Derivative>
    static float3 at(float3 const& p, float time, std::uint32_t seed, Derivative&... derivative) {
        if constexpr (sizeof...(derivative) == 0)
            return curl_noise(p, time, seed);
        else
            return curl_noise_derivative(p, time, seed, derivative...);
    }
};

struct SmoothScalar {
    template <class... Derivative>
    static float3 at(float3 const& p, float time, std::uint32_t seed, Derivative&... derivative) {
        if constexpr (sizeof...(derivative) == 0)
            return smooth_curl_noise(p, time, seed);
        else
            return smooth_curl_noise_derivative(p, time, seed, derivative...);
    }
};

template <class Arrays> struct PlainBody : CurlBody<Arrays, 3, PlainScalar> {
#if ZEL_HAS_SIMD_ARITHMETIC
    template <class Use> HWY_INLINE bool find(Arrays const& a, Use const& use) const {
        using namespace Simplex::HWY_NAMESPACE;
        using Arith = SimdArithmetic<float>;
        Arith::Wide4 const p = {Arith::load(a.in[0]), Arith::load(a.in[1]), Arith::load(a.in[2]),
                                Arith::load(a.in[3])};
        atPlace<Arith>(skew<Arith>(p), Simplex::NoOrigin{}, use);
        return inLattice<Arith>({Arith::loadOne(a.in[0]), Arith::loadOne(a.in[1]),
                                 Arith::loadOne(a.in[2]), Arith::loadOne(a.in[3])});
    }
#endif
};

template <class Arrays> struct SmoothBody : CurlBody<Arrays, 4, SmoothScalar> {
    Simplex::TimePlace const* oneTime;  // of the time common to all points; null if times differ

#if ZEL_HAS_SIMD_ARITHMETIC
    template <class Use> HWY_INLINE bool find(Arrays const& a, Use const& use) const {
        using namespace Simplex::HWY_NAMESPACE;
        using Arith = SimdArithmetic<float>;
        auto const findAt = [&](Wide const& latticeXyz, Wide const& latticeW, Cell const& cellXyz,
                                Cell const& cellW) ZEL_KERNEL_LAMBDA {
            Arith::Wide4 const p = {Arith::load(a.in[0]), Arith::load(a.in[1]),
                                    Arith::load(a.in[2]), Wide::all(0)};
            atPlace<Arith>(skew<Arith>(p) + Arith::spread(latticeXyz, latticeW),
                           Arith::spread(cellXyz, cellW), use);
            return inLattice<Arith>({Arith::loadOne(a.in[0]), Arith::loadOne(a.in[1]),
                                     Arith::loadOne(a.in[2]), FloatReal::all(0)});
        };
        if (oneTime != nullptr)
            return findAt(Wide::all(oneTime->latticeXyz), Wide::all(oneTime->latticeW),
                          Cell::all(oneTime->cellXyz), Cell::all(oneTime->cellW));
        auto const lattice = skewTime<Arith>(Arith::load(a.in[3]));
        return placeTime<Arith>(lattice, findAt) && timeInLattice<Arith>(lattice);
    }
#endif
};

/// Evaluates all points. Usually they have the same time: its place is then computed only once.
template <class Arrays>
HWY_INLINE void smoothBlock(Arrays const& a, int count, std::uint32_t seed) {
    float const* const time = a.in[3];
    if (count <= 0) return;
    if (std::memcmp(time, time + 1, static_cast<std::size_t>(count - 1) * sizeof *time) != 0)
        return forEachInBlock(a, count, SmoothBody<Arrays>{{seed}, nullptr});
    float table[16];
    create_curl_noise_time_table(*time, table);
    auto const place = Simplex::readTimeTable(table);
    bool const inside = place.latticeXyz < Simplex::kLatticeLimit;
    forEachInBlock(a, count, SmoothBody<Arrays>{{seed}, inside ? &place : nullptr});
}

using Values = BlockArrays<float, 4, 3>;
using Derivatives = BlockArrays<float, 4, 15>;

void plainCurl(Values const& a, int count, std::uint32_t seed) {
    forEachInBlock(a, count, PlainBody<Values>{{seed}});
}
void smoothCurl(Values const& a, int count, std::uint32_t seed) {
    smoothBlock(a, count, seed);
}
void plainCurlDerivative(Derivatives const& a, int count, std::uint32_t seed) {
    forEachInBlock(a, count, PlainBody<Derivatives>{{seed}});
}
void smoothCurlDerivative(Derivatives const& a, int count, std::uint32_t seed) {
    smoothBlock(a, count, seed);
}

}  // namespace HWY_NAMESPACE
}  // namespace Orvane::Math
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Orvane::Math {

HWY_EXPORT(plainCurl);
HWY_EXPORT(smoothCurl);
HWY_EXPORT(plainCurlDerivative);
HWY_EXPORT(smoothCurlDerivative);

void curl_noise_block(float const* x, float const* y, float const* z, float const* time, int count,
                      std::uint32_t seed, float* outX, float* outY, float* outZ) {
    HWY_DYNAMIC_DISPATCH(plainCurl)({{x, y, z, time}, {outX, outY, outZ}}, count, seed);
}

void smooth_curl_noise_block(float const* x, float const* y, float const* z, float const* time,
                             int count, std::uint32_t seed, float* outX, float* outY, float* outZ) {
    HWY_DYNAMIC_DISPATCH(smoothCurl)({{x, y, z, time}, {outX, outY, outZ}}, count, seed);
}

void curl_noise_derivative_block(float const* x, float const* y, float const* z, float const* time,
                                 int count, std::uint32_t seed, float* outX, float* outY,
                                 float* outZ, float* const (&jacobian)[9],
                                 float* const (&alongTime)[3]) {
    auto const& j = jacobian;
    auto const& t = alongTime;
    HWY_DYNAMIC_DISPATCH(plainCurlDerivative)
    ({{x, y, z, time},
      {outX, outY, outZ, j[0], j[1], j[2], j[3], j[4], j[5], j[6], j[7], j[8], t[0], t[1], t[2]}},
     count, seed);
}

void smooth_curl_noise_derivative_block(float const* x, float const* y, float const* z,
                                        float const* time, int count, std::uint32_t seed,
                                        float* outX, float* outY, float* outZ,
                                        float* const (&jacobian)[9], float* const (&alongTime)[3]) {
    auto const& j = jacobian;
    auto const& t = alongTime;
    HWY_DYNAMIC_DISPATCH(smoothCurlDerivative)
    ({{x, y, z, time},
      {outX, outY, outZ, j[0], j[1], j[2], j[3], j[4], j[5], j[6], j[7], j[8], t[0], t[1], t[2]}},
     count, seed);
}

}  // namespace Orvane::Math
#endif
