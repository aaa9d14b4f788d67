#include "zel/procedural/noise.h"

#include <cmath>

#include "orvane_math_support/noise.h"
#include "zel/field/node_impl.h"
#include "zel/scalar/arithmetic.h"

namespace zel {

using Orvane::Math::curl_noise;
using Orvane::Math::simplex_noise;
using Orvane::Math::smooth_curl_noise;

namespace {

/// The octaves of a fractal sum: none if a weight or a scale is 0 or NaN, or the count is no number
/// of octaves.
int octaveCount(float amplitude, float scaleRatio, float octaves) {
    constexpr float kTooMany = 0x1p31F;
    bool const any = std::fabs(amplitude) > 0 && std::fabs(scaleRatio) > 0;
    return any && octaves > 0 && octaves < kTooMany ? static_cast<int>(std::ceil(octaves)) : 0;
}

/// The amplitude of octave `i` of `count`: the last has a share of it if `octaves` has a fraction.
float octaveAmplitude(float amplitude, float octaves, int i, int count) {
    float const fraction = octaves - std::floor(octaves);
    return i == count - 1 && fraction > 0 ? amplitude * fraction : amplitude;
}

std::uint32_t foldedSeed(std::int64_t seed) {
    return static_cast<std::uint32_t>((seed >> 32) ^ seed);
}

}  // namespace

float ScalarFieldSimplexNoise::eval(float3 const& position, long long index) const {
    float const w = time->eval(position, index);
    return simplex_noise(float4{position.x, position.y, position.z, w}, seed);
}

float ScalarFieldFractalNoise::eval(float3 const& position, long long index) const {
    double const w = time->eval(position, index);
    int const count = octaveCount(amplitude, scaleRatio, octaves);
    double sum = 0;
    for (int i = 0; i < count; ++i) {
        double const a = octaveAmplitude(amplitude, octaves, i, count);
        double const s = frequency / std::pow(static_cast<double>(scaleRatio), i);
        Orvane::Math::double4 const p{position.x * s, position.y * s, position.z * s,
                                      std::pow(static_cast<double>(timeRatio), i) * w};
        double const v = simplex_noise(p, seed);
        sum += v * (std::pow(static_cast<double>(amplitudeRatio), i) * a);
    }
    return static_cast<float>(sum);
}

VectorFieldCurlNoise::VectorFieldCurlNoise(ScalarPtr time, bool smooth, std::int64_t seed)
    : time(std::move(time)), smooth(smooth), seed(foldedSeed(seed)) {}

float3 VectorFieldCurlNoise::eval(float3 const& position, long long index) const {
    float const t = time->eval(position, index);
    return smooth ? smooth_curl_noise(position, t, seed) : curl_noise(position, t, seed);
}

VectorFieldFractalTurbulence::VectorFieldFractalTurbulence(float amplitude, float octaves,
                                                           float frequency, float amplitudeRatio,
                                                           float scaleRatio, ScalarPtr timeField,
                                                           float timeRatio, bool smooth,
                                                           std::int64_t seed)
    : amplitude(amplitude), octaves(octaves), frequency(frequency), amplitudeRatio(amplitudeRatio),
      scaleRatio(scaleRatio), time(std::move(timeField)), timeRatio(timeRatio), smooth(smooth),
      seed(foldedSeed(seed)),
      timeIsConstant(dynamic_cast<ScalarFieldConstant const*>(time.get()) != nullptr) {}

void VectorFieldFractalTurbulence::preSampleField() const {
    HookedNode::preSampleField();
    if (timeIsConstant) {
        cache.cachedTime = time->eval(float3{}, 0);
        cache.cachedTimeValid = true;
        Orvane::Math::create_curl_noise_time_table(cache.cachedTime, cache.timeTable);
    }
}

void VectorFieldFractalTurbulence::postSampleField() const {
    HookedNode::postSampleField();
    cache.cachedTime = std::numeric_limits<float>::max();
    cache.cachedTimeValid = false;
}

float3 VectorFieldFractalTurbulence::eval(float3 const& position, long long index) const {
    bool const prepared = timeIsConstant && smooth && cache.cachedTimeValid;
    float const t = prepared ? cache.cachedTime : time->eval(position, index);
    int const count = octaveCount(amplitude, scaleRatio, octaves);
    float3 result;
    for (int i = 0; i < count; ++i) {
        auto const power = static_cast<float>(i);
        float const a = octaveAmplitude(amplitude, octaves, i, count);
        float const weight = std::pow(amplitudeRatio, power) * a;
        float const s = frequency / std::pow(scaleRatio, power);
        float const u = std::pow(timeRatio, power) * t;
        float3 const v =
            smooth ? smooth_curl_noise(s * position, u, seed) : curl_noise(s * position, u, seed);
        result += weight * v;
    }
    return result;
}

}  // namespace zel

ZEL_DEFINE_HOOKED(zel::ScalarFieldSimplexNoise, ScalarField);
ZEL_DEFINE_HOOKED(zel::ScalarFieldFractalNoise, ScalarField);
ZEL_DEFINE_HOOKED(zel::VectorFieldCurlNoise, VectorField);
ZEL_DEFINE_HOOKED(zel::VectorFieldFractalTurbulence, VectorField);
