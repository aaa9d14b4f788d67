#include "support/probe.h"
#include "zel_platform/orvane_math_support/noise.h"

// What the noise nodes feed to the noise functions, and how they add the layers up.
namespace {

using namespace zel;
using namespace support;
using Orvane::Math::double4;

constexpr std::int64_t kSeed = 0x123456789ABCDEF;
constexpr float3 kAt{0.3F, -1.7F, 2.2F};

/// The sum of layers with weights and scales that are powers of two, so that they are exact.
float layers(std::vector<double> const& weights, double frequency = 2) {
    double sum = 0, scale = frequency, t = 0.375;
    for (double const weight : weights) {
        sum += weight * Orvane::Math::simplex_noise(
                            double4{kAt.x * scale, kAt.y * scale, kAt.z * scale, t}, kSeed);
        scale *= 2;
        t *= 4;
    }
    return static_cast<float>(sum);
}

float fractal(float amplitude, float octaves, float scaleRatio = 0.5F, float frequency = 2,
              float3 const& at = kAt) {
    ScalarFieldFractalNoise const node(amplitude, octaves, frequency, 0.25F, scaleRatio,
                                       s(0.375F, kA, "t"), 4, kSeed);
    calls.clear();
    float const value = node.eval(at, kIndex);
    EXPECT_TRUE(same(calls[0].position, at));
    EXPECT_EQ(takeCalls(), "t.eval ");  // once, whatever the guards say
    return value;
}

TEST(FractalNoise, AddsOctavesWithAShareOfTheLast) {
    EXPECT_FLOAT_EQ(fractal(8, 1), layers({8}));
    EXPECT_FLOAT_EQ(fractal(8, 2.5F), layers({8, 2, 0.25}));
    EXPECT_FLOAT_EQ(fractal(8, 0.25F), layers({2}));
    EXPECT_FLOAT_EQ(fractal(-8, 2), layers({-8, -2}));
    EXPECT_FLOAT_EQ(fractal(8, 2, 0.5F, 0), layers({8, 2}, 0));
    EXPECT_NE(fractal(8, 2, -0.5F), 0);
    float3 const nowhere{kNaN, 0, 0};  // any call of the noise would show
    for (float const octaves : {0.0F, -0.5F, -3.0F, kNaN, kInf, -kInf, 0x1p31F, 1e38F})
        EXPECT_TRUE(same(fractal(8, octaves, 0.5F, 2, nowhere), 0.0F)) << octaves;
    for (float const none : {0.0F, -0.0F, kNaN}) {
        EXPECT_TRUE(same(fractal(none, 2, 0.5F, 2, nowhere), 0.0F));
        EXPECT_TRUE(same(fractal(8, 2, none, 2, nowhere), 0.0F));
    }
}

TEST(SingleNoise, TakesItsTimeFromTheChildAndFoldsTheSeedOfACurl) {
    EXPECT_TRUE(same(ScalarFieldSimplexNoise(s(0.75F), kSeed).eval(kAt, kIndex),
                     Orvane::Math::simplex_noise(float4{kAt.x, kAt.y, kAt.z, 0.75F}, kSeed)));
    auto const value = [](bool smooth, std::int64_t seed) {
        return VectorFieldCurlNoise(s(0.75F), smooth, seed).eval(kAt, kIndex);
    };
    EXPECT_TRUE(same(value(false, 5), Orvane::Math::curl_noise(kAt, 0.75F, 5)));
    EXPECT_TRUE(same(value(true, 5), Orvane::Math::smooth_curl_noise(kAt, 0.75F, 5)));
    EXPECT_TRUE(same(value(true, 0x100000001), value(true, 0)));
    EXPECT_TRUE(same(value(true, -1), value(true, 0)));  // the shift is arithmetic
    EXPECT_FALSE(same(value(true, 0x200000001), value(true, 0)));
}

VectorFieldFractalTurbulence turbulence(ScalarPtr time, float octaves, bool smooth,
                                        float amplitude = 8, float ratio = 0.5F) {
    return {amplitude, octaves, 2, 0.25F, ratio, std::move(time), 4, smooth, 0x100000006};
}

TEST(FractalTurbulence, AddsOctavesInSinglePrecision) {
    for (bool const smooth : {false, true}) {
        auto const noise = [&](float3 const& p, float t) {
            return smooth ? Orvane::Math::smooth_curl_noise(p, t, 7)
                          : Orvane::Math::curl_noise(p, t, 7);
        };
        float3 const sum =
            (8 * noise(2 * kAt, 0.375F) + 2 * noise(4 * kAt, 1.5F)) + 0.25F * noise(8 * kAt, 6);
        EXPECT_TRUE(same(turbulence(s(0.375F), 2.5F, smooth).eval(kAt, kIndex), sum));
    }
    auto const expectNone = [](VectorFieldFractalTurbulence const& node) {
        EXPECT_TRUE(same(node.eval({kNaN, 0, 0}, kIndex), float3{}));
    };
    for (float const octaves : {0.0F, -2.0F, kNaN, kInf, 0x1p31F})
        expectNone(turbulence(s(0), octaves, true));
    for (float const none : {0.0F, kNaN}) {
        expectNone(turbulence(s(0), 2, true, none));
        expectNone(turbulence(s(0), 2, false, 1, none));
    }
}

/// A constant that counts how often it is asked.
struct CountedConstant : ScalarFieldConstant {
    using ScalarField::eval;
    using ScalarFieldConstant::ScalarFieldConstant;
    float eval(float3 const& p, long long i) const override {
        return ++count, ScalarFieldConstant::eval(p, i);
    }
    mutable int count = 0;
};

TEST(FractalTurbulence, KeepsAConstantTimeBetweenTheHooks) {
    for (bool const smooth : {false, true}) {
        auto const time = makePtr<CountedConstant>(0.375F);
        auto const node = turbulence(time, 2, smooth);
        float3 const expected = node.eval(kAt, kIndex);
        auto const asks = [&](VectorFieldFractalTurbulence const& one) {
            time->count = 0;
            EXPECT_TRUE(same(one.eval(kAt, kIndex), expected));
            return time->count;
        };
        EXPECT_EQ(asks(node), 1);
        node.preSampleField();
        EXPECT_EQ(asks(node), smooth ? 0 : 1);
        EXPECT_EQ(asks(VectorFieldFractalTurbulence(node)), 1);  // a copy is not prepared
        node.postSampleField();
        EXPECT_EQ(asks(node), 1);
    }
    // Any other kind of child is asked at every point.
    auto const node = turbulence(s(0.375F, kA, "t"), 2, true);
    node.preSampleField();
    calls.clear();
    node.eval(kAt, kIndex);
    EXPECT_EQ(takeCalls(), "t.eval ");
}

static_assert(!std::is_copy_assignable_v<ScalarFieldSimplexNoise> &&
              !std::is_copy_assignable_v<ScalarFieldFractalNoise> &&
              !std::is_copy_assignable_v<VectorFieldCurlNoise> &&
              !std::is_copy_assignable_v<VectorFieldFractalTurbulence>);

}  // namespace
