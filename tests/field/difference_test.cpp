#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "zel/zel.h"

// The default gradients, by relative differences.
namespace {

using namespace zel;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

/// Records where it is asked and answers from a list.
class Probe : public ScalarField {
public:
    explicit Probe(std::vector<float> answers) : answers(std::move(answers)) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        asked.push_back(p);
        EXPECT_EQ(i, -42);
        return answers[asked.size() - 1];
    }
    mutable std::vector<float3> asked;

private:
    std::vector<float> answers;
};

TEST(DefaultGradient, AsksSixPointsInOrder) {
    Probe const probe({5, 3, 7, 6, 1, 2});
    float3 const g = probe.grad(float3{-2, -0.0F, 1e30F}, -42);
    ASSERT_EQ(probe.asked.size(), 6U);
    EXPECT_EQ(probe.asked[0], (float3{-2.02F, -0.0F, 1e30F}));
    EXPECT_EQ(probe.asked[1], (float3{-1.980198F, -0.0F, 1e30F}));
    EXPECT_EQ(probe.asked[2].x, -2);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(probe.asked[2].y),
              std::bit_cast<std::uint32_t>(1.01e-4F));
    EXPECT_FLOAT_EQ(probe.asked[3].y, 9.90099e-5F);
    EXPECT_TRUE(std::signbit(probe.asked[4].y));  // the other coordinates keep their sign
    EXPECT_GT(probe.asked[4].z, probe.asked[5].z);
    // Differences over the steps: -2 * 0.0199..., 1e-4 * 0.0199..., 1e30 * 0.0199...
    EXPECT_FLOAT_EQ(g.x, 2 / (-2 * 0.019900978F));
    EXPECT_FLOAT_EQ(g.y, 1 / (1e-4F * 0.019900978F));
    EXPECT_FLOAT_EQ(g.z, -1 / (1e30F * 0.019900978F));
}

TEST(DefaultGradient, OfANanCoordinateIsNanAlongItAlone) {
    Probe const probe({1, 1, 4, 3, 2, 2});
    float3 const g = probe.grad(float3{kNan, 1, 1}, -42);
    EXPECT_TRUE(std::isnan(g.x));
    EXPECT_FLOAT_EQ(g.y, 1 / 0.019900978F);
    EXPECT_EQ(g.z, 0);
    EXPECT_TRUE(std::isnan(probe.asked[2].x));
}

TEST(DefaultGradient, PutsComponentsInRowsAndCoordinatesInColumns) {
    struct Linear : VectorField {
        using VectorField::eval;
        float3 eval(float3 const& p, long long /*i*/) const override {
            return {2 * p.x + 3 * p.y, 5 * p.y - 7 * p.z, 11 * p.x};
        }
    };
    float const expected[3][3] = {{2, 3, 0}, {0, 5, -7}, {11, 0, 0}};
    for (float3 const p : {float3{1, -2, 3}, float3{0, 0, 0}, float3{-100, 0.25F, 7}}) {
        float3x3 const m = Linear().grad(p, 0);
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) EXPECT_NEAR(m[r][c], expected[r][c], 2e-2) << r << c;
    }
}

}  // namespace
