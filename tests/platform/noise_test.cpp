#include "zel_platform/orvane_math_support/noise.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <numbers>
#include <random>
#include <valarray>
#include <vector>

#include "support/sanitized.h"
#include "zel_platform/orvane_math_support/noise_block.h"
#include "zel_platform/orvane_math_support/scalar_arithmetic.h"

namespace {

using namespace Orvane::Math;
using Lane = Simplex::ScalarArithmetic<double>;
using Point = std::valarray<double>;  // of 4 coordinates, or 3 components

constexpr std::uint32_t kCurlSeed = 77;
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

struct Random {
    std::mt19937_64 engine{20240611};
    double operator()(double a, double b) { return std::uniform_real_distribution(a, b)(engine); }
    Point point(double size) {
        return {(*this)(-size, size), (*this)(-size, size), (*this)(-size, size),
                (*this)(-size, size)};
    }
    Point direction() {
        Point const p = point(1);
        return p / std::sqrt((p * p).sum());
    }
};

Point axis(std::size_t i) {
    Point p(0.0, 4);
    p[i] = 1;
    return p;
}
/// The step between two points whose lattice coordinates differ by `p`.
Point unskew(Point p) {
    p -= p.sum() * (5 + std::sqrt(5.0)) / 20;
    auto const& n = Simplex::kMirrorNormal;
    Point const normal = {n[0], n[1], n[2], n[3]};
    return p - normal * (2 * (normal * p).sum() / (normal * normal).sum());
}
double noise(Point const& p, std::int64_t seed) {
    return simplex_noise(double4{p[0], p[1], p[2], p[3]}, seed);
}
Point derivative(Point const& p, std::int64_t seed) {
    double4 d;
    EXPECT_EQ(simplex_noise(double4{p[0], p[1], p[2], p[3]}, seed, d), noise(p, seed));
    return {d.x, d.y, d.z, d.w};
}
/// The curl noises in double precision: power 3, or 4 for the smooth one.
template <int power> Point curl(Point const& p) {
    Simplex::Double4 const w = {Simplex::Double2{p[0], p[1]}, Simplex::Double2{p[2], p[3]}};
    auto const atPlace = [](auto const& d, auto const& cell) {
        Simplex::NoDerivative none;
        auto const hash = Simplex::hashCell<Lane>(cell, Simplex::makeKeys(kCurlSeed));
        auto const order = Lane::order(d);
        Simplex::CellVertices<Lane> const vertices{order, hash};
        auto const v = Simplex::curl<Lane, power>(d, vertices, none);
        return Point{v.x, v.y, v.z};
    };
    return Simplex::atPlace<Lane>(Simplex::skew<Lane>(w), Simplex::NoOrigin{}, atPlace);
}
float4 single(Point const& p) {
    return {static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2]),
            static_cast<float>(p[3])};
}
/// The columns of a Jacobian, the last along the time, by central differences of fourth order.
std::array<Point, 4> jacobian(auto const& f, Point const& p, double h) {
    std::array<Point, 4> columns;
    for (std::size_t c = 0; c < 4; ++c) {
        auto const at = [&](double s) { return f(p + s * h * axis(c)); };
        columns[c] = (at(-2) - 8.0 * at(-1) + 8.0 * at(1) - at(2)) / (12 * h);
    }
    return columns;
}

/// Expects uncorrelated components of one mean square, from the sums of products of components.
/// Returns the sum of squares.
template <std::size_t n>
double expectIsotropic(std::array<Point, n> const& products, double tolerance) {
    double squares = 0;
    for (std::size_t r = 0; r < n; ++r) squares += products[r][r];
    for (std::size_t r = 0; r < n; ++r)
        for (std::size_t c = 0; c < n; ++c)
            EXPECT_NEAR(products[r][c] / squares * n, r == c, tolerance) << r << ' ' << c;
    return squares;
}

TEST(SimplexNoise, Statistics) {
    constexpr int kCount = 1'000'000;
    Random random;
    double sum = 0, squares = 0, low = 0, high = 0, difference = 0;
    std::array<Point, 4> products;
    products.fill(Point(0.0, 4));
    for (int i = 0; i < kCount; ++i) {
        float4 const p = single(random.point(1000));
        float4 d;
        double const v = simplex_noise(p, 11, d);
        sum += v;
        squares += v * v;
        low = std::min(low, v);
        high = std::max(high, v);
        difference = std::max(difference, std::abs(v - noise({p.x, p.y, p.z, p.w}, 11)));
        Point const slope = {d.x, d.y, d.z, d.w};
        for (std::size_t r = 0; r < 4; ++r) products[r] += slope[r] * slope;
    }
    EXPECT_LT(std::abs(sum / kCount), 0.002);
    EXPECT_NEAR(std::sqrt(squares / kCount), 0.253, 0.005);
    EXPECT_TRUE(-1 <= low && low < -0.85 && 0.85 < high && high <= 1) << low << ' ' << high;
    EXPECT_LT(difference, 2e-6);
    expectIsotropic(products, 0.01);
}

// Two fields that should have nothing to do with one another: the same field a whole number of
// cells away, or another seed.
TEST(SimplexNoise, NeitherPeriodNorRelatedSeeds) {
    auto const correlation = [](Point const& shift, std::int64_t a, std::int64_t b) {
        Random random;
        double ab = 0, aa = 0, bb = 0;
        for (int i = 0; i < 20'000; ++i) {
            Point const p = random.point(20);
            double const u = noise(p, a), v = noise(p + shift, b);
            ab += u * v, aa += u * u, bb += v * v;
        }
        EXPECT_NEAR(std::sqrt(bb / 20'000), 0.253, 0.02);  // still noise out there
        return ab / std::sqrt(aa * bb);
    };
    EXPECT_NEAR(correlation(Point(0.0, 4), 5, 5), 1, 1e-12);
    // Also steps of the low word that a carry into the high word must not undo.
    for (double cells : {256.0, 289.0, 65536.0, 0x1p24, 0x1p31, 0x1p32, 0x1p40, 0x1p32 + 1,
                         0x1p32 - 1, 0x1p32 - 3, 0x1p33 - 2, 0x1p33 + 2, 0x1p40 - 256})
        for (Point const& step : {axis(0), axis(3), Point{1, -1, 0, 0}, Point{1, 1, 1, 1}})
            EXPECT_LT(std::abs(correlation(unskew(cells * step), 5, 5)), 0.04) << cells;
    for (int bit = 0; bit < 64; ++bit) {
        auto const seed = static_cast<std::int64_t>(5 ^ std::uint64_t{1} << bit);
        EXPECT_LT(std::abs(correlation(Point(0.0, 4), 5, seed)), 0.04) << bit;
    }
}

TEST(SimplexNoise, ValueAndDerivativeAreContinuous) {
    Random random;
    auto const corner = Simplex::skew<Lane>(Simplex::Double4{});
    Point const origin = Point{corner[0], corner[1], corner[2], corner[3]} + 0.5;
    for (int i = 0; i < 20'000; ++i) {
        // Onto one of the ten kinds of faces: a lattice coordinate, or a difference of two, is an
        // integer; or onto edges, where several are equal.
        Point p = random.point(50);
        std::size_t const a = random.engine() % 4, b = random.engine() % 4;
        if (i % 2 == 0) {
            p[a] = std::round(p[a]) + (a == b ? 0 : p[b] - std::floor(p[b]));
        } else {
            p[a] = p[b];
            p[random.engine() % 4] = p[random.engine() % 4];
        }
        p = unskew(p - origin);
        Point const step = 1e-9 * random.direction(), before = p - step, after = p + step;
        ASSERT_NEAR(noise(p, i), noise(after, i), 1e-7);
        ASSERT_NEAR(noise(before, i), noise(after, i), 1e-7);
        Point const d = derivative(before, i), e = derivative(after, i);
        for (std::size_t c = 0; c < 4; ++c) ASSERT_NEAR(d[c], e[c], 1e-6);
    }
}

TEST(SimplexNoise, DerivativeAgreesWithDifferences) {
    Random random;
    for (int i = 0; i < 20'000; ++i) {
        float4 const f = single(random.point(30));
        Point const p = {f.x, f.y, f.z, f.w}, d = derivative(p, -i);
        float4 e;
        ASSERT_EQ(simplex_noise(f, -i, e), simplex_noise(f, -i));
        for (std::size_t c = 0; c < 4; ++c) {
            auto const at = [&](double s) { return noise(p + s * axis(c), -i); };
            ASSERT_NEAR(d[c], (at(1e-5) - at(-1e-5)) / 2e-5, 1e-6);
            ASSERT_NEAR(d[c], (Point{e.x, e.y, e.z, e.w}[c]), 1e-4);
        }
    }
}

TEST(Noise, NotFiniteAndHugeCoordinates) {
    constexpr double kMax = std::numeric_limits<double>::max();
    for (std::size_t c = 0; c < 4; ++c)
        for (float bad : {kNaN, kInf, -kInf, 1e38f, -1e38f, 3e15f}) {
            Point p = {0.1, 0.2, 0.3, 0.4};
            p[c] = bad;
            float4 const f = single(p);
            double4 d;
            float4 e;
            float3x3 m, n;
            float3 t;
            float3 const u = curl_noise_derivative({f.x, f.y, f.z}, f.w, 1, m, t);
            float3 const v = smooth_curl_noise_derivative({f.x, f.y, f.z}, f.w, 1, n, t);
            for (double r :
                 {simplex_noise({p[0], p[1], p[2], p[3]}, 1, d), double{simplex_noise(f, 1, e)},
                  d.x, d.w, double{e.y}, double{e.z}, double{u.x}, double{v.y}, double{m[0][0]},
                  double{n[2][1]}, double{t.z}})
                EXPECT_TRUE(std::abs(bad) < kInf ? r == 0 : std::isnan(r)) << bad << ' ' << r;
        }
    EXPECT_EQ(noise({kMax, kMax, kMax, -kMax}, 1), 0);
    Random random;
    for (double size = 1; size < 1e20; size *= 1.7)
        EXPECT_LE(std::abs(noise(random.point(size), std::numeric_limits<std::int64_t>::min())), 1);
}

/// The mean square of a noise over seeds, at places on a plane through the origin.
class PlaneVariance {
public:
    static constexpr int kSide = 56, kSeeds = 400;
    static constexpr float kStep = 0.25F;

    /// `noise(p, count, seed, out)` writes three components. The plane is at right angles to an
    /// axis of space.
    PlaneVariance(auto const& noise, std::size_t normal, float time) : squares(kSide * kSide) {
        std::array<std::vector<float>, 4> p;
        std::array<std::vector<float>, 3> out;
        for (auto& column : p) column.resize(squares.size());
        for (auto& column : out) column.resize(squares.size());
        for (std::size_t i = 0; i < squares.size(); ++i) {
            p[(normal + 1) % 3][i] = kStep * (static_cast<float>(i % kSide) - kSide / 2);
            p[(normal + 2) % 3][i] = kStep * (static_cast<float>(i / kSide) - kSide / 2);
            p[3][i] = time;
        }
        for (std::uint32_t seed = 0; seed < kSeeds; ++seed) {
            noise(p, static_cast<int>(squares.size()), seed, out);
            for (auto const& column : out)
                for (std::size_t i = 0; i < squares.size(); ++i)
                    squares[i] += double{column[i]} * column[i] / kSeeds;
        }
    }
    double mean() const { return squares.sum() / (kSide * kSide); }

    /// The largest amplitude of a wave with two periods or more across the plane, over the mean.
    double strongestWave() const {
        using Complex = std::complex<double>;
        // A window without a jump at the border, whose mean is 1. Frequency f has f / 2 periods.
        auto const window = [](int i, int f) {
            double const angle = std::numbers::pi * i / kSide;
            return std::polar((1 - std::cos(2 * angle)) / kSide, angle * f);
        };
        double strongest = 0;
        for (int f = 0; f <= kSide; ++f) {
            std::array<Complex, kSide> rows{};
            for (std::size_t k = 0; k < squares.size(); ++k)
                rows[k / kSide] += squares[k] * window(static_cast<int>(k % kSide), f);
            for (int g = -kSide; g < kSide; ++g) {
                Complex sum = 0;
                for (int j = 0; j < kSide; ++j)
                    sum += rows[static_cast<std::size_t>(j)] * window(j, g);
                if (f * f + g * g >= 16) strongest = std::max(strongest, 2 * std::abs(sum));
            }
        }
        return strongest / mean();
    }

private:
    std::valarray<double> squares;
};

TEST(Noise, ShowsNoLattice) {
    std::vector<float> times{0.37F, 0.0F, 0.25F, 0.5F, 0.75F};
    if (support::kIsSanitized) times.resize(1);  // the code is the same at all of them
    auto const check = [&](double rms, auto const& noise) {
        for (float const time : times)
            for (std::size_t const normal : {0u, 1u, 2u}) {
                PlaneVariance const plane(noise, normal, time);
                EXPECT_NEAR(std::sqrt(plane.mean()) / rms, 1, 0.015) << time << ' ' << normal;
                EXPECT_LT(plane.strongestWave(), 0.3) << time << ' ' << normal;
            }
        // The origin is a place like any other.
        double squares = 0;
        std::array<std::vector<float>, 4> const origin{{{0}, {0}, {0}, {0}}};
        std::array<std::vector<float>, 3> out{{{0}, {0}, {0}}};
        for (std::uint32_t seed = 0; seed < 4'000; ++seed) {
            noise(origin, 1, seed, out);
            for (auto const& column : out) squares += double{column[0]} * column[0] / 4'000;
        }
        EXPECT_NEAR(std::sqrt(squares) / rms, 0.95, 0.15);
    };
    check(0.254, [](auto const& p, int count, std::uint32_t seed, auto& out) {
        simplex_noise_block(p[0].data(), p[1].data(), p[2].data(), p[3].data(), count, seed,
                            out[0].data());
    });
    for (auto* const block : {&curl_noise_block, &smooth_curl_noise_block})
        check(2.8, [=](auto const& p, int count, std::uint32_t seed, auto& out) {
            block(p[0].data(), p[1].data(), p[2].data(), p[3].data(), count, seed, out[0].data(),
                  out[1].data(), out[2].data());
        });
}

TEST(CurlNoise, IsFreeOfDivergenceAndAgreesWithDifferences) {
    Random random;
    auto const check = [&](auto const& field, auto const& publicField, auto const& publicSlope) {
        int checked = 0;
        std::array<Point, 3> products;
        products.fill(Point(0.0, 3));
        for (int i = 0; i < 5'000; ++i) {
            float4 const f = single(random.point(20));
            Point const p = {f.x, f.y, f.z, f.w}, v = field(p);
            auto const j = jacobian(field, p, 1e-4), wide = jacobian(field, p, 2e-3);
            float3x3 m;
            float3 t;
            float3 const w = publicSlope({f.x, f.y, f.z}, f.w, kCurlSeed, m, t);
            ASSERT_EQ(publicField({f.x, f.y, f.z}, f.w, kCurlSeed), w);
            double size = 1, kink = 0;
            for (std::size_t c = 0; c < 3; ++c) {
                ASSERT_NEAR(v[c], w[static_cast<int>(c)], 1e-4);
                products[c] += v[c] * v;
                size = std::max(size, Point(std::abs(j[c])).max());
                kink = std::max(kink, Point(std::abs(j[c] - wide[c])).max());
            }
            ASSERT_LT(std::abs(m[0][0] + m[1][1] + m[2][2]) / size, 1e-6);
            // The plain curl has a kink where the support of a vertex ends.
            if (kink > 1e-6 * size) continue;
            ++checked;
            ASSERT_LT(std::abs(j[0][0] + j[1][1] + j[2][2]) / size, 1e-7);
            for (std::size_t r = 0; r < 3; ++r) {
                for (std::size_t c = 0; c < 3; ++c)
                    ASSERT_NEAR(j[c][r], m[static_cast<int>(r)][static_cast<int>(c)], 1e-5 * size);
                ASSERT_NEAR(j[3][r], t[static_cast<int>(r)], 1e-5 * size);
            }
        }
        EXPECT_GT(checked, 4'000);
        EXPECT_NEAR(std::sqrt(expectIsotropic(products, 0.1) / 5'000), 2.8, 0.1);
    };
    using Curl = float3 (*)(float3 const&, float, std::uint32_t);
    check(curl<3>, Curl(curl_noise), curl_noise_derivative);
    check(curl<4>, Curl(smooth_curl_noise), smooth_curl_noise_derivative);
}

TEST(CurlNoise, TableGivesTheBitsOfItsTime) {
    Random random;
    using Bits = std::array<std::uint32_t, 3>;
    for (int i = 0; i < 100'000; ++i) {
        double const scale = i % 2 == 0 ? std::pow(10.0, random(-10, 20)) : 1;
        auto const time = static_cast<float>(random(-0.5, 0.5) * scale);
        std::array<float, 16> table;
        table.fill(kNaN);
        create_curl_noise_time_table(time, table.data());
        float4 const f = single(random.point(100));
        float3 const p = {f.x, f.y, f.z}, v = smooth_curl_noise(p, time, kCurlSeed);
        ASSERT_EQ(std::bit_cast<Bits>(v),
                  std::bit_cast<Bits>(smooth_curl_noise(p, table.data(), kCurlSeed)))
            << time;
        // The split of the time, against the time as a plain coordinate in double precision.
        if (std::abs(time) < 1e8f) {
            ASSERT_NEAR(v.x, (curl<4>({p.x, p.y, p.z, time})[0]), 1e-4);
        }
        table.fill(f.w * 1e30f);  // any other table is harmless
        ASSERT_EQ(smooth_curl_noise(p, table.data(), kCurlSeed).x, 0);
    }
}

}  // namespace
