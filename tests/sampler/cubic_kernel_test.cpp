#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

#include "platform/volume/trees.h"
#include "zel/sampler/cubic_stencil.h"

namespace {

using namespace ORV::TileTree3D;
using namespace ORV::TileTree3D::Internal;

constexpr int kTypes[] = {kQuadraticC0Averaged, kCubicC0, kCubicC1, kCubicC1Monotonic};

struct Row {
    float f[4];
    float x[4];
    float at;
};

Row randomRow(trees::Random& random, bool uniform) {
    Row row;
    row.x[0] = random.real(-3, 3);
    for (int i = 1; i < 4; ++i) row.x[i] = row.x[i - 1] + (uniform ? 1 : random.real(0.5F, 4));
    for (float& f : row.f) f = random.real(-10, 10);
    row.at = row.x[1] + random.real(0, 1) * (row.x[2] - row.x[1]);
    return row;
}

float value(int type, Row const& row, bool atJump, bool clamp = false) {
    return interpolateValues1D(type, clamp, row.f, row.x, row.at, atJump);
}

/// The polynomial through points `first` to `last`, by Neville's scheme.
double neville(Row const& row, int first, int last) {
    if (first == last) return row.f[first];
    double const x = row.at, a = row.x[first], b = row.x[last];
    return ((x - b) * neville(row, first, last - 1) - (x - a) * neville(row, first + 1, last)) /
           (a - b);
}
/// The slope at point i of the parabola through it and its two neighbours.
double slope(Row const& row, int i) {
    double const h = row.x[i] - row.x[i - 1], g = row.x[i + 1] - row.x[i];
    double const s = (row.f[i] - row.f[i - 1]) / h, t = (row.f[i + 1] - row.f[i]) / g;
    return s + (t - s) * h / (h + g);
}
/// The cubic of two values and slopes, in Bezier's form.
double hermite(Row const& row, double m1, double m2) {
    double const h = row.x[2] - row.x[1], t = (row.at - row.x[1]) / h;
    std::vector<double> p{row.f[1], row.f[1] + h * m1 / 3, row.f[2] - h * m2 / 3, row.f[2]};
    for (std::size_t n = 3; n > 0; --n)
        for (std::size_t i = 0; i < n; ++i) p[i] += (p[i + 1] - p[i]) * t;
    return p[0];
}
double expected(int type, Row const& row) {
    double const m1 = slope(row, 1), m2 = slope(row, 2), rise = double{row.f[2]} - row.f[1];
    auto const limited = [&](double m) { return m * rise > 0 ? m : 0; };
    switch (type) {
    case kQuadraticC0Averaged:
        return (neville(row, 0, 2) + neville(row, 1, 3)) / 2;
    case kCubicC0:
        return neville(row, 0, 3);
    case kCubicC1:
        return hermite(row, m1, m2);
    default:
        return hermite(row, limited(m1), limited(m2));
    }
}

TEST(Interpolant, ClosedForms) {
    trees::Random random(11);
    for (int n = 0; n < 2000; ++n) {
        Row const row = randomRow(random, n % 2 == 0);
        for (int type : kTypes) {
            double const want = expected(type, row);
            EXPECT_NEAR(value(type, row, true), want, 2e-4) << type;
            if (n % 2 == 0) {
                EXPECT_NEAR(value(type, row, false), want, 5e-5) << type;
            }
        }
    }
}

TEST(Interpolant, ReproducesPolynomials) {
    trees::Random random(12);
    constexpr int kDegree[] = {2, 3, 2, 1};
    for (int n = 0; n < 500; ++n) {
        Row row = randomRow(random, n % 2 == 0);
        for (int type : kTypes) {
            double c[4] = {};
            for (int d = 0; d <= kDegree[type]; ++d) c[d] = random.real(-1, 1);
            auto const p = [&](double x) { return c[0] + x * (c[1] + x * (c[2] + x * c[3])); };
            for (int i = 0; i < 4; ++i) row.f[i] = static_cast<float>(p(row.x[i]));
            double const size = 1 + std::abs(row.f[0]) + std::abs(row.f[3]);
            EXPECT_NEAR(value(type, row, n % 2 != 0), p(row.at), 3e-5 * size) << type;
        }
    }
}

TEST(Interpolant, EndsClampAndUnknownType) {
    trees::Random random(13);
    for (int n = 0; n < 200; ++n) {
        Row row = randomRow(random, n % 2 == 0);
        float const low = std::min(row.f[1], row.f[2]), high = std::max(row.f[1], row.f[2]);
        for (int type : kTypes) {
            float const free = value(type, row, n % 2 != 0);
            EXPECT_EQ(value(type, row, n % 2 != 0, true), std::clamp(free, low, high));
        }
        EXPECT_EQ(value(9, row, n % 2 != 0), 0);
        EXPECT_EQ(value(-1, row, n % 2 != 0, true), std::clamp(0.0F, low, high));
        for (int end : {1, 2})
            for (int type : kTypes) {
                row.at = row.x[end];
                EXPECT_NEAR(value(type, row, n % 2 != 0), row.f[end], 1e-5);
            }
    }
}

TEST(Interpolant, SlopesOfCubicC1MeetAtPoints) {
    trees::Random random(14);
    for (int n = 0; n < 200; ++n) {
        bool const uniform = n % 2 == 0;
        Row const low = randomRow(random, uniform);
        Row high;  // the next row: its point 1 is point 2 of the first
        for (int i = 0; i < 3; ++i) {
            high.x[i] = low.x[i + 1];
            high.f[i] = low.f[i + 1];
        }
        high.x[3] = high.x[2] + (uniform ? 1 : random.real(0.5F, 4));
        high.f[3] = random.real(-10, 10);
        // From three values to one side, exact for parabolas.
        auto const slopeAt = [&](Row row, float x, float step) {
            auto const at = [&](float place) {
                row.at = place;
                return double{value(kCubicC1, row, !uniform)};
            };
            return (4 * at(x + step) - 3 * at(x) - at(x + 2 * step)) / (2 * double{step});
        };
        double const below = slopeAt(low, low.x[2], -1.0F / 64),
                     above = slopeAt(high, low.x[2], 1.0F / 64);
        EXPECT_NEAR(below, above, 0.05) << n;
    }
}

/// The limiter takes away slopes against the rise. It leaves steep ones: only up to three times the
/// rise is a cubic monotone for certain (Fritsch and Carlson, 1980).
TEST(Interpolant, MonotonicRisesWhereSlopesAreNotSteep) {
    trees::Random random(15);
    int tested = 0, flat = 0;
    for (int n = 0; n < 4000; ++n) {
        bool const uniform = n % 2 == 0;
        Row row = randomRow(random, uniform);
        if (n % 5 == 0) row.f[2] = row.f[1];
        double const rise = (double{row.f[2]} - row.f[1]) / (row.x[2] - row.x[1]);
        double const steep = 3 * std::abs(rise);
        bool const steep1 = slope(row, 1) * rise > 0 && std::abs(slope(row, 1)) > steep;
        bool const steep2 = slope(row, 2) * rise > 0 && std::abs(slope(row, 2)) > steep;
        if (steep1 || steep2) continue;
        ++tested;
        flat += rise == 0;
        float last = row.f[1];
        for (int s = 0; s <= 32; ++s) {
            row.at = row.x[1] + static_cast<float>(s) / 32 * (row.x[2] - row.x[1]);
            float const v = value(kCubicC1Monotonic, row, !uniform);
            if (rise == 0) {
                EXPECT_EQ(v, row.f[1]);
            } else {
                EXPECT_GE((v - last) * (rise > 0 ? 1 : -1), -3e-6F);
            }
            last = v;
        }
    }
    EXPECT_GT(tested, 1000);
    EXPECT_GT(flat, 500);
}

bool sameBits(float a, float b) {
    return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b));
}

TEST(Interpolant, LanesHaveTheBitsOfFloats) {
    trees::Random random(16);
    constexpr float kOdd[] = {std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity(),
                              -0.0F,
                              0.0F,
                              1e38F,
                              -1e38F};
    for (int n = 0; n < 3000; ++n) {
        Row rows[4];
        Lanes f[4];
        for (int lane = 0; lane < 4; ++lane) {
            rows[lane] = randomRow(random, false);
            if (n % 3 == 0) rows[lane].f[random(0, 3)] = kOdd[random(0, 5)];
            std::copy_n(rows[0].x, 4, rows[lane].x);
            rows[lane].at = rows[0].at;
            for (int i = 0; i < 4; ++i) f[i][lane] = rows[lane].f[i];
        }
        for (int type : kTypes)
            for (int mode = 0; mode < 4; ++mode) {
                bool const atJump = (mode & 1) != 0, clamp = (mode & 2) != 0;
                Lanes const lanes =
                    interpolateValues1D(type, clamp, f, rows[0].x, rows[0].at, atJump);
                for (int lane = 0; lane < 4; ++lane)
                    EXPECT_TRUE(sameBits(lanes[lane], value(type, rows[lane], atJump, clamp)));
            }
    }
}

template <class Traits> class Block : public testing::Test {};
TYPED_TEST_SUITE(Block, trees::Kinds);

/// A product of polynomials that the type reproduces, gathered at every place in a block of tiles.
TYPED_TEST(Block, ReproducesProductsOfPolynomials) {
    using Traits = TypeParam;
    constexpr int kW = Traits::kSamples;
    auto const field = [](int type, double x, double y, double z) {
        double const bend = type == kCubicC1Monotonic ? 0 : 0.25;
        return (1 + x) * (2 - y) * (0.5 + z + bend * z * z);
    };
    for (int type : kTypes) {
        std::vector<float> samples[8];
        std::vector<float3> vectors[8];
        std::array<float const*, 8> data;
        std::array<float3 const*, 8> vectorData;
        for (unsigned n = 0; n < 8; ++n) {
            for (int l = 0; l < kW * kW * kW; ++l) {
                int const x = l % kW + kW * static_cast<int>(n >> 2),
                          y = l / kW % kW + kW * static_cast<int>(n >> 1 & 1),
                          z = l / kW / kW + kW * static_cast<int>(n & 1);
                samples[n].push_back(static_cast<float>(field(type, x, y, z)));
                vectors[n].push_back({samples[n].back(), static_cast<float>(field(type, y, z, x)),
                                      static_cast<float>(field(type, z, x, y))});
            }
            data[n] = samples[n].data();
            vectorData[n] = vectors[n].data();
        }
        float3 const frac{0.25F, 0.625F, 0.875F};
        for (int l = 0; l < kW * kW * kW; ++l) {
            int3 const low{l % kW, l / kW % kW, l / kW / kW};
            double const x = low.x + 1 + double{frac.x}, y = low.y + 1 + double{frac.y},
                         z = low.z + 1 + double{frac.z};
            CubicStencil<float> stencil;
            gatherBlock<Traits, float>(data, low, stencil);
            CubicStencil<float3> vectorStencil;
            gatherBlock<Traits, float3>(vectorData, low, vectorStencil);
            double const tolerance = 1e-6 * std::abs(field(type, 9, 9, 9)) + 1e-3;
            float3 const vector = vectorStencil.interpolate(type, false, frac);
            EXPECT_NEAR(stencil.interpolate(type, false, frac), field(type, x, y, z), tolerance);
            EXPECT_EQ(vector.x, stencil.interpolate(type, false, frac));
            EXPECT_NEAR(vector.y, field(type, y, z, x), tolerance);
            EXPECT_NEAR(vector.z, field(type, z, x, y), tolerance);
        }
    }
}

TEST(Stencil, ClampToTheCornersAlone) {
    CubicStencil<float> stencil;
    std::vector<float> samples(64);
    for (int spike = 0; spike < 64; ++spike) {
        int const i = spike % 4, j = spike / 4 % 4, k = spike / 16;
        std::fill(samples.begin(), samples.end(), 1.0F);
        samples[static_cast<std::size_t>(spike)] = -100;
        stencil.gather(
            [&](int y, int z) { return SampleRow<float>(&samples[0] + 4 * (y + 4 * z)); });
        bool const corner = (i == 1 || i == 2) && (j == 1 || j == 2) && (k == 1 || k == 2);
        float const clamped = stencil.interpolate(kCubicC0, true, {0.3F, 0.4F, 0.5F});
        EXPECT_NE(stencil.interpolate(kCubicC0, false, {0.3F, 0.4F, 0.5F}), 1);
        EXPECT_EQ(clamped == 1, !corner) << spike;
        EXPECT_EQ(stencil.interpolate(9, false, {}), 0);
        // 0, limited to the range of the corners.
        EXPECT_EQ(stencil.interpolate(9, true, {}), corner ? 0 : 1);
    }
}

}  // namespace
