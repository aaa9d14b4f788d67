#include <random>

#include "support/probe.h"

// Formulas whose result depends on the order of operations, at random numbers to the bit.
using namespace support;
using namespace zel;

TEST(Nodes, KeepTheirOrderOfOperations) {
    std::mt19937 random(20231105);
    auto const number = [&] { return std::uniform_real_distribution<float>(-3, 3)(random); };
    auto const vector = [&] { return float3{number(), number(), number()}; };
    auto const matrix = [&] { return float3x3{{vector(), vector(), vector()}}; };
    for (int n = 0; n < 100; ++n) {
        float3 const a = vector(), b = vector(), tg = vector();
        float3x3 const ag = matrix(), bg = matrix();
        float const t = number();
        VectorFieldLerp const mixed(v(a, ag), v(b, bg), s(t, tg));
        VectorFieldDivide const ratio(v(a, ag), v(b, bg));
        VectorFieldVSDivide const scaled(v(a, ag), s(t, tg));
        ScalarFieldLerp const lerp(s(a.x, ag[0]), s(b.x, bg[0]), s(t, tg));
        ScalarFieldDivide const quotient(s(a.x, ag[0]), s(b.x, bg[0]));
        ScalarFieldArcTangent const angle(s(a.x, ag[0]));
        ScalarFieldArcTangent_2D const angle2(s(a.x, ag[0]), s(5 + b.x, bg[0]));
        float const x = 5 + b.x, k = a.x / (x * x);
        EXPECT_TRUE(same(lerp.eval({}, 0), b.x * t + a.x * (1 - t)));
        for (int c = 0; c < 3; ++c) {
            float const g = ag[0][c], h = bg[0][c];
            EXPECT_TRUE(same(lerp.grad({}, 0)[c], (g * (1 - t) + h * t) + tg[c] * (b.x - a.x)));
            EXPECT_TRUE(same(quotient.grad({}, 0)[c], g / b.x - h * (a.x / (b.x * b.x))));
            EXPECT_TRUE(same(angle.grad({}, 0)[c], g * (1 / (a.x * a.x + 1))));
            EXPECT_TRUE(same(angle2.grad({}, 0)[c], (g / x - h * k) * (1 / (k * a.x + 1))));
            for (int r = 0; r < 3; ++r) {
                EXPECT_TRUE(same(mixed.grad({}, 0)[r][c],
                                 (ag[r][c] * (1 - t) + bg[r][c] * t) + (b[r] - a[r]) * tg[c]));
                EXPECT_TRUE(same(ratio.grad({}, 0)[r][c],
                                 ag[r][c] / b[r] - (bg[r][c] * a[r]) / (b[r] * b[r])));
                EXPECT_TRUE(
                    same(scaled.grad({}, 0)[r][c], ag[r][c] / t - (tg[c] / (t * t)) * a[r]));
            }
        }
        float4 const q{a.x, a.y, a.z, t};
        float4 const turned = q * float4{b.x, b.y, b.z, 0} * conjugate(q);
        EXPECT_TRUE(same(rotate(q, b), float3{turned.x, turned.y, turned.z}));
    }
}
