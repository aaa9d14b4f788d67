#include "zel/procedural/noise.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "zel/node/library_node_impl.h"
#include "zel/scalar/arithmetic.h"
#include "zel_platform/orvane_math_support/noise.h"
#include "zel_platform/orvane_math_support/noise_block.h"

namespace zel {

using Orvane::Math::curl_noise;
using Orvane::Math::curl_noise_block;
using Orvane::Math::simplex_noise;
using Orvane::Math::simplex_noise_block;
using Orvane::Math::smooth_curl_noise;
using Orvane::Math::smooth_curl_noise_block;

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

/// An array of kBlockSize doubles that stays until the frame ends.
double* allocateDoubles(Block& block) {
    constexpr int kArrays = sizeof(double) / sizeof(float);
    return new (block.allocate(kArrays)) double[kBlockSize];
}

void curlBlock(bool smooth, Columns<float3> const& p, float const* time, int count,
               std::uint32_t seed, ColumnWriter<float3> const& out) {
    auto const [x, y, z] = p.component;
    auto const [toX, toY, toZ] = out.component;
    if (smooth)
        smooth_curl_noise_block(x, y, z, time, count, seed, toX, toY, toZ);
    else
        curl_noise_block(x, y, z, time, count, seed, toX, toY, toZ);
}

std::uint32_t foldedSeed(std::int64_t seed) {
    return static_cast<std::uint32_t>((seed >> 32) ^ seed);
}

}  // namespace

float ScalarFieldSimplexNoise::eval(float3 const& position, long long index) const {
    float const w = time->eval(position, index);
    return simplex_noise(float4{position.x, position.y, position.z, w}, seed);
}

void ScalarFieldSimplexNoise::blockValues(Block& block, BlockResult<float>& out) const {
    Block::Frame const frame(block);
    auto const w = block.values(time);
    auto const [x, y, z] = block.positions().component;
    simplex_noise_block(x, y, z, w.component[0], block.count(), seed, out.writer().component[0]);
}

struct ScalarFieldFractalNoise::Octave {
    Octave(ScalarFieldFractalNoise const& noise, int i, int count)
        : scale(noise.frequency / std::pow(static_cast<double>(noise.scaleRatio), i)),
          timeScale(std::pow(static_cast<double>(noise.timeRatio), i)),
          weight(std::pow(static_cast<double>(noise.amplitudeRatio), i) *
                 octaveAmplitude(noise.amplitude, noise.octaves, i, count)) {}

    double scale, timeScale, weight;
};

float ScalarFieldFractalNoise::eval(float3 const& position, long long index) const {
    double const w = time->eval(position, index);
    int const count = octaveCount(amplitude, scaleRatio, octaves);
    double sum = 0;
    for (int i = 0; i < count; ++i) {
        Octave const octave(*this, i, count);
        Orvane::Math::double4 const p{position.x * octave.scale, position.y * octave.scale,
                                      position.z * octave.scale, octave.timeScale * w};
        sum += simplex_noise(p, seed) * octave.weight;
    }
    return static_cast<float>(sum);
}

void ScalarFieldFractalNoise::blockValues(Block& block, BlockResult<float>& out) const {
    Block::Frame const frame(block);
    auto const w = block.values(time).component[0];
    Columns<float3> const& p = block.positions();
    float const *const x = p.component[0], *const y = p.component[1], *const z = p.component[2];
    int const count = octaveCount(amplitude, scaleRatio, octaves);
    auto* const sum = allocateDoubles(block);
    double* at[4];
    for (double*& coordinate : at) coordinate = allocateDoubles(block);
    auto* const noise = allocateDoubles(block);
    std::fill_n(sum, block.count(), 0.0);
    for (int i = 0; i < count; ++i) {
        Octave const octave(*this, i, count);
        Quern::forEachPosition(block.count(), [=, tx = at[0], ty = at[1], tz = at[2],
                                               tw = at[3]](int k) ZEL_ALWAYS_INLINE {
            tx[k] = x[k] * octave.scale;
            ty[k] = y[k] * octave.scale;
            tz[k] = z[k] * octave.scale;
            tw[k] = octave.timeScale * w[k];
        });
        simplex_noise_block(at[0], at[1], at[2], at[3], block.count(), seed, noise);
        Quern::forEachPosition<true>(
            block.count(), [=](int k) ZEL_ALWAYS_INLINE { sum[k] += noise[k] * octave.weight; });
    }
    auto* const result = out.writer().component[0];
    Quern::forEachPosition(
        block.count(), [=](int k) ZEL_ALWAYS_INLINE { result[k] = static_cast<float>(sum[k]); });
}

VectorFieldCurlNoise::VectorFieldCurlNoise(ScalarPtr time, bool smooth, std::int64_t seed)
    : time(std::move(time)), smooth(smooth), seed(foldedSeed(seed)) {}

float3 VectorFieldCurlNoise::eval(float3 const& position, long long index) const {
    float const t = time->eval(position, index);
    return smooth ? smooth_curl_noise(position, t, seed) : curl_noise(position, t, seed);
}

void VectorFieldCurlNoise::blockValues(Block& block, BlockResult<float3>& out) const {
    Block::Frame const frame(block);
    auto const t = block.values(time).component[0];
    curlBlock(smooth, block.positions(), t, block.count(), seed, out.writer());
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
    if (!timeIsConstant) return;
    float const t = time->eval(float3{}, 0);
    std::array<float, 16> table;
    Orvane::Math::create_curl_noise_time_table(t, table.data());
    for (std::size_t i = 0; i < table.size(); ++i)
        cache.timeTable[i].store(table[i], std::memory_order_relaxed);
    cache.time.store({t, 1}, std::memory_order_relaxed);
}

void VectorFieldFractalTurbulence::postSampleField() const {
    HookedNode::postSampleField();
    cache.time.store({}, std::memory_order_relaxed);
}

std::optional<float> VectorFieldFractalTurbulence::keptTime() const {
    if (!timeIsConstant || !smooth) return std::nullopt;
    auto const [t, valid] = cache.time.load(std::memory_order_relaxed);
    return valid != 0 ? std::optional(t) : std::nullopt;
}

struct VectorFieldFractalTurbulence::Octave {
    Octave(VectorFieldFractalTurbulence const& noise, int i, int count) {
        auto const power = static_cast<float>(i);
        weight = std::pow(noise.amplitudeRatio, power) *
                 octaveAmplitude(noise.amplitude, noise.octaves, i, count);
        scale = noise.frequency / std::pow(noise.scaleRatio, power);
        timeScale = std::pow(noise.timeRatio, power);
    }

    float weight, scale, timeScale;
};

float3 VectorFieldFractalTurbulence::eval(float3 const& position, long long index) const {
    auto const kept = keptTime();
    float const t = kept ? *kept : time->eval(position, index);
    int const count = octaveCount(amplitude, scaleRatio, octaves);
    float3 result;
    for (int i = 0; i < count; ++i) {
        Octave const octave(*this, i, count);
        float const u = octave.timeScale * t;
        float3 const p = octave.scale * position;
        result += octave.weight * (smooth ? smooth_curl_noise(p, u, seed) : curl_noise(p, u, seed));
    }
    return result;
}

void VectorFieldFractalTurbulence::blockValues(Block& block, BlockResult<float3>& out) const {
    Block::Frame const frame(block);
    auto const kept = keptTime();
    auto const t = (kept ? block.constant(*kept) : block.values(time)).component[0];
    int const count = octaveCount(amplitude, scaleRatio, octaves);
    auto const sum = out.writer();
    for (float* const component : sum.component) std::fill_n(component, block.count(), 0.0F);
    auto at = block.result<float3>(), noise = block.result<float3>();
    float* const u = block.allocate();
    for (int i = 0; i < count; ++i) {
        Octave const octave(*this, i, count);
        mapBlock(
            block, at, [s = octave.scale](float3 const& p) ZEL_ALWAYS_INLINE { return s * p; },
            block.positions());
        Quern::forEachPosition<true>(
            block.count(), [=](int k) ZEL_ALWAYS_INLINE { u[k] = octave.timeScale * t[k]; });
        curlBlock(smooth, at.columns, u, block.count(), seed, noise.writer());
        for (unsigned c = 0; c < 3; ++c)
            Quern::forEachPosition<true>(
                block.count(), [=, to = sum.component[c], v = noise.columns.component[c]](int k)
                                   ZEL_ALWAYS_INLINE { to[k] += octave.weight * v[k]; });
    }
}

}  // namespace zel

ZEL_DEFINE_HOOKED(zel::ScalarFieldSimplexNoise, ScalarField);
ZEL_DEFINE_HOOKED(zel::ScalarFieldFractalNoise, ScalarField);
ZEL_DEFINE_HOOKED(zel::VectorFieldCurlNoise, VectorField);
ZEL_DEFINE_HOOKED(zel::VectorFieldFractalTurbulence, VectorField);
