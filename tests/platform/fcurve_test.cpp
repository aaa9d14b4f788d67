#include "zel_platform/orvane_math/fcurve.h"

#include <cmath>
#include <limits>
#include <stdexcept>

#include "support/fuzz_target.h"
#include "support/refused.h"

namespace {

using Orvane::Math::FCurve;
using Key = FCurve::Key;
using enum FCurve::Extrapolation;
constexpr auto kLine = FCurve::Segment::kLinear;
constexpr auto kHermite = FCurve::Segment::kCubic;
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kMax = std::numeric_limits<double>::max();

constexpr auto kHold = FCurve::Extrapolation::kConstant, kGoOn = FCurve::Extrapolation::kLinear;

TEST(FCurve, AgreesWithItsFormulasInLongDouble) {
    support::runFuzzTarget(50'000, 300);  // fuzz/fcurve_fuzz.cpp
}

TEST(FCurve, ContinuesToInfinity) {
    std::vector<Key> const keys = {{0.5, 1, 0, 2, kHermite}, {1.25, 3, -1, 0, kLine}, {2.5, 4}};
    FCurve const cycle(keys, kCycle, kCycle), offset(keys, kCycleWithOffset, kCycleWithOffset);
    // The remainder of 1e300 by 2 is 0, which lies 1.5 after the first key.
    EXPECT_EQ(cycle.evalFCurve(1e300), cycle.evalFCurve(2));
    EXPECT_EQ(offset.evalFCurve(kInf), kInf);
    EXPECT_EQ(offset.evalFCurve(-kInf), -kInf);
    EXPECT_TRUE(std::isnan(cycle.evalFCurve(kInf)));
    for (double end : {-kInf, kInf})
        for (FCurve const* curve : {&cycle, &offset}) EXPECT_TRUE(std::isnan(curve->slope(end)));
    FCurve const rising({{0, 0}, {1, 1}, {2, 5}}, kGoOn, kGoOn);
    EXPECT_TRUE(rising.evalFCurve(kInf) == kInf && rising.evalFCurve(-kInf) == -kInf);
}

TEST(FCurve, AnyInputGivesANumber) {
    EXPECT_EQ(FCurve().evalFCurve(std::nan("")), 0);
    EXPECT_EQ(FCurve({}, kCycle, kCycleWithOffset).evalFCurve(-kInf), 0);
    for (auto kind : {kHold, kGoOn, kCycle, kCycleWithOffset}) {
        FCurve const one({{1, 7}}, kind, kind), wide({{-1e308, 1}, {1e308, 2}}, kind, kind),
            tight({{0, 1}, {5e-324, 2}, {1e-310, 3}, {1, -kMax}, {3, kMax}}, kind, kind);
        EXPECT_TRUE(std::isnan(one.evalFCurve(std::nan(""))));
        for (double x : {-kInf, -kMax, 0.0, 1.0, kMax, kInf}) EXPECT_EQ(one.evalFCurve(x), 7);
        EXPECT_DOUBLE_EQ(wide.evalFCurve(kMax), kind == kGoOn ? 1.5 + kMax / 2 * 1e-308 : 2);
        EXPECT_EQ(wide.evalFCurve(0), 1.5);
        EXPECT_EQ(tight.evalFCurve(0), 1);
        EXPECT_EQ(tight.evalFCurve(5e-324), 2);
        EXPECT_NEAR(tight.evalFCurve(5e-311), 2.5, 1e-9);
        EXPECT_EQ(tight.evalFCurve(2), 0);
    }
    FCurve const slow({{-1e308, 0}, {1e308, 1e300}}, kGoOn, kGoOn);
    EXPECT_DOUBLE_EQ(slow.evalFCurve(1.7e308), 1.35e300);
    EXPECT_EQ(slow.evalFCurve(kInf), kInf);
    FCurve const wideCubic({{-1e308, 0, 0, 0, kHermite}, {1e308, 1e300}}, kHold, kHold);
    EXPECT_DOUBLE_EQ(wideCubic.evalFCurve(0), 5e299);
    EXPECT_DOUBLE_EQ(wideCubic.slope(0), 7.5e-9);
    FCurve const gentle({{-1e308, 0, 0, 5e-324, kHermite}, {1e308, 0, 5e-324}}, kHold, kHold);
    EXPECT_NEAR(gentle.evalFCurve(-5e307) / (0.375 * 5e307 * 5e-324), 1, 1e-12);
    FCurve const high({{0, -kMax, 0, 0, kHermite}, {1, kMax}}, kGoOn, kGoOn);
    EXPECT_NEAR(high.evalFCurve(0.5), 0, 1e294);
    FCurve const steep({{0, 1}, {1e-310, 1.03125}}, kCycleWithOffset, kCycleWithOffset);
    EXPECT_DOUBLE_EQ(steep.evalFCurve(0.0625), 0.0625 * 0.03125 / 1e-310);
    FCurve const cycle({{0, 0}, {1, 1}, {2, 5}}, kCycle, kCycle);
    for (double x : {-1e-15, -1e-17, -5e-324})
        EXPECT_NEAR(cycle.evalFCurve(x), 5, 1e-14);  // the end of the cycle before
}

TEST(FCurve, SetUpNamesTheBadKey) {
    auto const refused = [](std::vector<Key> const& keys, char const* text) {
        support::expectRefused<std::invalid_argument>([&] { FCurve(keys, kCycle, kCycle); }, text);
    };
    refused({{0, 1}, {2, 1}, {1.5, 1}}, "FCurve: key 2 at x 1.5 is not after key 1 at x 2");
    refused({{0, 1}, {0, 1}}, "key 1 at x 0 is not after key 0 at x 0");
    refused({{std::nan(""), 1}}, "key 0 has x nan, which is not finite");
    refused({{0, 1}, {1, -kInf}}, "key 1 has value -inf, which is not finite");
    refused({{0, 1, kInf}}, "inSlope inf");
    refused({{0, 1, 0, kInf}}, "outSlope inf");
    refused({{0, 1, 0, 0, FCurve::Segment{3}}}, "unknown segment 3");
    EXPECT_THROW(FCurve({}, kCycle, FCurve::Extrapolation{4}), std::invalid_argument);
}

}  // namespace
