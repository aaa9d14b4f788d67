#include "support/probe.h"

using namespace support;
using namespace zel;

// The expected numbers are worked out by hand; the gradients of children are kA, kB and kT.
// Ordinary numbers are the business of the tests of derivatives.

TEST(ScalarNodes, Arithmetic) {
    check(ScalarRows{
        {makePtr<ScalarFieldConstant>(), 0, {}},
        {makePtr<ScalarFieldAdd>(s(kInf, kA), s(-kInf, kB)), kNaN, {9, 14, -28}},
        {makePtr<ScalarFieldAdd>(s(-0.0F), s(-0.0F)), -0.0F, {2, -4, 8}},
        {makePtr<ScalarFieldNegative>(s(0, {0, -0.0F, 4})), -0.0F, {-0.0F, 0, -4}},
        {makePtr<ScalarFieldMultiply>(s(0, kA), s(kInf, kB)), kNaN, {kInf, -kInf, kInf}},
        {makePtr<ScalarFieldDivide>(s(6, kA), s(2, kB)), 3, {-11.5F, -25, 50}},
        {makePtr<ScalarFieldDivide>(s(1, kA), s(0, kB)), kInf, {kNaN, -kInf, kInf}},
        {makePtr<ScalarFieldDivide>(s(1, kA), s(-0.0F, kB)), -kInf, {-kInf, kNaN, kNaN}},
        {makePtr<ScalarFieldLerp>(s(2, kA), s(6, kB), s(2, kT)), 10, {17, 35, -72}},
        {makePtr<ScalarFieldLerp>(s(2, kA), s(kInf, kB), s(0, kT)), kNaN, {kInf, kInf, -kInf}},
    });
    // The two products keep b exactly at 1; a + t * (b - a) would lose it.
    EXPECT_EQ(ScalarFieldLerp(s(1e8F), s(1), s(1)).eval({}, 0), 1);
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
        {max(-0.0F, 0), 0, kA},
        {max(0, -0.0F), -0.0F, kA},
        {max(kNaN, 1), 1, kB},
        {max(1, kNaN), kNaN, kB},
        {min(2, 2), 2, kB},
        {min(-0.0F, 0), 0, kB},
        {min(0, -0.0F), -0.0F, kB},
        {min(kNaN, 1), 1, kB},
        {min(1, kNaN), kNaN, kB},
        {mask(0), 0, none},
        {mask(kLeast), 1, none},
        {mask(kNaN), 0, none},
        {clamp(1, 1, 2), 1, none},
        {clamp(2, 1, 2), 2, none},
        {clamp(-kInf, 1, 2), 1, none},
        {clamp(kNaN, 1, 2), kNaN, none},
        {clamp(5, kNaN, kNaN), 5, none},
        {clamp(0, 2, 1), 2, none},
        {clamp(1.5F, 2, 1), 2, none},
        {clamp(2, 2, 1), 2, none},
        {clamp(3, 2, 1), 1, none},
        {abs(0), 0, kA},
        {abs(-0.0F), 0, kA},
        {abs(-kInf), kInf, negative},
        {abs(-kNaN), kNaN, negative},
    });
    EXPECT_FALSE(std::signbit(abs(-kNaN)->eval(kPosition, kIndex)));
}

TEST(ScalarNodes, Powers) {
    auto const pow = [](float u, float e) { return makePtr<ScalarFieldPow>(s(u), e); };
    auto const root = [](float u) { return makePtr<ScalarFieldSquareRoot>(s(u)); };
    auto const exp = [](float u) { return makePtr<ScalarFieldExp>(s(u)); };
    check(ScalarRows{
        {pow(2, 3), 8, {12, -24, 48}},
        {pow(-8, 1.0F / 3), kNaN, {kNaN, kNaN, kNaN}},
        {pow(0, 0.5F), 0, {kInf, -kInf, kInf}},
        {pow(0, 0), 1, {kNaN, kNaN, kNaN}},
        {pow(kInf, -1), 0, {-0.0F, 0, -0.0F}},
        {root(4), 2, {0.25F, -0.5F, 1}},
        {root(-4), 0, {}},
        {root(kNaN), 0, {}},
        {root(kInf), kInf, {0, -0.0F, 0}},
        {exp(0), 1, kA},
        {exp(-kInf), 0, {0, -0.0F, 0}},
        {exp(200), kInf, {kInf, -kInf, kInf}},
        {exp(kNaN), kNaN, {kNaN, kNaN, kNaN}},
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
        {makePtr<ScalarFieldSine>(s(-0.0F)), -0.0F, kA},
        {makePtr<ScalarFieldSine>(s(kInf)), kNaN, nan},
        {makePtr<ScalarFieldCosine>(s(0)), 1, -none},
        {arcSine(1), kPi / 2, none, kRounding},
        {arcSine(-1), -kPi / 2, none, kRounding},
        {arcSine(2), kNaN, none},
        {arcSine(-2), kNaN, nan},
        {arcSine(kNaN), kNaN, none},
        {arcCosine(0), kPi / 2, {-1, 2, -4}, kRounding},
        {arcCosine(1), 0, none},
        {arcCosine(-1), kPi, none, kRounding},
        {arcCosine(2), kNaN, none},
        {arcCosine(-2), kNaN, nan},
        {arcCosine(kNaN), kNaN, none},
        {makePtr<ScalarFieldArcTangent>(s(-kInf)), -kPi / 2, none, kRounding},
        {angle(1, -1), 3 * kPi / 4, {-4.5F, -7, 14}, kRounding},
        {angle(-1, -1), -3 * kPi / 4, {3.5F, 9, -18}, kRounding},
        {angle(0, -0.0F), kPi, {1e4F, -2e4F, 4e4F}, kRounding},
        {angle(-0.0F, -0.0F), -kPi, {1e4F, -2e4F, 4e4F}, kRounding},
        // An abscissa nearer to 0 than 0.0001 counts as +0.0001, on both sides.
        {angle(1, 0), kPi / 2, {-7.9999F, -16.0002F, 32.0004F}, kRounding},
        {angle(1, -0.00005F), 1.57084633F, {-7.9999F, -16.0002F, 32.0004F}, kRounding},
        {angle(1, -0.0001F), 1.57089633F, {-8.0001F, -15.9998F, 31.9996F}, kRounding},
        {angle(1, 0.0002F), 1.57059633F, {-7.9997997F, -16.0003994F, 32.0007987F}, kRounding},
    });
}

TEST(ScalarNodes, Spatial) {
    auto const scale = [](float3 factor) { return makePtr<ScalarFieldScale>(s(9), factor); };
    auto const turn = [](auto rotation) { return makePtr<ScalarFieldRotate>(s(9), rotation); };
    float const h = 1.57079633F, third = 1.20919958F, k23 = 0x1p23F;
    float3 const p{1, 2, 3};
    check(ScalarRows{
        {makePtr<ScalarFieldTranslate>(s(9), float3{1, 2, -4}), 9, kA, 0, {1, 0, 3}, {0, -2, 7}},
        {scale({2, -4, 0.5F}), 9, {0.5F, 0.5F, 8}, 0, {2, 4, 8}, {1, -1, 16}},
        {scale({0, -1e-9F, 2}), 9, {k23, -2 * k23, 2}, 0, {3 / k23, 5 / k23, 4}, {3, 5, 2}},
        {scale({-1 / k23, 1, kNaN}), 9, {-k23, -2, kNaN}, 0, {3 / k23, 5, 4}, {-3, 5, kNaN}},
        {turn(float4{0, 0, 0, 1}), 9, kA, 0, p, p},
        {turn(float4{0, 0, 0, 2}), 9, {4, -8, 16}, 0, p, {4, 8, 12}},
        {turn(float4{0.5F, 0.5F, 0.5F, 0.5F}), 9, {4, 1, -2}, 0, p, {2, 3, 1}},
        {turn(float3{0, 0, h}), 9, {-2, -1, 4}, kRounding, {1, 0, 0}, {0, 1, 0}},
        {turn(float3{third, third, third}), 9, {-2, 4, 1}, 2e-6F, p, {3, 1, 2}},
        {turn(float3{}), 9, kA, 0, p, p},
        {turn(float3{1, kNaN, 0}), 9, kA, 0, p, p},
    });
}

TEST(ScalarNodes, AskOnlyWhatTheyNeed) {
    auto const a = s(2, kA, "a"), b = s(3, kB, "b");
    for (float const condition : {1.0F, 0.0F, kNaN}) {
        ScalarFieldSwitch const node(s(condition, kT, "condition"), a, b);
        std::string const branch = condition > 0 ? "a" : "b";
        takeCalls();
        node.eval(kPosition, kIndex);
        EXPECT_EQ(takeCalls(), "condition.eval " + branch + ".eval ");
        node.grad(kPosition, kIndex);
        EXPECT_EQ(takeCalls(), "condition.eval " + branch + ".grad ");
    }
    ScalarFieldMask(a).grad(kPosition, kIndex);
    EXPECT_EQ(takeCalls(), "");
    ScalarFieldMultiply(a, b).eval(kPosition, kIndex);
    EXPECT_EQ(takeCalls(), "a.eval b.eval ");
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
