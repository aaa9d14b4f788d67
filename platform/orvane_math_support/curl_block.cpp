#include "orvane_math_support/noise.h"
#include "orvane_math_support/noise_block.h"
#include "orvane_math_support/simplex_time.h"
#include "quern_core/simd_target.h"

#include <cstddef>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "orvane_math_support/curl_block.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "orvane_math_support/block_loop.h"

HWY_BEFORE_NAMESPACE();
namespace Orvane::Math {
namespace HWY_NAMESPACE {

// Each body takes x, y, z, and the time where it is not the same for all, to the three components,
// and with twelve outputs to the nine entries of the Jacobian too.

/// What all have in common. `Scalar` gives `at(position, a)` and `at(position, a, jacobian)`.
template <class Arrays, int power, class Scalar> struct CurlBody {
    static constexpr bool kDerives = Arrays::kOutputs == 12;
    std::uint32_t seed;
    float const* timeTable = nullptr;

    void point(Arrays const& a) const {
        auto const put = [&](std::size_t at, float3 const& v) {
            *a.out[at] = v.x, *a.out[at + 1] = v.y, *a.out[at + 2] = v.z;
        };
        float3 const position = {*a.in[0], *a.in[1], *a.in[2]};
        if constexpr (kDerives) {
            float3x3 jacobian;
            put(0, Scalar::at(position, *a.in[3], seed, jacobian));
            for (int r = 0; r < 3; ++r) put(3 + 3 * static_cast<std::size_t>(r), jacobian[r]);
        } else if constexpr (Arrays::kInputs == 4) {
            put(0, Scalar::at(position, *a.in[3], seed));
        } else {
            put(0, Scalar::at(position, timeTable, seed));
        }
    }

#if ZEL_HAS_BLOCK_LANE
    using L = Simplex::HWY_NAMESPACE::BlockLane<float>;
    using Hash = Simplex::HWY_NAMESPACE::CellHash<L>;
    using Components = Simplex::Vec3<L::Real>;

    static HWY_INLINE void store(Components const& v, float* const* out) {
        L::store(v.x, out[0]);
        L::store(v.y, out[1]);
        L::store(v.z, out[2]);
    }
    HWY_INLINE void evaluate(L::Real4 const& d, Hash const& hash, Arrays const& a) const {
        using namespace Simplex::HWY_NAMESPACE;
        if constexpr (kDerives) {
            Simplex::Vec3<Components> rows;
            store(curl<L, power>(d, hash, rows), a.out.data());
            store(rows.x, a.out.data() + 3);
            store(rows.y, a.out.data() + 6);
            store(rows.z, a.out.data() + 9);
        } else {
            Simplex::NoJacobian none;
            store(curl<L, power>(d, hash, none), a.out.data());
        }
    }
#endif
};

struct PlainScalar {
    template <class... Jacobian>
    static float3 at(float3 const& p, float time, std::uint32_t seed, Jacobian&... jacobian) {
        if constexpr (sizeof...(jacobian) == 0)
            return curl_noise(p, time, seed);
        else
            return curl_noise_derivative(p, time, seed, jacobian...);
    }
};

/// A time, or a time table.
struct SmoothScalar {
    template <class Time, class... Jacobian>
    static float3 at(float3 const& p, Time time, std::uint32_t seed, Jacobian&... jacobian) {
        if constexpr (sizeof...(jacobian) == 0)
            return smooth_curl_noise(p, time, seed);
        else
            return smooth_curl_noise_derivative(p, time, seed, jacobian...);
    }
};

template <class Arrays> struct PlainBody : CurlBody<Arrays, 3, PlainScalar> {
#if ZEL_HAS_BLOCK_LANE
    template <class Use> HWY_INLINE bool find(Arrays const& a, Use const& use) const {
        using namespace Simplex::HWY_NAMESPACE;
        using L = BlockLane<float>;
        L::Wide4 const p = {L::load(a.in[0]), L::load(a.in[1]), L::load(a.in[2]), L::load(a.in[3])};
        atPlace<L>(skew<L>(p), Simplex::NoOrigin{}, use);
        return inLattice<L>(
            {L::loadOne(a.in[0]), L::loadOne(a.in[1]), L::loadOne(a.in[2]), L::loadOne(a.in[3])});
    }
#endif
};

template <class Arrays> struct SmoothBody : CurlBody<Arrays, 4, SmoothScalar> {
#if ZEL_HAS_BLOCK_LANE
    template <class Use> HWY_INLINE bool find(Arrays const& a, Use const& use) const {
        using namespace Simplex::HWY_NAMESPACE;
        using L = BlockLane<float>;
        auto const findAt = [&](Wide const& latticeXyz, Wide const& latticeW, Cell const& cellXyz,
                                Cell const& cellW) ZEL_KERNEL_LAMBDA {
            L::Wide4 const p = {L::load(a.in[0]), L::load(a.in[1]), L::load(a.in[2]), Wide::all(0)};
            atPlace<L>(skew<L>(p) + L::spread(latticeXyz, latticeW), L::spread(cellXyz, cellW),
                       use);
            return inLattice<L>(
                {L::loadOne(a.in[0]), L::loadOne(a.in[1]), L::loadOne(a.in[2]), FloatReal::all(0)});
        };
        if constexpr (Arrays::kInputs == 4) {
            auto const lattice = skewTime<L>(L::load(a.in[3]));
            return placeTime<L>(lattice, findAt) && timeInLattice<L>(lattice);
        } else {
            auto const time = Simplex::readTimeTable(this->timeTable);
            auto const lattice = L::spread(Wide::all(time.latticeXyz), Wide::all(time.latticeW));
            return findAt(lattice.x, lattice.w, Cell::all(time.cellXyz), Cell::all(time.cellW)) &&
                   timeInLattice<L>(lattice);
        }
    }
#endif
};

using Values = BlockArrays<float, 4, 3>;
using TableValues = BlockArrays<float, 3, 3>;
using Derivatives = BlockArrays<float, 4, 12>;

void plainCurl(Values const& a, int count, std::uint32_t seed) {
    forEachInBlock(a, count, PlainBody<Values>{{seed}});
}
void smoothCurl(Values const& a, int count, std::uint32_t seed) {
    forEachInBlock(a, count, SmoothBody<Values>{{seed}});
}
void smoothTableCurl(TableValues const& a, float const* timeTable, int count, std::uint32_t seed) {
    forEachInBlock(a, count, SmoothBody<TableValues>{{seed, timeTable}});
}
void plainCurlDerivative(Derivatives const& a, int count, std::uint32_t seed) {
    forEachInBlock(a, count, PlainBody<Derivatives>{{seed}});
}
void smoothCurlDerivative(Derivatives const& a, int count, std::uint32_t seed) {
    forEachInBlock(a, count, SmoothBody<Derivatives>{{seed}});
}

}  // namespace HWY_NAMESPACE
}  // namespace Orvane::Math
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Orvane::Math {

HWY_EXPORT(plainCurl);
HWY_EXPORT(smoothCurl);
HWY_EXPORT(smoothTableCurl);
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

void smooth_curl_noise_table_block(float const* x, float const* y, float const* z,
                                   float const* timeTable, int count, std::uint32_t seed,
                                   float* outX, float* outY, float* outZ) {
    HWY_DYNAMIC_DISPATCH(smoothTableCurl)
    ({{x, y, z}, {outX, outY, outZ}}, timeTable, count, seed);
}

void curl_noise_derivative_block(float const* x, float const* y, float const* z, float const* time,
                                 int count, std::uint32_t seed, float* outX, float* outY,
                                 float* outZ, float* const (&jacobian)[9]) {
    auto const& j = jacobian;
    HWY_DYNAMIC_DISPATCH(plainCurlDerivative)
    ({{x, y, z, time}, {outX, outY, outZ, j[0], j[1], j[2], j[3], j[4], j[5], j[6], j[7], j[8]}},
     count, seed);
}

void smooth_curl_noise_derivative_block(float const* x, float const* y, float const* z,
                                        float const* time, int count, std::uint32_t seed,
                                        float* outX, float* outY, float* outZ,
                                        float* const (&jacobian)[9]) {
    auto const& j = jacobian;
    HWY_DYNAMIC_DISPATCH(smoothCurlDerivative)
    ({{x, y, z, time}, {outX, outY, outZ, j[0], j[1], j[2], j[3], j[4], j[5], j[6], j[7], j[8]}},
     count, seed);
}

}  // namespace Orvane::Math
#endif
