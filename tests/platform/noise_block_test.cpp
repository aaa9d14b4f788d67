#include "zel_platform/orvane_math_support/noise_block.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "zel_platform/orvane_math_support/noise.h"
#include "zel_platform/quern_core/simd_target.h"

namespace {

using namespace Orvane::Math;

constexpr std::int64_t kSeed = -0x123456789abcdef;
constexpr auto kCurlSeed = 0xfedcba98u;

/// Calls `check(name, number of results, block, one)` for each block form and the function for one
/// point, both over arrays of coordinates and of results.
template <class Real, class Point> void forSimplexForms(auto const& check) {
    check(
        "value", 1,
        [](auto p, int n, auto r) { simplex_noise_block(p[0], p[1], p[2], p[3], n, kSeed, r[0]); },
        [](auto p, auto r) {
            r[0] = simplex_noise(Point{p[0], p[1], p[2], p[3]}, kSeed);
        });
    check(
        "value and derivative", 5,
        [](auto p, int n, auto r) {
            simplex_noise_block(p[0], p[1], p[2], p[3], n, kSeed, r[0], r[1], r[2], r[3], r[4]);
        },
        [](auto p, auto r) {
            Point d;
            r[0] = simplex_noise(Point{p[0], p[1], p[2], p[3]}, kSeed, d);
            r[1] = d.x, r[2] = d.y, r[3] = d.z, r[4] = d.w;
        });
}
void forCurlForms(auto const& check) {
    auto const write = [](float3 const& v, float* r) { r[0] = v.x, r[1] = v.y, r[2] = v.z; };
    auto const value = [&](char const* name, auto curl, auto curlBlock) {
        auto const block = [=](auto p, int n, auto r) {
            curlBlock(p[0], p[1], p[2], p[3], n, kCurlSeed, r[0], r[1], r[2]);
        };
        auto const one = [=](auto p, auto r) {
            write(curl(float3{p[0], p[1], p[2]}, p[3], kCurlSeed), r);
        };
        check(name, 3, block, one);
        // All at one time: in the lattice, outside of it, and none.
        for (float const time : {-7.3e6f, -0.0f, 1e20f, std::numeric_limits<float>::infinity()})
            check(
                std::string(name) + " at " + std::to_string(time), 3,
                [=](auto p, int n, auto r) {
                    std::vector<float> const times(static_cast<std::size_t>(n) + 1, time);
                    block(std::array{p[0], p[1], p[2], times.data()}, n, r);
                },
                [=](auto p, auto r) {
                    one(std::array{p[0], p[1], p[2], time}, r);
                });
    };
    auto const derivative = [&](char const* name, auto curl, auto curlBlock) {
        check(
            name, 12,
            [=](auto p, int n, auto r) {
                float* const m[9] = {r[3], r[4], r[5], r[6], r[7], r[8], r[9], r[10], r[11]};
                curlBlock(p[0], p[1], p[2], p[3], n, kCurlSeed, r[0], r[1], r[2], m);
            },
            [=](auto p, auto r) {
                float3x3 m;
                write(curl(float3{p[0], p[1], p[2]}, p[3], kCurlSeed, m), r);
                for (int i = 0; i < 3; ++i) write(m[i], r + 3 + 3 * i);
            });
    };
    using Curl = float3 (*)(float3 const&, float, std::uint32_t);
    value("curl", Curl(curl_noise), curl_noise_block);
    value("smooth curl", Curl(smooth_curl_noise), smooth_curl_noise_block);
    derivative("curl derivative", curl_noise_derivative, curl_noise_derivative_block);
    derivative("smooth curl derivative", smooth_curl_noise_derivative,
               smooth_curl_noise_derivative_block);
}

template <class Real> using Coordinates = std::array<std::vector<Real>, 4>;

/// Coordinates of all sizes up to the end of the lattice and past it, equal coordinates, whole
/// numbers, and numbers that are none, among ordinary ones.
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

/// Compares every bit of `n` results, for arrays that begin anywhere, and that nothing is written
/// behind. `inPlace` lets results replace the coordinates.
template <class Real>
void check(Coordinates<Real> const& points, std::size_t n, bool inPlace, std::size_t outputs,
           auto const& block, auto const& one) {
    using Bits = std::conditional_t<sizeof(Real) == 4, std::uint32_t, std::uint64_t>;
    constexpr Real kUntouched = Real{-12345};
    SCOPED_TRACE(std::to_string(n) + " points" + (inPlace ? ", in place" : ""));
    Coordinates<Real> in;
    std::array<std::vector<Real>, 12> out;
    std::array<Real const*, 4> from{};
    std::array<Real*, 12> to{};
    for (std::size_t k = 0; k < 12; ++k) {
        out[k].assign(n + k + 1, kUntouched);
        to[k] = out[k].data() + k;
        if (k >= 4) continue;
        in[k].assign(n + k + 1, kUntouched);
        std::copy_n(points[k].data(), n, in[k].data() + k);
        from[k] = in[k].data() + k;
        if (inPlace) to[k] = in[k].data() + k;
    }
    block(from, static_cast<int>(n), to.data());
    for (std::size_t i = 0; i < n; ++i) {
        std::array const p{points[0][i], points[1][i], points[2][i], points[3][i]};
        std::array<Real, 12> expected;
        one(p, expected.data());
        for (std::size_t k = 0; k < outputs; ++k)
            ASSERT_EQ(std::bit_cast<Bits>(to[k][i]), std::bit_cast<Bits>(expected[k]))
                << "result " << k << " at " << p[0] << ' ' << p[1] << ' ' << p[2] << ' ' << p[3];
    }
    for (std::size_t k = 0; k < 12; ++k) ASSERT_EQ(to[k][n], kUntouched);
}

template <class Real> void checkForms(auto const& forForms) {
    auto const points = makePoints<Real>(20'000);
    auto const targets = Quern::simdTargets();
    EXPECT_EQ(std::string(targets.back().name), "baseline");
    for (auto const& target : targets) {
        SCOPED_TRACE(target.name);
        Quern::useSimdTarget(target);
        forForms([&](std::string const& name, std::size_t outputs, auto const& block,
                     auto const& one) {
            SCOPED_TRACE(name);
            for (std::size_t count = 0; count <= 40; ++count)
                ASSERT_NO_FATAL_FAILURE(check(points, count, count % 2 == 0, outputs, block, one));
            for (std::size_t const count : {127u, 128u, 129u, 255u, 20'000u})
                ASSERT_NO_FATAL_FAILURE(check(points, count, count == 255, outputs, block, one));
        });
    }
    Quern::useSimdTarget(targets.front());
}

TEST(NoiseBlock, FloatsEqualPointsInEveryBit) {
    checkForms<float>([](auto const& check) {
        forSimplexForms<float, float4>(check);
        forCurlForms(check);
    });
}
TEST(NoiseBlock, DoublesEqualPointsInEveryBit) {
    checkForms<double>([](auto const& check) { forSimplexForms<double, double4>(check); });
}

}  // namespace
