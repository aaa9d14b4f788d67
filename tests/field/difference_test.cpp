#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
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

TEST(DefaultGradient, KeepsItsOrderOfOperationsToTheBit) {
    struct Bumpy : VectorField {
        using VectorField::eval;
        float3 eval(float3 const& p, long long i) const override {
            EXPECT_EQ(i, 5);
            asked.push_back(p);
            return {std::sin(p.x) + p.y, p.y * p.z, p.x / (p.z + 9)};
        }
        mutable std::vector<float3> asked;
    } const field;
    struct First : ScalarField {
        explicit First(Bumpy const& field) : field(&field) {}
        using ScalarField::eval;
        float eval(float3 const& p, long long i) const override { return field->eval(p, i).x; }
        Bumpy const* field;
    };
    float const q = 1.01F, qinv = 0.990099F;
    std::mt19937 random(11);
    std::uniform_real_distribution<float> coordinate(-3, 3);
    for (int n = 0; n < 50; ++n) {
        float3 const p{coordinate(random), n == 0 ? 0 : coordinate(random), coordinate(random)};
        field.asked.clear();
        float3x3 const m = field.grad(p, 5);
        float3 const first = First(field).grad(p, 5);
        ASSERT_EQ(field.asked.size(), 12U);
        for (int axis = 0; axis < 3; ++axis) {
            float const d = p[axis] == 0 ? 0.0001F : 0;
            float3 up = p, down = p;
            up[axis] = (p[axis] + d) * q;
            down[axis] = (p[axis] + d) * qinv;
            auto const at = static_cast<std::size_t>(2 * axis);
            EXPECT_EQ(field.asked[at], up);
            EXPECT_EQ(field.asked[at + 1], down);
            float3 const f1 = field.eval(up, 5), f2 = field.eval(down, 5);
            float const divisor = (d + p[axis]) * 0.019900978F;
            for (int r = 0; r < 3; ++r) EXPECT_EQ(m[r][axis], (f1[r] - f2[r]) / divisor);
            EXPECT_EQ(first[axis], m[0][axis]);
        }
    }
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
