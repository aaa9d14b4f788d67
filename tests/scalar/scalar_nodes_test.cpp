#include "support/probe.h"

using namespace support;
using namespace zel;

// The expected numbers are worked out by hand; the gradients of children are kA, kB and kT.
// Ordinary numbers are the business of the tests of derivatives.

TEST(ScalarNodes, Arithmetic) {
    check(ScalarRows{
        {makePtr<ScalarFieldConstant>(), 0, {}},
        {makePtr<ScalarFieldAdd>(s(-0.0F), s(-0.0F)), -0.0F, {2, -4, 8}},
        {makePtr<ScalarFieldNegative>(s(0, {0, -0.0F, 4})), -0.0F, {-0.0F, 0, -4}},
        // The two products keep b exactly at 1; a + t * (b - a) would lose it.
        {makePtr<ScalarFieldLerp>(s(1e8F, {}), s(1, {}), s(1, {})), 1, {}},
    });
}

TEST(ScalarNodes, Selection) {
    auto const max = [](float a, float b) { return makePtr<ScalarFieldMax>(s(a, kA), s(b, kB)); };
    auto const min = [](float a, float b) { return makePtr<ScalarFieldMin>(s(a, kA), s(b, kB)); };
    auto const abs = [](float u) { return makePtr<ScalarFieldAbsolute>(s(u)); };
    auto const mask = [](float u) { return makePtr<ScalarFieldMask>(s(u)); };
    auto const clamp = [](float u, float lo, float hi) {
        return makePtr<ScalarFieldClamp>(s(u), lo, hi);
    };
    float3 const none, negative{-1, 2, -4};
    check(ScalarRows{
        {max(2, 2), 2, kA},
        {max(0, -0.0F), -0.0F, kA},
        {max(kNaN, 1), 1, kB},
        {max(1, kNaN), kNaN, kB},
        {min(2, 2), 2, kB},
        {min(0, -0.0F), -0.0F, kB},
        {min(kNaN, 1), 1, kB},
        {min(1, kNaN), kNaN, kB},
        {mask(kLeast), 1, none},
        {mask(kNaN), 0, none},
        {clamp(2, 1, 2), 2, none},
        {clamp(kNaN, 1, 2), kNaN, none},
        {clamp(1.5F, 2, 1), 2, none},
        {clamp(2, 2, 1), 2, none},
        {abs(-0.0F), 0, kA},
        {abs(-kInf), kInf, negative},
        {abs(-kNaN), kNaN, negative},
    });
    EXPECT_FALSE(std::signbit(abs(-kNaN)->eval(kPosition, kIndex)));
}

TEST(ScalarNodes, Powers) {
    auto const pow = [](float u, float e) { return makePtr<ScalarFieldPow>(s(u), e); };
    auto const root = [](float u) { return makePtr<ScalarFieldSquareRoot>(s(u)); };
    check(ScalarRows{
        {pow(-8, 1.0F / 3), kNaN, {kNaN, kNaN, kNaN}},
        {pow(0, 0.5F), 0, {kInf, -kInf, kInf}},
        {pow(0, 0), 1, {kNaN, kNaN, kNaN}},
        {root(-4), 0, {}},
        {root(kNaN), 0, {}},
    });
    // The exact power is 0x1.6b9fb2ffdb9...p+1, so near the middle of two floats that the single
    // precision function may round it up.
    EXPECT_EQ(pow(0x1.00bf28p+1F, 1.5F)->eval({}, 0), 0x1.6b9fb2p+1F);
    // The exponent less 1 is rounded to float: with 0.1F - 1 unrounded, 1.0000001e-28 comes out.
    EXPECT_NEAR(pow(1e30F, 0.1F)->grad({}, 0).x / 1e-28F, 1.00000169, 2e-7);
}

TEST(ScalarNodes, Transcendental) {
    constexpr float kPi = 3.14159265F;
    float3 const none{0, -0.0F, 0}, nan{kNaN, kNaN, kNaN};
    auto const arcSine = [](float u) { return makePtr<ScalarFieldArcSine>(s(u)); };
    auto const arcCosine = [](float u) { return makePtr<ScalarFieldArcCosine>(s(u)); };
    auto const angle = [](float y, float x) {
        return makePtr<ScalarFieldArcTangent_2D>(s(y, kA), s(x, kB));
    };
    check(ScalarRows{
        {arcSine(1), kPi / 2, none, kRounding},
        {arcSine(-2), kNaN, nan},
        {arcSine(2), kNaN, none},
        {arcCosine(1), 0, none},
        {arcCosine(-2), kNaN, nan},
        {angle(0, -0.0F), kPi, {1e4F, -2e4F, 4e4F}, kRounding},
        // An abscissa nearer to 0 than 0.0001 counts as +0.0001, on both sides.
        {angle(1, 0), kPi / 2, {-7.9999F, -16.0002F, 32.0004F}, kRounding},
        {angle(1, -0.00005F), 1.57084633F, {-7.9999F, -16.0002F, 32.0004F}, kRounding},
        {angle(1, -0.0001F), 1.57089633F, {-8.0001F, -15.9998F, 31.9996F}, kRounding},
    });
}

TEST(ScalarNodes, Spatial) {
    auto const scale = [](float3 factor) { return makePtr<ScalarFieldScale>(s(9), factor); };
    auto const turn = [](auto rotation) { return makePtr<ScalarFieldRotate>(s(9), rotation); };
    float const k23 = 0x1p23F;
    float3 const p{1, 2, 3};
    check(ScalarRows{
        {scale({2, -4, 0.5F}), 9, {0.5F, 0.5F, 8}, 0, {2, 4, 8}, {1, -1, 16}},
        {scale({0, -1e-9F, 2}), 9, {k23, -2 * k23, 2}, 0, {3 / k23, 5 / k23, 4}, {3, 5, 2}},
        {scale({-1 / k23, 1, kNaN}), 9, {-k23, -2, kNaN}, 0, {3 / k23, 5, 4}, {-3, 5, kNaN}},
        {turn(float3{1, kNaN, 0}), 9, kA, 0, p, p},
    });
}

TEST(ScalarNodes, AskOnlyWhatTheyNeed) {
    auto const a = s(2, kA, "a"), b = s(3, kB, "b");
    for (float const condition : {1.0F, 0.0F, kNaN}) {
        auto const c = s(condition, kT, "c");
        takeCalls();
        ScalarFieldSwitch(c, a, b).eval(kPosition, kIndex);
        ScalarFieldSwitch(c, a, b).grad(kPosition, kIndex);
        EXPECT_EQ(takeCalls(),
                  condition > 0 ? "c.eval a.eval c.eval a.grad " : "c.eval b.eval c.eval b.grad ");
    }
    ScalarFieldMask(a).grad(kPosition, kIndex);
    EXPECT_EQ(takeCalls(), "");
}

namespace {
/// A user's class whose value is always 2.
template <class Node> struct Two : Node {
    using Node::eval;
    using Node::Node;
    float eval(float3 const& /*p*/, long long /*i*/) const override { return 2; }
};
}  // namespace

TEST(ScalarNodes, GradientsUseTheNodesOwnVirtualValue) {
    EXPECT_TRUE(same(Two<ScalarFieldSquareRoot>(s(-9)).grad({}, 0), {0.25F, -0.5F, 1}));
    EXPECT_TRUE(same(Two<ScalarFieldExp>(s(0)).grad({}, 0), {2, -4, 8}));
}

TEST(ScalarNodes, Shapes) {
    float3 const nan{kNaN, kNaN, kNaN};
    auto const ball = [](float radius) { return makePtr<ScalarFieldSphere>(float3{}, radius); };
    auto const box = [](float size, float power) {
        return makePtr<ScalarFieldImplicitBox>(float3{}, size, power);
    };
    check(ScalarRows{
        {ball(2), -2, {}, 0, {}},
        {ball(2), kNaN, {kNaN, 0, 0}, 0, {kNaN, 0, 0}},
        {ball(1), kInf, {0, 0, 0}, 0, {1e38F, 0, 0}},  // the square overflows
        // The p-norm less a power of the size: the surface lies at 9, not at 3.
        {box(3, 2), 0, {1, 0, 0}, kRounding, {9, 0, 0}},
        {box(3, 2), -9, nan, kRounding, {}},
        {box(1, 1), 4, {1, kNaN, -1}, 0, {2, 0, -3}},  // infinity times 0 below an exponent of 2
        {makePtr<ScalarFieldPlane>(float3{}, float3{}), kNaN, nan, 0, {1, 2, 3}},
    });
    EXPECT_FALSE(std::isfinite(box(1, 0)->eval({1, 2, 3}, 0)));
}
