#include "zel_platform/orvane_math_support/noise_block.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "zel_platform/orvane_math_support/noise.h"
#include "zel_platform/quern_core/simd_target.h"

namespace {

using namespace Orvane::Math;

constexpr std::int64_t kSeed = -0x123456789abcdef;
constexpr auto kCurlSeed = 0xfedcba98u;

/// A noise function of four coordinates for blocks, and the one for a point, both over arrays of
/// coordinates and of results.
template <class Real> struct Form {
    char const* name;
    unsigned results;
    void (*block)(Real const* const* p, int count, Real* const* r);
    void (*one)(Real const* p, Real* r);
};

template <class Real, class Point>
Form<Real> const kSimplexForms[] = {
    {"value", 1,
     [](auto p, int n, auto r) { simplex_noise_block(p[0], p[1], p[2], p[3], n, kSeed, r[0]); },
     [](auto p, auto r) {
         r[0] = simplex_noise(Point{p[0], p[1], p[2], p[3]}, kSeed);
     }},
    {"derivative", 5,
     [](auto p, int n, auto r) {
         simplex_noise_block(p[0], p[1], p[2], p[3], n, kSeed, r[0], r[1], r[2], r[3], r[4]);
     },
     [](auto p, auto r) {
         Point d;
         r[0] = simplex_noise(Point{p[0], p[1], p[2], p[3]}, kSeed, d);
         r[1] = d.x, r[2] = d.y, r[3] = d.z, r[4] = d.w;
     }}};

/// Octaves are added to the results.
constexpr NoiseOctave kOctave = {1.7, -0.3, 0.6};
Form<double> const kOctaveForms[] = {
    {"octave", 1,
     [](auto p, int n, auto r) {
         add_simplex_octave_block(p[0], p[1], p[2], p[3], n, kOctave, kSeed, r[0]);
     },
     [](auto p, auto r) {
         auto const [scale, timeScale, weight] = kOctave;
         r[0] += weight *
                 simplex_noise(double4{scale * p[0], scale * p[1], scale * p[2], timeScale * p[3]},
                               kSeed);
     }},
    {"octave derivative", 5,
     [](auto p, int n, auto r) {
         add_simplex_octave_block(p[0], p[1], p[2], p[3], n, kOctave, kSeed, r[0], r[1], r[2], r[3],
                                  r[4]);
     },
     [](auto p, auto r) {
         auto const [scale, timeScale, weight] = kOctave;
         double4 d;
         r[0] += weight *
                 simplex_noise(double4{scale * p[0], scale * p[1], scale * p[2], timeScale * p[3]},
                               kSeed, d);
         r[1] += weight * (scale * d.x), r[2] += weight * (scale * d.y);
         r[3] += weight * (scale * d.z), r[4] += weight * (timeScale * d.w);
     }}};

void write(float3 const& v, float* r) {
    r[0] = v.x, r[1] = v.y, r[2] = v.z;
}
using Curl = float3(float3 const&, float, std::uint32_t);
template <Curl* curl, auto* curlBlock> Form<float> curlForm(char const* name) {
    return {name, 3,
            [](auto p, int n, auto r) {
                curlBlock(p[0], p[1], p[2], p[3], n, kCurlSeed, r[0], r[1], r[2]);
            },
            [](auto p, auto r) {
                write(curl({p[0], p[1], p[2]}, p[3], kCurlSeed), r);
            }};
}
template <auto* curl, auto* curlBlock> Form<float> curlDerivativeForm(char const* name) {
    return {name, 15,
            [](auto p, int n, auto r) {
                float* const m[9] = {r[3], r[4], r[5], r[6], r[7], r[8], r[9], r[10], r[11]};
                float* const t[3] = {r[12], r[13], r[14]};
                curlBlock(p[0], p[1], p[2], p[3], n, kCurlSeed, r[0], r[1], r[2], m, t);
            },
            [](auto p, auto r) {
                float3x3 m;
                float3 t;
                write(curl({p[0], p[1], p[2]}, p[3], kCurlSeed, m, t), r);
                for (int i = 0; i < 3; ++i) write(m[i], r + 3 + 3 * i);
                write(t, r + 12);
            }};
}
Form<float> const kCurlForms[] = {
    curlForm<curl_noise, curl_noise_block>("curl"),
    curlForm<smooth_curl_noise, smooth_curl_noise_block>("smooth curl"),
    curlDerivativeForm<curl_noise_derivative, curl_noise_derivative_block>("curl derivative"),
    curlDerivativeForm<smooth_curl_noise_derivative, smooth_curl_noise_derivative_block>(
        "smooth curl derivative")};

template <class Real> using Coordinates = std::array<std::vector<Real>, 4>;

/// Coordinates of all sizes up to the end of the lattice and past it, equal coordinates, whole
/// numbers, infinities and NaN, among ordinary ones.
template <class Real> Coordinates<Real> makePoints(std::size_t count) {
    std::mt19937_64 random(20241109);
    auto const uniform = [&](double size) {
        return static_cast<Real>(std::uniform_real_distribution(-size, size)(random));
    };
    double const special[] = {0,    -0.0,  1,        0x1p31,    0x1p46, 0x1p48,
                              1e38, -1e38, INFINITY, -INFINITY, NAN};
    Coordinates<Real> points;
    for (auto& p : points) p.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        bool const anySize = random() % 8 == 0, whole = random() % 8 == 0;
        double const size = anySize ? std::pow(10.0, uniform(18)) : 100;
        for (auto& p : points) p[i] = whole ? std::round(uniform(size)) : uniform(size);
        auto& some = points[random() % 4][i];
        if (random() % 8 == 0) some = static_cast<Real>(special[random() % std::size(special)]);
        if (random() % 8 == 0) some = points[random() % 4][i];
    }
    return points;
}

/// Compares every bit of `n` results, for arrays that begin anywhere, and expects that nothing is
/// written behind them. `inPlace` lets results replace the coordinates.
template <class Real>
void check(Form<Real> const& form, Coordinates<Real> const& points, std::size_t n, bool inPlace) {
    using Bits = std::conditional_t<sizeof(Real) == 4, std::uint32_t, std::uint64_t>;
    constexpr Real kUntouched = Real{-12345};
    SCOPED_TRACE(std::to_string(n) + " points" + (inPlace ? ", in place" : ""));
    constexpr std::size_t kResults = 15, kArrays = kResults + 4;
    std::array<std::vector<Real>, kArrays> arrays;  // results; with the coordinates at the end
    std::array<Real*, kArrays> at{};
    for (std::size_t k = 0; k < kArrays; ++k) {
        arrays[k].assign(n + k + 1, kUntouched);
        at[k] = arrays[k].data() + k;
        if (k >= kResults) std::copy_n(points[k - kResults].data(), n, at[k]);
    }
    Real const* const from[] = {at[15], at[16], at[17], at[18]};
    if (inPlace) std::copy_n(at.begin() + kResults, 4, at.begin());
    form.block(from, static_cast<int>(n), at.data());
    for (std::size_t i = 0; i < n; ++i) {
        std::array const p{points[0][i], points[1][i], points[2][i], points[3][i]};
        std::array<Real, kResults> expected;
        expected.fill(kUntouched);
        if (inPlace) std::copy(p.begin(), p.end(), expected.begin());
        form.one(p.data(), expected.data());
        for (std::size_t k = 0; k < form.results; ++k)
            ASSERT_EQ(std::bit_cast<Bits>(at[k][i]), std::bit_cast<Bits>(expected[k]))
                << "result " << k << " at " << p[0] << ' ' << p[1] << ' ' << p[2] << ' ' << p[3];
    }
    for (Real const* const array : at) ASSERT_EQ(array[n], kUntouched);
}

template <class Real> void checkForms(auto const& forms) {
    auto const points = makePoints<Real>(20'000);
    auto const targets = Quern::simdTargets();
    EXPECT_EQ(std::string(targets.back().name), "baseline");
    for (auto const& target : targets) {
        Quern::useSimdTarget(target);
        for (Form<Real> const& form : forms) {
            SCOPED_TRACE(std::string(form.name) + " on " + target.name);
            for (std::size_t count = 0; count <= 40; ++count)
                ASSERT_NO_FATAL_FAILURE(check(form, points, count, count % 2 == 0));
            for (std::size_t const count : {127u, 128u, 129u, 255u, 20'000u})
                ASSERT_NO_FATAL_FAILURE(check(form, points, count, count == 255));
            // All at one time: in the lattice, outside of it, and infinite.
            for (Real const time : {Real(-7.3e6), Real(-0.0), Real(1e20), Real(INFINITY)})
                for (std::size_t const count : {1u, 7u, 33u, 4'000u}) {
                    auto together = points;
                    std::fill_n(together[3].data(), count, time);
                    ASSERT_NO_FATAL_FAILURE(check(form, together, count, count == 33));
                }
        }
    }
    Quern::useSimdTarget(targets.front());
}

TEST(NoiseBlock, EqualsPointsInEveryBit) {
    checkForms<float>(kSimplexForms<float, float4>);
    checkForms<float>(kCurlForms);
    checkForms<double>(kSimplexForms<double, double4>);
    checkForms<double>(kOctaveForms);
}

}  // namespace
