#include "support/probe.h"

// Warps, advection, derivatives as fields, closest points and curves. The gradients of warps are
// the business of the tests of derivatives.
namespace {

using namespace zel;
using namespace support;

TEST(Warp, AsksItsChildrenWhereAndWhenItShould) {
    float3 const moved{1, 2, 4};
    auto const map = v(moved, kMatrixB, "m");
    auto const f = s(9, kA, "f");
    auto const g = v({9, 8, 7}, kMatrixA, "f");
    auto const expect = [](auto const& node, float3 const& at, char const* gradCalls) {
        takeCalls();
        node.eval(kPosition, kIndex);
        node.grad(kPosition, kIndex);
        for (Call const& call : calls)
            EXPECT_EQ(call.position, call.what[0] == 'f' ? at : kPosition) << call.what;
        EXPECT_EQ(takeCalls(), std::string("m.eval f.eval ") + gradCalls);
    };
    expect(ScalarFieldWarp(f, map), moved, "m.eval f.grad m.grad ");
    expect(VectorFieldWarp(g, map), moved, "m.eval f.grad m.grad ");
    expect(ScalarFieldAdvect(f, map, 0.5F), kPosition - 0.5F * moved, "m.eval f.grad m.grad ");
    expect(VectorFieldAdvect(g, map, 0.5F), kPosition - 0.5F * moved, "m.grad m.eval f.grad ");
}

TEST(Derivatives, AreThoseOfTheChild) {
    EXPECT_EQ(VectorFieldCurl(v({}, kMatrixA)).eval(kPosition, kIndex),
              (float3{-7 - 5, -3 - 6, 0.5F - 2}));
    EXPECT_EQ(ScalarFieldDivergence(v({}, kMatrixA)).eval(kPosition, kIndex), 1 - 4 + 8);
    // x and y meet first, so the 1 is lost.
    float3x3 const large{{{1e8F, 0, 0}, {0, 1, 0}, {0, 0, -1e8F}}};
    EXPECT_EQ(ScalarFieldDivergence(v({}, large)).eval(kPosition, kIndex), 0);
    EXPECT_EQ(ScalarFieldGradient(s(0, kB)).eval(kPosition, kIndex), kB);
    // Second derivatives, by differences of the first.
    ScalarPtr const x = makePtr<ScalarFieldXPosition>(), y = makePtr<ScalarFieldYPosition>();
    ScalarFieldGradient const first(makePtr<ScalarFieldMultiply>(x, y));
    EXPECT_TRUE(same(first.grad({1, 2, 3}, 0), {{{0, 1, 0}, {1, 0, 0}, {0, 0, 0}}}, 1e-3F));
}

TEST(ClosestPoint, ProjectsOntoADistanceInOneStep) {
    VectorFieldClosestPointTransform const step(makePtr<ScalarFieldSphere>(float3{}, 1.0F));
    EXPECT_EQ(step.eval(float3{3, 0, 0}, 0), (float3{1, 0, 0}));
    EXPECT_EQ(step.eval(float3{}, 0), float3{});  // no gradient at the centre
    takeCalls();
    VectorFieldClosestPointTransform const probe(s(2, kA, "f"));
    EXPECT_EQ(probe.eval(kPosition, kIndex), kPosition - 2 * kA);
    EXPECT_EQ(takeCalls(), "f.grad f.eval ");
}

TEST(IteratedNearPoint, MakesTheStepsItShould) {
    struct Case {
        float tolerance;
        int iterations, steps;
        float start = 2;
    };
    // From x = 2 the first step goes to 1, and the repeats move by 0.5, 0.25, 0.125, ...
    for (Case const c :
         {Case{0.5F, 10, 3},  // a move of exactly the tolerance goes on
          Case{0.6F, 10, 2}, Case{0.5F, 1, 2}, Case{0.5F, 0, 1}, Case{0.5F, -3, 1}, Case{0, 5, 6},
          Case{kNaN, 5, 6}, Case{kInf, 5, 2}, Case{1, 4, 5, kNaN}}) {  // such a move is never short
        int steps = 0;
        auto const field = makePtr<FunctionField>([&](float3 const& p, long long /*i*/) {
            ++steps;
            return 0.5F * p.x;
        });
        field->gradient = [](float3 const&, long long) { return float3{1, 0, 0}; };
        VectorFieldIteratedNearPointTransform const node(field, c.tolerance, c.iterations);
        float const x = node.eval(float3{c.start, 0, 0}, kIndex).x;
        EXPECT_TRUE(same(x, std::ldexp(c.start, -c.steps)));
        EXPECT_EQ(steps, c.steps) << c.tolerance << " " << c.iterations;
    }
}

TEST(CurveNodes, SendEachComponentThroughTheCurve) {
    using Orvane::Math::FCurve;
    auto const line =
        makePtr<FCurve>(std::vector<FCurve::Key>{{0, 0}, {1, 2}}, FCurve::Extrapolation::kLinear,
                        FCurve::Extrapolation::kLinear);
    ScalarFieldFCurve const node(makePtr<ScalarFieldYPosition>(), line);
    EXPECT_EQ(node.eval({1, 3.5F, 2}, 0), 7);
    EXPECT_EQ(VectorFieldFCurve(v({-1, 0.25F, 8}), line).eval({}, 0), (float3{-2, 0.5F, 16}));
    EXPECT_TRUE(same(node.grad(kPosition, 0), {0, 2, 0}, 1e-4F));
}

}  // namespace
