#include <random>

#include "support/probe.h"

// Formulas whose result depends on the order of operations, at random numbers to the bit.
using namespace support;
using namespace zel;

namespace {

class Rounding : public testing::Test {
protected:
    float number() { return distribution(random); }
    float3 vector() {
        float const x = number(), y = number();
        return {x, y, number()};
    }
    float3x3 matrix() {
        float3 const x = vector(), y = vector();
        return {{x, y, vector()}};
    }

private:
    std::mt19937 random{20231105};
    std::uniform_real_distribution<float> distribution{-3, 3};
};

TEST_F(Rounding, OfScalarNodes) {
    for (int n = 0; n < 100; ++n) {
        float const a = number(), b = number(), t = number();
        float3 const ag = vector(), bg = vector(), tg = vector();
        ScalarFieldLerp const lerp(s(a, ag), s(b, bg), s(t, tg));
        EXPECT_TRUE(same(lerp.eval({}, 0), b * t + a * (1 - t)));
        ScalarFieldDivide const quotient(s(a, ag), s(b, bg));
        ScalarFieldArcTangent const angle(s(a, ag));
        ScalarFieldArcTangent_2D const angle2(s(a, ag), s(5 + b, bg));
        float const x = 5 + b, k = a / (x * x);
        for (int c = 0; c < 3; ++c) {
            EXPECT_TRUE(same(lerp.grad({}, 0)[c], (ag[c] * (1 - t) + bg[c] * t) + tg[c] * (b - a)));
            EXPECT_TRUE(same(quotient.grad({}, 0)[c], ag[c] / b - bg[c] * (a / (b * b))));
            EXPECT_TRUE(same(angle.grad({}, 0)[c], ag[c] * (1 / (a * a + 1))));
            EXPECT_TRUE(same(angle2.grad({}, 0)[c], (ag[c] / x - bg[c] * k) * (1 / (k * a + 1))));
        }
    }
}

TEST_F(Rounding, OfVectorNodesAndTurns) {
    for (int n = 0; n < 100; ++n) {
        float3 const a = vector(), b = vector(), tg = vector();
        float3x3 const ag = matrix(), bg = matrix();
        float const t = number();
        VectorFieldLerp const lerp(v(a, ag), v(b, bg), s(t, tg));
        VectorFieldDivide const quotient(v(a, ag), v(b, bg));
        VectorFieldVSDivide const scaled(v(a, ag), s(t, tg));
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                EXPECT_TRUE(same(lerp.grad({}, 0)[r][c],
                                 (ag[r][c] * (1 - t) + bg[r][c] * t) + (b[r] - a[r]) * tg[c]));
                EXPECT_TRUE(same(quotient.grad({}, 0)[r][c],
                                 ag[r][c] / b[r] - (bg[r][c] * a[r]) / (b[r] * b[r])));
                EXPECT_TRUE(
                    same(scaled.grad({}, 0)[r][c], ag[r][c] / t - (tg[c] / (t * t)) * a[r]));
            }
        float4 const q{a.x, a.y, a.z, t};
        float4 const turned = q * float4{b.x, b.y, b.z, 0} * conjugate(q);
        EXPECT_TRUE(same(rotate(q, b), float3{turned.x, turned.y, turned.z}));
    }
}

}  // namespace
