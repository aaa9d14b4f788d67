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

/// The parameters of a fractal sum, as the nodes have them.
struct FractalSum {
    float amplitude, octaves, frequency, amplitudeRatio, scaleRatio, timeRatio;
};

/// An octave of a fractal sum. `Real` is the precision of the sum.
template <class Real> struct Octave {
    /// A coordinate at which the octave samples its noise, and the fourth coordinate.
    Real place(float coordinate) const { return coordinate * scale; }
    Real placeTime(Real time) const { return timeScale * time; }
    void add(Real& sum, Real noise) const { sum += weight * noise; }

    Real scale, timeScale, weight;
};

/// The number of octaves: 0 if a weight or a scale is 0 or NaN, or `octaves` is not above 0 or does
/// not fit an integer.
int octaveCount(FractalSum const& sum) {
    constexpr float kTooMany = 0x1p31F;
    bool const any = std::fabs(sum.amplitude) > 0 && std::fabs(sum.scaleRatio) > 0;
    return any && sum.octaves > 0 && sum.octaves < kTooMany
               ? static_cast<int>(std::ceil(sum.octaves))
               : 0;
}

/// Calls `use(octave)` for each octave, from the first. If `octaves` has a fraction, the amplitude
/// of the last octave is multiplied by it.
template <class Real, class Use> void forEachOctave(FractalSum const& sum, Use const& use) {
    int const count = octaveCount(sum);
    float const fraction = sum.octaves - std::floor(sum.octaves);
    for (int i = 0; i < count; ++i) {
        auto const power = [i](float ratio) {
            return std::pow(static_cast<Real>(ratio), static_cast<Real>(i));
        };
        float const amplitude =
            i == count - 1 && fraction > 0 ? sum.amplitude * fraction : sum.amplitude;
        use(Octave<Real>{sum.frequency / power(sum.scaleRatio), power(sum.timeRatio),
                         power(sum.amplitudeRatio) * amplitude});
    }
}

/// An array of kBlockSize doubles that is valid until the frame ends.
double* allocateDoubles(Block& block) {
    constexpr int kArrays = sizeof(double) / sizeof(float);
    return new (block.allocate(kArrays)) double[kBlockSize];
}

float3 curlAt(bool smooth, float3 const& p, float time, std::uint32_t seed) {
    return smooth ? smooth_curl_noise(p, time, seed) : curl_noise(p, time, seed);
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

template <class Use> void ScalarFieldFractalNoise::useOctaves(Use const& use) const {
    forEachOctave<double>({amplitude, octaves, frequency, amplitudeRatio, scaleRatio, timeRatio},
                          use);
}

float ScalarFieldFractalNoise::eval(float3 const& position, long long index) const {
    double const w = time->eval(position, index);
    double sum = 0;
    useOctaves([&](Octave<double> const& octave) {
        Orvane::Math::double4 const p{octave.place(position.x), octave.place(position.y),
                                      octave.place(position.z), octave.placeTime(w)};
        octave.add(sum, simplex_noise(p, seed));
    });
    return static_cast<float>(sum);
}

void ScalarFieldFractalNoise::blockValues(Block& block, BlockResult<float>& out) const {
    Block::Frame const frame(block);
    float const* const w = block.values(time).component[0];
    auto const [x, y, z] = block.positions().component;
    auto* const sum = allocateDoubles(block);
    auto *const px = allocateDoubles(block), *const py = allocateDoubles(block),
                *const pz = allocateDoubles(block), *const pw = allocateDoubles(block);
    auto* const noise = allocateDoubles(block);
    std::fill_n(sum, block.count(), 0.0);
    useOctaves([&, x = x, y = y, z = z](Octave<double> const& octave) {
        Quern::forEachPosition(block.count(), [=](int k) ZEL_ALWAYS_INLINE {
            px[k] = octave.place(x[k]);
            py[k] = octave.place(y[k]);
            pz[k] = octave.place(z[k]);
            pw[k] = octave.placeTime(w[k]);
        });
        simplex_noise_block(px, py, pz, pw, block.count(), seed, noise);
        Quern::forEachPosition<true>(
            block.count(), [=](int k) ZEL_ALWAYS_INLINE { octave.add(sum[k], noise[k]); });
    });
    auto* const result = out.writer().component[0];
    Quern::forEachPosition(
        block.count(), [=](int k) ZEL_ALWAYS_INLINE { result[k] = static_cast<float>(sum[k]); });
}

VectorFieldCurlNoise::VectorFieldCurlNoise(ScalarPtr time, bool smooth, std::int64_t seed)
    : time(std::move(time)), smooth(smooth), seed(foldedSeed(seed)) {}

float3 VectorFieldCurlNoise::eval(float3 const& position, long long index) const {
    float const t = time->eval(position, index);
    return curlAt(smooth, position, t, seed);
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

template <class Use> void VectorFieldFractalTurbulence::useOctaves(Use const& use) const {
    forEachOctave<float>({amplitude, octaves, frequency, amplitudeRatio, scaleRatio, timeRatio},
                         use);
}

float3 VectorFieldFractalTurbulence::eval(float3 const& position, long long index) const {
    auto const kept = keptTime();
    float const t = kept ? *kept : time->eval(position, index);
    float3 sum;
    useOctaves([&](Octave<float> const& octave) {
        float3 const p{octave.place(position.x), octave.place(position.y),
                       octave.place(position.z)};
        float3 const noise = curlAt(smooth, p, octave.placeTime(t), seed);
        for (int c = 0; c < 3; ++c) octave.add(sum[c], noise[c]);
    });
    return sum;
}

void VectorFieldFractalTurbulence::blockValues(Block& block, BlockResult<float3>& out) const {
    Block::Frame const frame(block);
    auto const kept = keptTime();
    float const* const t = (kept ? block.constant(*kept) : block.values(time)).component[0];
    auto const sum = out.writer().component;
    for (float* const component : sum) std::fill_n(component, block.count(), 0.0F);
    auto places = block.result<float3>(), noise = block.result<float3>();
    float* const u = block.allocate();
    useOctaves([&](Octave<float> const& octave) {
        mapBlock(
            block, places,
            [octave](float3 const& p) ZEL_ALWAYS_INLINE {
                return float3{octave.place(p.x), octave.place(p.y), octave.place(p.z)};
            },
            block.positions());
        Quern::forEachPosition<true>(
            block.count(), [=](int k) ZEL_ALWAYS_INLINE { u[k] = octave.placeTime(t[k]); });
        curlBlock(smooth, places.columns, u, block.count(), seed, noise.writer());
        for (std::size_t c = 0; c < 3; ++c)
            Quern::forEachPosition<true>(block.count(),
                                         [=, to = sum[c], v = noise.columns.component[c]](int k)
                                             ZEL_ALWAYS_INLINE { octave.add(to[k], v[k]); });
    });
}

}  // namespace zel

ZEL_DEFINE_HOOKED(zel::ScalarFieldSimplexNoise, ScalarField);
ZEL_DEFINE_HOOKED(zel::ScalarFieldFractalNoise, ScalarField);
ZEL_DEFINE_HOOKED(zel::VectorFieldCurlNoise, VectorField);
ZEL_DEFINE_HOOKED(zel::VectorFieldFractalTurbulence, VectorField);
