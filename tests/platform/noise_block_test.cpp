#include "orvane_math_support/noise.h"
#include "orvane_math_support/noise_block.h"
#include "quern_core/simd_target.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Orvane::Math;

constexpr unsigned kSeed = 20241109;
constexpr std::int64_t kNoiseSeed = -0x123456789abcdef;
constexpr auto kCurlSeed = 0xfedcba98u;

/// 16 floats of a time table.
std::array<float, 16> const& table(int which) {
    static auto const tables = [] {
        std::array<std::array<float, 16>, 3> t;
        create_curl_noise_time_table(-7.3e6f, t[0].data());
        create_curl_noise_time_table(1e20f, t[1].data());  // outside the lattice
        create_curl_noise_time_table(std::numeric_limits<float>::infinity(), t[2].data());
        return t;
    }();
    return tables[static_cast<std::size_t>(which)];
}

/// A block form and the function for one point, both over arrays of pointers.
template <class Real> struct Form {
    using Block = void (*)(Real const* const* in, int count, Real* const* out);
    using One = void (*)(Real const* in, Real* out);
    char const* name;
    int inputs, outputs;
    Block block;
    One one;
};

template <int which> constexpr Form<float> tableForm(char const* name) {
    return {
        name, 3, 3,
        [](float const* const* p, int n, float* const* r) {
            smooth_curl_noise_table_block(p[0], p[1], p[2], table(which).data(), n, kCurlSeed, r[0],
                                          r[1], r[2]);
        },
        [](float const* p, float* r) {
            auto const v = smooth_curl_noise({p[0], p[1], p[2]}, table(which).data(), kCurlSeed);
            r[0] = v.x, r[1] = v.y, r[2] = v.z;
        }};
}

template <class Real, class Point> std::vector<Form<Real>> simplexForms() {
    return {{"value", 4, 1,
             [](Real const* const* p, int n, Real* const* r) {
                 simplex_noise_block(p[0], p[1], p[2], p[3], n, kNoiseSeed, r[0]);
             },
             [](Real const* p, Real* r) {
                 r[0] = simplex_noise(Point{p[0], p[1], p[2], p[3]}, kNoiseSeed);
             }},
            {"value and derivative", 4, 5,
             [](Real const* const* p, int n, Real* const* r) {
                 simplex_noise_block(p[0], p[1], p[2], p[3], n, kNoiseSeed, r[0], r[1], r[2], r[3],
                                     r[4]);
             },
             [](Real const* p, Real* r) {
                 Point d;
                 r[0] = simplex_noise(Point{p[0], p[1], p[2], p[3]}, kNoiseSeed, d);
                 r[1] = d.x, r[2] = d.y, r[3] = d.z, r[4] = d.w;
             }}};
}

using Curl = float3 (*)(float3 const&, float, std::uint32_t);
using CurlBlock = void (*)(float const*, float const*, float const*, float const*, int,
                           std::uint32_t, float*, float*, float*);
template <Curl one, CurlBlock block> constexpr Form<float> curlForm(char const* name) {
    return {name, 4, 3,
            [](float const* const* p, int n, float* const* r) {
                block(p[0], p[1], p[2], p[3], n, kCurlSeed, r[0], r[1], r[2]);
            },
            [](float const* p, float* r) {
                float3 const v = one({p[0], p[1], p[2]}, p[3], kCurlSeed);
                r[0] = v.x, r[1] = v.y, r[2] = v.z;
            }};
}

using Derivative = float3 (*)(float3 const&, float, std::uint32_t, float3x3&);
using DerivativeBlock = void (*)(float const*, float const*, float const*, float const*, int,
                                 std::uint32_t, float*, float*, float*, float* const (&)[9]);
template <Derivative one, DerivativeBlock block>
constexpr Form<float> derivativeForm(char const* name) {
    return {name, 4, 12,
            [](float const* const* p, int n, float* const* r) {
                float* const jacobian[9] = {r[3], r[4], r[5], r[6], r[7], r[8], r[9], r[10], r[11]};
                block(p[0], p[1], p[2], p[3], n, kCurlSeed, r[0], r[1], r[2], jacobian);
            },
            [](float const* p, float* r) {
                float3x3 m;
                float3 const v = one({p[0], p[1], p[2]}, p[3], kCurlSeed, m);
                for (int c = 0; c < 3; ++c) {
                    r[c] = v[c];
                    for (int row = 0; row < 3; ++row) r[3 + 3 * row + c] = m[row][c];
                }
            }};
}

std::vector<Form<float>> floatForms() {
    auto forms = simplexForms<float, float4>();
    forms.push_back(curlForm<curl_noise, curl_noise_block>("curl"));
    forms.push_back(curlForm<smooth_curl_noise, smooth_curl_noise_block>("smooth curl"));
    forms.push_back(tableForm<0>("smooth curl, table"));
    forms.push_back(tableForm<1>("smooth curl, table outside"));
    forms.push_back(tableForm<2>("smooth curl, table of no time"));
    forms.push_back(
        derivativeForm<curl_noise_derivative, curl_noise_derivative_block>("curl derivative"));
    forms.push_back(
        derivativeForm<smooth_curl_noise_derivative, smooth_curl_noise_derivative_block>(
            "smooth curl derivative"));
    return forms;
}

/// Coordinates of `count` points: mostly ordinary ones, then all sizes up to the end of the
/// lattice and past it, equal coordinates, whole numbers, and numbers that are none.
template <class Real> std::array<std::vector<Real>, 4> makePoints(int count, bool ordinary) {
    std::mt19937_64 random(kSeed);
    auto const uniform = [&](double a, double b) {
        return std::uniform_real_distribution(a, b)(random);
    };
    using Limits = std::numeric_limits<Real>;
    Real const special[] = {Real{0},
                            -Real{0},
                            Real{1},
                            -Limits::min(),
                            Limits::denorm_min(),
                            Limits::max(),
                            -Limits::max(),
                            Limits::infinity(),
                            -Limits::infinity(),
                            Limits::quiet_NaN(),
                            Real(0x1p48),
                            -Real(0x1p48),
                            Real(0x1p46),
                            Real(2147483648.0)};
    std::array<std::vector<Real>, 4> points;
    for (auto& p : points) p.resize(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
        for (auto& p : points) p[i] = static_cast<Real>(uniform(-100, 100));
        if (ordinary) continue;
        auto& some = points[random() % 4][i];
        switch (random() % 8) {
        case 0:
            some = special[random() % std::size(special)];
            break;
        case 1:
            some = points[random() % 4][i];
            break;
        case 2:
            for (auto& p : points) p[i] = std::round(p[i]);
            break;
        case 3: {
            double const size = std::pow(10.0, uniform(-20, 16));
            for (auto& p : points) p[i] = static_cast<Real>(uniform(-size, size));
            break;
        }
        default:
            break;
        }
    }
    return points;
}

template <class Real> class Checker {
    using Bits = std::conditional_t<sizeof(Real) == 4, std::uint32_t, std::uint64_t>;
    using Pointers = std::array<Real*, 12>;
    static constexpr Real kUntouched = Real{-12345};

public:
    /// Compares every bit of the first `count` results, for arrays that begin anywhere, and that
    /// nothing is written behind. `inPlace` lets results replace the coordinates.
    void operator()(Form<Real> const& form, std::array<std::vector<Real>, 4> const& points,
                    int count, bool inPlace) {
        SCOPED_TRACE(std::string(form.name) + ", " + std::to_string(count) + " points" +
                     (inPlace ? ", in place" : ""));
        std::array<std::vector<Real>, 4> in;
        std::array<std::vector<Real>, 12> out;
        std::array<Real const*, 4> from{};
        Pointers to{};
        auto const n = static_cast<std::size_t>(count);
        for (std::size_t k = 0; k < 12; ++k) {
            out[k].assign(n + k + 1, kUntouched);
            to[k] = out[k].data() + k;
            if (k >= 4) continue;
            in[k].assign(n + k + 1, kUntouched);
            std::copy_n(points[k].data(), n, in[k].data() + k);
            from[k] = in[k].data() + k;
            if (inPlace) to[k] = in[k].data() + k;
        }
        form.block(from.data(), count, to.data());
        for (std::size_t i = 0; i < n; ++i) {
            Real const p[4] = {points[0][i], points[1][i], points[2][i], points[3][i]};
            Real expected[12];
            form.one(p, expected);
            for (int k = 0; k < form.outputs; ++k)
                ASSERT_EQ(std::bit_cast<Bits>(to[static_cast<std::size_t>(k)][i]),
                          std::bit_cast<Bits>(expected[k]))
                    << "result " << k << " at " << p[0] << ' ' << p[1] << ' ' << p[2] << ' '
                    << p[3];
        }
        for (std::size_t k = 0; k < 12; ++k) ASSERT_EQ(to[k][n], kUntouched);
    }
};

/// On every instruction set of this machine.
template <class Body> void onEveryTarget(Body const& body) {
    std::printf("seed %u\n", kSeed);
    auto const targets = Quern::simdTargets();
    for (auto const& target : targets) {
        SCOPED_TRACE(target.name);
        Quern::useSimdTarget(target);
        body();
        if (testing::Test::HasFatalFailure()) break;
    }
    Quern::useSimdTarget(targets.front());
}

template <class Real> void checkForms(std::vector<Form<Real>> const& forms) {
    auto const ordinary = makePoints<Real>(1000, true), any = makePoints<Real>(20'000, false);
    onEveryTarget([&] {
        Checker<Real> check;
        for (auto const& form : forms) {
            for (int count = 0; count <= 40; ++count) check(form, ordinary, count, count % 2 == 0);
            for (int count : {127, 128, 129, 255, 1000}) check(form, any, count, true);
            check(form, any, 20'000, false);
        }
    });
}

TEST(NoiseBlock, FloatsEqualPointsInEveryBit) {
    checkForms(floatForms());
}

TEST(NoiseBlock, DoublesEqualPointsInEveryBit) {
    checkForms(simplexForms<double, double4>());
}

TEST(NoiseBlock, NothingIsDoneForACountBelowZero) {
    onEveryTarget([] {
        float out = 3;
        simplex_noise_block(nullptr, nullptr, nullptr, nullptr, -5, 1, &out);
        EXPECT_EQ(out, 3);
    });
}

TEST(SimdTarget, BestFirstAndBaselineLast) {
    auto const targets = Quern::simdTargets();
    ASSERT_FALSE(targets.empty());
    EXPECT_EQ(std::string(targets.back().name), "baseline");
    for (std::size_t i = 1; i < targets.size(); ++i)
        EXPECT_LT(targets[i - 1].bit, targets[i].bit);  // in Highway's order, better is less
}

}  // namespace
