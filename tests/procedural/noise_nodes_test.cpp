#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "orvane_math_support/noise.h"
#include "support/probe.h"

// What the noise nodes feed to the noise functions, and how they add the layers up.
namespace {

using namespace zel;
using namespace support;
using Orvane::Math::double4;

constexpr std::int64_t kSeed = 0x123456789ABCDEF;
constexpr float3 kAt{0.3F, -1.7F, 2.2F};

TEST(SimplexNoise, TakesItsTimeFromTheChild) {
    ScalarFieldSimplexNoise const node(s(0.75F, kA, "t"), kSeed);
    calls.clear();
    EXPECT_TRUE(same(node.eval(kAt, kIndex),
                     Orvane::Math::simplex_noise(float4{kAt.x, kAt.y, kAt.z, 0.75F}, kSeed)));
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].position, kAt);
    EXPECT_EQ(calls[0].index, kIndex);
}

/// The sum of layers with weights and scales that are powers of two, so that they are exact.
double layers(std::vector<double> const& weights, double time, double frequency = 2) {
    double sum = 0, scale = frequency, t = time;
    for (double const weight : weights) {
        sum += weight * Orvane::Math::simplex_noise(
                            double4{kAt.x * scale, kAt.y * scale, kAt.z * scale, t}, kSeed);
        scale *= 2;
        t *= 4;
    }
    return sum;
}

float fractal(float amplitude, float octaves, float scaleRatio = 0.5F, float frequency = 2,
              float3 const& at = kAt) {
    ScalarFieldFractalNoise const node(amplitude, octaves, frequency, 0.25F, scaleRatio,
                                       s(0.375F, kA, "t"), 4, kSeed);
    calls.clear();
    float const value = node.eval(at, kIndex);
    EXPECT_EQ(calls[0].index, kIndex);
    EXPECT_TRUE(same(calls[0].position, at));
    EXPECT_EQ(takeCalls(), "t.eval ");  // once, whatever the guards say
    return value;
}

TEST(FractalNoise, AddsOctavesWithAShareOfTheLast) {
    EXPECT_FLOAT_EQ(fractal(8, 1), static_cast<float>(layers({8}, 0.375)));
    EXPECT_FLOAT_EQ(fractal(8, 3), static_cast<float>(layers({8, 2, 0.5}, 0.375)));
    EXPECT_FLOAT_EQ(fractal(8, 2.5F), static_cast<float>(layers({8, 2, 0.25}, 0.375)));
    EXPECT_FLOAT_EQ(fractal(8, 0.25F), static_cast<float>(layers({2}, 0.375)));
    EXPECT_FLOAT_EQ(fractal(-8, 2), static_cast<float>(layers({-8, -2}, 0.375)));
    EXPECT_FLOAT_EQ(fractal(8, 2, 0.5F, 0), static_cast<float>(layers({8, 2}, 0.375, 0)));
}

TEST(FractalNoise, IsZeroWithoutAnOctave) {
    float3 const nowhere{kNaN, 0, 0};  // any call of the noise would show
    for (float const octaves : {0.0F, -0.0F, -0.5F, -3.0F, kNaN, kInf, -kInf, 0x1p31F, 1e38F})
        EXPECT_TRUE(same(fractal(8, octaves, 0.5F, 2, nowhere), 0.0F)) << octaves;
    for (float const none : {0.0F, -0.0F, kNaN}) {
        EXPECT_TRUE(same(fractal(none, 2, 0.5F, 2, nowhere), 0.0F));
        EXPECT_TRUE(same(fractal(8, 2, none, 2, nowhere), 0.0F));
    }
    EXPECT_NE(fractal(8, 2, -0.5F), 0);
}

TEST(CurlNoise, FoldsItsSeedAndChoosesItsFunction) {
    auto const value = [](bool smooth, std::int64_t seed) {
        calls.clear();
        float3 const curl = VectorFieldCurlNoise(s(0.75F), smooth, seed).eval(kAt, kIndex);
        EXPECT_EQ(calls[0].position, kAt);
        EXPECT_EQ(calls[0].index, kIndex);
        return curl;
    };
    EXPECT_TRUE(same(value(false, 5), Orvane::Math::curl_noise(kAt, 0.75F, 5)));
    EXPECT_TRUE(same(value(true, 5), Orvane::Math::smooth_curl_noise(kAt, 0.75F, 5)));
    EXPECT_TRUE(same(value(true, 0x100000001), value(true, 0)));
    EXPECT_TRUE(same(value(true, -1), value(true, 0)));  // the shift is arithmetic
    EXPECT_FALSE(same(value(true, 0x200000001), value(true, 0)));
}

VectorFieldFractalTurbulence turbulence(ScalarPtr time, float octaves, bool smooth) {
    return {8, octaves, 2, 0.25F, 0.5F, std::move(time), 4, smooth, 0x100000006};
}

TEST(FractalTurbulence, AddsOctavesInSinglePrecision) {
    for (bool const smooth : {false, true}) {
        auto const noise = smooth ? static_cast<float3 (*)(float3 const&, float, std::uint32_t)>(
                                        Orvane::Math::smooth_curl_noise)
                                  : Orvane::Math::curl_noise;
        float3 const expected = (8 * noise(2 * kAt, 0.375F, 7) + 2 * noise(4 * kAt, 1.5F, 7)) +
                                0.25F * noise(8 * kAt, 6, 7);
        EXPECT_TRUE(same(turbulence(s(0.375F), 2.5F, smooth).eval(kAt, kIndex), expected));
    }
    for (float const octaves : {0.0F, -2.0F, kNaN, kInf, 0x1p31F})
        EXPECT_TRUE(same(turbulence(s(0), octaves, true).eval({kNaN, 0, 0}, 0), float3{}))
            << octaves;
    for (float const none : {0.0F, kNaN})
        for (auto const& node :
             {VectorFieldFractalTurbulence(none, 2, 2, 1, 1, s(0, kA, "t"), 1, true, 1),
              VectorFieldFractalTurbulence(1, 2, 2, 1, none, s(0, kA, "t"), 1, false, 1)}) {
            calls.clear();
            EXPECT_TRUE(same(node.eval({kNaN, 0, 0}, kIndex), float3{}));
            EXPECT_EQ(takeCalls(), "t.eval ");
        }
}

/// A constant that counts how often it is asked.
class CountedConstant : public ScalarFieldConstant {
public:
    using ScalarField::eval;
    using ScalarFieldConstant::ScalarFieldConstant;
    float eval(float3 const& p, long long i) const override {
        last = {"", p, i};
        ++count;
        return ScalarFieldConstant::eval(p, i);
    }
    mutable int count = 0;
    mutable Call last;
};

TEST(FractalTurbulence, KeepsAConstantTimeBetweenTheHooks) {
    for (bool const smooth : {false, true}) {
        auto const time = makePtr<CountedConstant>(0.375F);
        auto const node = turbulence(time, 2, smooth);
        float3 const unprepared = node.eval(kAt, kIndex);
        EXPECT_EQ(time->count, 1);
        EXPECT_EQ(time->last.index, kIndex);
        EXPECT_EQ(time->last.position, kAt);
        node.preSampleField();
        EXPECT_EQ(time->count, 2);
        EXPECT_EQ(time->last.position, float3{});
        EXPECT_EQ(time->last.index, 0);
        EXPECT_TRUE(same(node.eval(kAt, kIndex), unprepared));
        EXPECT_EQ(time->count, smooth ? 2 : 3);

        VectorFieldFractalTurbulence const copy = node;  // not prepared
        EXPECT_TRUE(same(copy.eval(kAt, kIndex), unprepared));
        EXPECT_EQ(time->count, smooth ? 3 : 4);
        node.postSampleField();
        node.eval(kAt, kIndex);
        EXPECT_EQ(time->count, smooth ? 4 : 5);
    }
    // Any other kind of child is asked at every point.
    auto const node = turbulence(s(0.375F, kA, "t"), 2, true);
    node.preSampleField();
    calls.clear();
    node.eval(kAt, kIndex);
    EXPECT_EQ(takeCalls(), "t.eval ");
}

TEST(NoiseNodes, HideTheirChildFromWalksAndHookIt) {
    struct Hooked : ScalarField {
        void preSampleField() const override { ++pre; }
        void postSampleField() const override { ++post; }
        mutable int pre = 0, post = 0;
    };
    struct Counter : FieldVisitor {
        using FieldVisitor::operator();
        void operator()(Field const& /*node*/) override { ++count; }
        void operator()(Field& /*node*/) override { ++count; }
        int count = 0;
    } counter;
    auto const time = makePtr<Hooked>();
    ScalarFieldSimplexNoise simplex(time, 1);
    ScalarFieldFractalNoise sum(1, 1, 1, 1, 1, time, 1, 1);
    VectorFieldCurlNoise curl(time, true, 1);
    auto turbulent = turbulence(time, 1, true);
    Quern::Array<float3> const positions(3);
    static_cast<ScalarField const&>(simplex).eval(positions);
    static_cast<ScalarField const&>(sum).eval(positions);
    static_cast<VectorField const&>(curl).eval(positions);
    static_cast<VectorField const&>(turbulent).eval(positions);
    EXPECT_EQ(time->pre, 4);
    EXPECT_EQ(time->post, 4);
    for (Field* node : {static_cast<Field*>(&simplex), static_cast<Field*>(&sum),
                        static_cast<Field*>(&curl), static_cast<Field*>(&turbulent)}) {
        node->accept(counter);
        node->caccept(counter);
    }
    EXPECT_EQ(counter.count, 0);
    for (auto const& node : std::initializer_list<std::pair<Quern::String, char const*>>{
             {simplex.getType(), "zel::ScalarFieldSimplexNoise"},
             {sum.getType(), "zel::ScalarFieldFractalNoise"},
             {curl.getType(), "zel::VectorFieldCurlNoise"},
             {turbulent.getType(), "zel::VectorFieldFractalTurbulence"}})
        EXPECT_EQ(node.first, node.second);
    static_assert(!std::is_copy_assignable_v<ScalarFieldSimplexNoise> &&
                  !std::is_copy_assignable_v<ScalarFieldFractalNoise> &&
                  !std::is_copy_assignable_v<VectorFieldCurlNoise> &&
                  !std::is_copy_assignable_v<VectorFieldFractalTurbulence>);
    ScalarFieldSimplexNoise const copy = simplex;
    ScalarFieldSimplexNoise const moved = std::move(simplex);
    EXPECT_TRUE(same(copy.eval(kAt, 0), moved.eval(kAt, 0)));
    EXPECT_EQ(time.useCount(), 6);  // the move took its own
}

}  // namespace
