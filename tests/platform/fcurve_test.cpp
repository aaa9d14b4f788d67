#include "zel_platform/orvane_math/fcurve.h"

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>

#include "support/refused.h"

namespace {

using Orvane::Math::FCurve;
using Key = FCurve::Key;
using enum FCurve::Extrapolation;
constexpr auto kStep = FCurve::Segment::kConstant;
constexpr auto kLine = FCurve::Segment::kLinear;
constexpr auto kHermite = FCurve::Segment::kCubic;
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kMax = std::numeric_limits<double>::max();

constexpr auto kHold = FCurve::Extrapolation::kConstant, kGoOn = FCurve::Extrapolation::kLinear;

TEST(FCurve, IdentityIsExact) {
    std::mt19937_64 random(17);
    for (std::vector<Key> const& keys : {std::vector<Key>{{0, 0}, {1, 1}},
                                         {{-0.3, -0.3}, {0.1, 0.1}, {7, 7}},
                                         {{1, 1, 1, 1}},
                                         {{-kMax, -kMax, 1, 1}}}) {
        FCurve const curve(keys, kGoOn, kGoOn);
        for (int i = 0; i < 100'000; ++i) {
            double const x = std::ldexp(static_cast<double>(random() | 1),
                                        static_cast<int>(random() % 300) - 250) *
                             (i % 2 == 0 ? 1 : -1);
            ASSERT_EQ(curve.evalFCurve(x), x);
        }
        for (double x :
             {0x1p53 + 2, 1e300, kMax, -kMax, 5e-324, kInf, -kInf, std::nextafter(1.0, 0.0)})
            EXPECT_EQ(curve.evalFCurve(x), x);
    }
}

TEST(FCurve, Segments) {
    auto const f = [](double x) { return ((2 * x - 3) * x + 1) * x - 4; };
    auto const slope = [](double x) { return (6 * x - 6) * x + 1; };
    FCurve const curve({{-1, f(-1), 9, slope(-1), kHermite},
                        {0.5, f(0.5), slope(0.5), slope(0.5), kHermite},
                        {2, f(2), slope(2), 9, kStep},
                        {3, 5, 9, 9, kLine},
                        {5, 1}},
                       kHold, kHold);
    for (double x = -1; x <= 2; x += 0.01)
        EXPECT_NEAR(curve.evalFCurve(x), f(x), 1e-13);  // a cubic is reproduced
    double const values[][2] = {{2, f(2)}, {2.999, f(2)}, {3, 5},    {3.5, 4},      {4.5, 2},
                                {5, 1},    {6, 1},        {kInf, 1}, {-1.5, f(-1)}, {-kInf, f(-1)}};
    for (auto const& [x, value] : values) EXPECT_DOUBLE_EQ(curve.evalFCurve(x), value) << x;
}

TEST(FCurve, LinearExtrapolationContinuesTheTangent) {
    struct Case {
        FCurve::Segment segment;
        double before, after;
    };
    for (auto const& [segment, before, after] :
         {Case{kStep, 0, 0}, {kLine, 2, 2}, {kHermite, 5, -3}}) {
        FCurve const curve({{1, 1, 77, 5, segment}, {2, 3, -3, 77, kHermite}}, kGoOn, kGoOn);
        EXPECT_DOUBLE_EQ(curve.evalFCurve(-9), 1 - 10 * before);
        EXPECT_DOUBLE_EQ(curve.evalFCurve(12), 3 + 10 * after);
        EXPECT_EQ(curve.evalFCurve(kInf), after == 0 ? 3 : after * kInf);
    }
    // Of more than two keys the outer ones count.
    FCurve const bent({{0, 0}, {1, 1}, {2, 5}}, kGoOn, kGoOn);
    EXPECT_TRUE(bent.evalFCurve(-2) == -2 && bent.evalFCurve(3) == 9);
    FCurve const single({{1, 1, 2, -3}}, kGoOn, kGoOn);
    EXPECT_TRUE(single.evalFCurve(0) == -1 && single.evalFCurve(2) == -2);
}

TEST(FCurve, Cycles) {
    std::vector<Key> const keys = {{0.5, 1, 0, 2, kHermite}, {1.25, 3, -1, 0, kLine}, {2.5, 4}};
    FCurve const cycle(keys, kCycle, kCycle), offset(keys, kCycleWithOffset, kCycleWithOffset);
    for (double x = 0.5625; x < 2.5; x += 0.0625) {
        double const v = cycle.evalFCurve(x);
        for (double n : {-1e9, -3.0, -1.0, 1.0, 2.0, 1e6, 0x1p42}) {
            EXPECT_EQ(cycle.evalFCurve(x + 2 * n), v) << x << ' ' << n;
            EXPECT_DOUBLE_EQ(offset.evalFCurve(x + 2 * n), v + 3 * n) << x << ' ' << n;
        }
    }
    // The remainder of 1e300 by 2 is 0, which lies 1.5 after the first key.
    EXPECT_EQ(cycle.evalFCurve(1e300), cycle.evalFCurve(2));
    EXPECT_NEAR(offset.evalFCurve(std::nextafter(2.5, 3)), 4, 1e-12);
    EXPECT_NEAR(cycle.evalFCurve(std::nextafter(2.5, 3)), 1, 1e-12);
    FCurve const uneven({{-0.1, 1}, {0.2, 7}, {0.6, 3}}, kCycleWithOffset, kCycleWithOffset);
    for (double x = -500; x < 500; x += 0.013)
        EXPECT_NEAR(uneven.evalFCurve(x + 0.7) - uneven.evalFCurve(x), 2, 1e-9) << x;
    EXPECT_EQ(offset.evalFCurve(kInf), kInf);
    EXPECT_EQ(offset.evalFCurve(-kInf), -kInf);
    EXPECT_TRUE(std::isnan(cycle.evalFCurve(kInf)));
    FCurve const mixed(keys, kCycle, kHold);
    EXPECT_EQ(mixed.evalFCurve(0), cycle.evalFCurve(2));
    EXPECT_EQ(mixed.evalFCurve(100), 4);
}

TEST(FCurve, SlopeIsTheDerivative) {
    std::vector<Key> const keys = {{-1, 2, 3, -1, kHermite},
                                   {0.5, 1, 0.5, 4, kLine},
                                   {2, -1, 1, 1, kStep},
                                   {3, 5, 2, -2, kHermite},
                                   {4.25, 1, -3, 6}};
    for (auto kind : {kHold, kGoOn, kCycle, kCycleWithOffset}) {
        FCurve const curve(keys, kind, kind), single({{1, 2, 3, 4}}, kind, kind);
        int compared = 0;
        for (double x = -9.9; x < 14; x += 0.037) {
            auto const at = [&](double step) { return curve.evalFCurve(x + step); };
            double const above = (at(1e-5) - at(0)) / 1e-5, below = (at(0) - at(-1e-5)) / 1e-5;
            if (std::abs(above - below) > 1e-3) continue;  // at a key
            ++compared;
            EXPECT_NEAR(curve.slope(x), (above + below) / 2, 1e-8) << x;
        }
        EXPECT_GT(compared, 600);
        EXPECT_TRUE(curve.slope(0.5) == -4.0 / 3 && curve.slope(2) == 0 && curve.slope(3) == -2);
        EXPECT_EQ(curve.slope(4.25), -3);
        EXPECT_TRUE(std::isnan(curve.slope(std::nan(""))));
        bool const hold = kind == kHold, goOn = kind == kGoOn;
        for (double end : {-kInf, kInf}) {
            double const slope = curve.slope(end);
            EXPECT_TRUE(hold || goOn ? slope == (hold ? 0 : end < 0 ? -1 : -3) : std::isnan(slope));
        }
        EXPECT_TRUE(single.slope(0.5) == (goOn ? 3 : 0) && single.slope(1) == (goOn ? 4 : 0));
        EXPECT_EQ(FCurve({}, kind, kind).slope(1), 0);
    }
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
