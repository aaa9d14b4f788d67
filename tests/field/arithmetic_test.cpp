#include <random>

#include "support/probe.h"
#include "zel/field/math.h"

// Formulas whose result depends on the order of operations, to the bit.
namespace {

using namespace zel;
using namespace support;
using namespace Orvane::Math;

struct Bumpy : VectorField {
    using VectorField::eval;
    float3 eval(float3 const& p, long long i) const override {
        EXPECT_EQ(i, kIndex);
        return {std::sin(p.x) + p.y, p.y * p.z, p.x / (p.z + 9)};
    }
};

TEST(DefaultGradient, KeepsItsOrderOfOperationsToTheBit) {
    Bumpy const field;
    FunctionField const first([&](float3 const& p, long long i) { return field.eval(p, i).x; });
    std::mt19937 random(11);
    std::uniform_real_distribution<float> coordinate(-3, 3);
    std::vector<float3> points{{0, 1, 2}, {1, -0.0F, 2}, {kNaN, 1, 1}, {1, 2, 1e30F}};
    for (int n = 0; n < 50; ++n)
        points.push_back({coordinate(random), coordinate(random), coordinate(random)});
    for (float3 const& p : points)
        for (int axis = 0; axis < 3; ++axis) {
            float const d = p[axis] == 0 ? 0.0001F : 0;
            float3 up = p, down = p;
            up[axis] = (p[axis] + d) * 1.01F;
            down[axis] = (p[axis] + d) * 0.990099F;
            float3 const f1 = field.eval(up, kIndex), f2 = field.eval(down, kIndex);
            float const divisor = (d + p[axis]) * 0.019900978F;
            for (int r = 0; r < 3; ++r)  // components in rows, coordinates in columns
                EXPECT_TRUE(same(field.grad(p, kIndex)[r][axis], (f1[r] - f2[r]) / divisor));
            EXPECT_TRUE(same(first.grad(p, kIndex)[axis], (f1.x - f2.x) / divisor));
        }
}

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
        ScalarFieldDivide const quotient(s(a.x, ag[0]), s(b.x, bg[0]));
        ScalarFieldArcTangent const angle(s(a.x, ag[0]));
        ScalarFieldArcTangent_2D const angle2(s(a.x, ag[0]), s(5 + b.x, bg[0]));
        float const x = 5 + b.x, k = a.x / (x * x);
        for (int c = 0; c < 3; ++c) {
            float const g = ag[0][c], h = bg[0][c];
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

TEST(Math, Vectors) {
    // x and y meet first, so the 1 is lost.
    EXPECT_EQ(dot({1, 1e8F, -1e8F}, {1, 1, 1}), 0);
    EXPECT_TRUE(same(cross({1, 2, 3}, {4, -5, 6}), {27, 6, -13}));
    // 5 * (1 / 49.0F) is another float than 5 / 49.0F.
    EXPECT_TRUE(same(float3{5, 7, 98} / 49.0F, {0.102040820F, 0.142857149F, 2}));

    struct Case {
        float3 a, b;
        bool above, below;
    };
    for (auto const& [a, b, above, below] :
         std::vector<Case>{{{1, 0, 0}, {0, 9, 9}, true, false},
                           {{0, 9, 9}, {0, 9, 9}, false, false},
                           {{1, 1, 9}, {1, 2, 0}, false, true},
                           {{-0.0F, 0, 1}, {0, -0.0F, 0}, true, false},
                           {{1, kNaN, 9}, {1, 0, 0}, false, false},
                           {{2, kNaN, 9}, {1, 0, 0}, true, false}}) {
        EXPECT_TRUE((a > b) == above && (b < a) == above) << a.x << " " << a.y << " " << a.z;
        EXPECT_TRUE((a < b) == below && (b > a) == below) << a.x << " " << a.y << " " << a.z;
    }
}

}  // namespace
