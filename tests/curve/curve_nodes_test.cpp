#include <gtest/gtest.h>

#include "support/probe.h"

namespace {

using namespace zel;
using namespace support;
using Orvane::Math::FCurve;

Quern::Ptr<FCurve> line(double slope) {
    return makePtr<FCurve>(
        std::vector<FCurve::Key>{{0, 0, slope, slope, FCurve::Segment::kLinear},
                                 {1, slope, slope, slope, FCurve::Segment::kLinear}},
        FCurve::Extrapolation::kLinear, FCurve::Extrapolation::kLinear);
}

TEST(CurveNodes, SendEachComponentThroughTheCurve) {
    auto const twice = line(2);
    EXPECT_EQ(ScalarFieldFCurve(s(3.5F), twice).eval(kPosition, kIndex), 7);
    EXPECT_EQ(VectorFieldFCurve(v({-1, 0.25F, 8}), twice).eval(kPosition, kIndex),
              (float3{-2, 0.5F, 16}));
    EXPECT_EQ(twice.useCount(), 1);
    for (float const x : {0.1F, -1e30F, 3e-39F, 12345.678F})
        EXPECT_TRUE(same(ScalarFieldFCurve(s(x), line(1)).eval(kPosition, kIndex), x));
    calls.clear();
    ScalarFieldFCurve(s(0, kA, "f"), twice).eval(kPosition, kIndex);
    VectorFieldFCurve(v({}, kMatrixA, "g"), twice).eval(kPosition, kIndex);
    expectIndices();
    EXPECT_EQ(takeCalls(), "f.eval g.eval ");
}

TEST(CurveNodes, DifferentiateByDifferences) {
    ScalarFieldFCurve const node(makePtr<ScalarFieldYPosition>(), line(3));
    EXPECT_NEAR(node.grad(kPosition, 0).y, 3, 1e-4F);
    EXPECT_EQ(node.grad(kPosition, 0).x, 0);
    ScalarFieldFCurve const flat(makePtr<ScalarFieldYPosition>(), makePtr<FCurve>());
    EXPECT_EQ(flat.grad(kPosition, 0), float3{});
}

}  // namespace
