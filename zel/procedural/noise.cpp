#include "zel/procedural/noise.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <type_traits>

#include "zel/node/library_node_impl.h"
#include "zel/scalar/arithmetic.h"
#include "zel_platform/orvane_math_support/noise.h"
#include "zel_platform/orvane_math_support/noise_block.h"

namespace zel {

using Orvane::Math::add_simplex_octave_block;
using Orvane::Math::curl_noise;
using Orvane::Math::curl_noise_block;
using Orvane::Math::curl_noise_derivative;
using Orvane::Math::curl_noise_derivative_block;
using Orvane::Math::double4;
using Orvane::Math::simplex_noise;
using Orvane::Math::simplex_noise_block;
using Orvane::Math::smooth_curl_noise;
using Orvane::Math::smooth_curl_noise_block;
using Orvane::Math::smooth_curl_noise_derivative;
using Orvane::Math::smooth_curl_noise_derivative_block;

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
    /// Adds a derivative of the noise along a coordinate, as that by the coordinate of the node.
    void addAlong(Real& sum, Real derivative) const { sum += weight * (scale * derivative); }
    void addAlongTime(Real& sum, Real derivative) const {
        sum += weight * (timeScale * derivative);
    }

    Orvane::Math::NoiseOctave parts() const { return {scale, timeScale, weight}; }

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
        // The first powers are exact, so that pow() gives the same, but takes longer.
        auto const power = [i](float ratio) {
            auto const base = static_cast<Real>(ratio);
            if (i == 0) return Real{1};
            if (i == 1) return base;
            if (i == 2 && std::is_same_v<Real, double>) return base * base;
            return std::pow(base, static_cast<Real>(i));
        };
        float const amplitude =
            i == count - 1 && fraction > 0 ? sum.amplitude * fraction : sum.amplitude;
        use(Octave<Real>{sum.frequency / power(sum.scaleRatio), power(sum.timeRatio),
                         power(sum.amplitudeRatio) * amplitude});
    }
}

/// The gradient of a noise by the position: that at constant time, and that along the time times
/// the time's own.
float3 byPosition(float3 const& g, float alongTime, float3 const& ofTime) {
    return g + alongTime * ofTime;
}
float3x3 byPosition(float3x3 const& g, float3 const& alongTime, float3 const& ofTime) {
    return g + Orvane::Math::outerProduct(alongTime, ofTime);
}
float3 byPosition(double4 const& g, float3 const& ofTime) {
    return {static_cast<float>(g.x + g.w * ofTime.x), static_cast<float>(g.y + g.w * ofTime.y),
            static_cast<float>(g.z + g.w * ofTime.z)};
}

/// Sets the positions and the times at which an octave of a block samples its noise.
void placeOctave(Block& block, Octave<float> const& octave, float const* time,
                 BlockResult<float3>& places, float* octaveTime) {
    mapBlock(
        block, places,
        [octave](float3 const& p) ZEL_ALWAYS_INLINE {
            return float3{octave.place(p.x), octave.place(p.y), octave.place(p.z)};
        },
        block.positions());
    Quern::forEachPosition<true>(
        block.count(), [=](int k) ZEL_ALWAYS_INLINE { octaveTime[k] = octave.placeTime(time[k]); });
}

/// Calls `add(to, v)` for each float of `to` and its counterpart in `values`.
template <class T, class Add>
void addColumns(Block const& block, ColumnWriter<T> const& to, Columns<T> const& values,
                Add const& add) {
    for (std::size_t c = 0; c < kComponents<T>; ++c)
        Quern::forEachPosition<true>(block.count(),
                                     [add, to = to.component[c], v = values.component[c]](int k)
                                         ZEL_ALWAYS_INLINE { add(to[k], v[k]); });
}

/// An array of kBlockSize doubles that is valid until the frame ends.
double* allocateDoubles(Block& block) {
    constexpr int kArrays = sizeof(double) / sizeof(float);
    return new (block.allocate(kArrays)) double[kBlockSize];
}

/// The positions and the times of a block in double precision, as long as the frame lasts.
std::array<double*, 4> widenPlaces(Block& block, float const* time) {
    auto const [x, y, z] = block.positions().component;
    std::array<double*, 4> places;
    for (double*& array : places) array = allocateDoubles(block);
    Quern::forEachPosition(block.count(), [=, x = x, y = y, z = z](int k) ZEL_ALWAYS_INLINE {
        places[0][k] = x[k];
        places[1][k] = y[k];
        places[2][k] = z[k];
        places[3][k] = time[k];
    });
    return places;
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

float3 curlDerivativeAt(bool smooth, float3 const& p, float time, std::uint32_t seed,
                        float3x3& jacobian, float3& alongTime) {
    return smooth ? smooth_curl_noise_derivative(p, time, seed, jacobian, alongTime)
                  : curl_noise_derivative(p, time, seed, jacobian, alongTime);
}

void curlDerivativeBlock(bool smooth, Columns<float3> const& p, float const* time, int count,
                         std::uint32_t seed, ColumnWriter<float3> const& out,
                         ColumnWriter<float3x3> const& jacobian,
                         ColumnWriter<float3> const& alongTime) {
    auto const& [x, y, z] = p.component;
    auto const& [toX, toY, toZ] = out.component;
    auto const& j = jacobian.component;
    auto const& t = alongTime.component;
    float* const rows[9] = {j[0], j[1], j[2], j[3], j[4], j[5], j[6], j[7], j[8]};
    float* const along[3] = {t[0], t[1], t[2]};
    if (smooth)
        smooth_curl_noise_derivative_block(x, y, z, time, count, seed, toX, toY, toZ, rows, along);
    else
        curl_noise_derivative_block(x, y, z, time, count, seed, toX, toY, toZ, rows, along);
}

std::uint32_t foldedSeed(std::int64_t seed) {
    return static_cast<std::uint32_t>((seed >> 32) ^ seed);
}

}  // namespace

float ScalarFieldSimplexNoise::eval(float3 const& position, long long index) const {
    float const w = time->eval(position, index);
    return simplex_noise(float4{position.x, position.y, position.z, w}, seed);
}

float3 ScalarFieldSimplexNoise::grad(float3 const& position, long long index) const {
    if (!usesExactGradient) return ScalarField::grad(position, index);
    float const w = time->eval(position, index);
    float4 along;
    simplex_noise(float4{position.x, position.y, position.z, w}, seed, along);
    return byPosition(float3{along.x, along.y, along.z}, along.w, time->grad(position, index));
}

/// Sets the values and the gradients at the positions of a block.
void ScalarFieldSimplexNoise::derivatives(Block& block, float* values,
                                          ColumnWriter<float3> const& gradients) const {
    Block::Frame const frame(block);
    float const* const w = block.values(time).component[0];
    auto const ofTime = block.gradients(time);
    auto along = block.result<float3>();
    float* const alongW = block.allocate();
    auto const [x, y, z] = block.positions().component;
    auto const [alongX, alongY, alongZ] = along.writer().component;
    simplex_noise_block(x, y, z, w, block.count(), seed, values, alongX, alongY, alongZ, alongW);
    Quern::forEachPosition(block.count(), [=, a = along.columns](int i) ZEL_ALWAYS_INLINE {
        gradients.set(i, byPosition(a[i], alongW[i], ofTime[i]));
    });
}

void ScalarFieldSimplexNoise::blockGradients(Block& block, BlockResult<float3>& out) const {
    if (!usesExactGradient) return detail::differencesInBlock<ScalarField>(*this, block, out);
    Block::Frame const frame(block);
    derivatives(block, block.allocate(), out.writer());
}

void ScalarFieldSimplexNoise::blockValues(Block& block, BlockResult<float>& out) const {
    Block::Frame const frame(block);
    auto const w = block.values(time);
    if (usesExactGradient && w.light &&
        block.withGradients<ScalarField>(*this, [&](ColumnWriter<float3> const& gradients) {
            derivatives(block, out.writer().component[0], gradients);
        }))
        return;
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
        double4 const p{octave.place(position.x), octave.place(position.y),
                        octave.place(position.z), octave.placeTime(w)};
        octave.add(sum, simplex_noise(p, seed));
    });
    return static_cast<float>(sum);
}

float3 ScalarFieldFractalNoise::grad(float3 const& position, long long index) const {
    if (!usesExactGradient) return ScalarField::grad(position, index);
    double const w = time->eval(position, index);
    double4 sum;
    useOctaves([&](Octave<double> const& octave) {
        double4 along;
        simplex_noise(double4{octave.place(position.x), octave.place(position.y),
                              octave.place(position.z), octave.placeTime(w)},
                      seed, along);
        octave.addAlong(sum.x, along.x);
        octave.addAlong(sum.y, along.y);
        octave.addAlong(sum.z, along.z);
        octave.addAlongTime(sum.w, along.w);
    });
    return byPosition(sum, time->grad(position, index));
}

void ScalarFieldFractalNoise::derivatives(Block& block, float* values,
                                          ColumnWriter<float3> const& gradients) const {
    Block::Frame const frame(block);
    float const* const w = block.values(time).component[0];
    auto const ofTime = block.gradients(time);
    auto const [x, y, z, t] = widenPlaces(block, w);
    std::array<double*, 5> sum;  // the last is that of the values
    for (auto& array : sum) std::fill_n(array = allocateDoubles(block), block.count(), 0.0);
    useOctaves([&, x = x, y = y, z = z, t = t](Octave<double> const& octave) {
        add_simplex_octave_block(x, y, z, t, block.count(), octave.parts(), seed, sum[4], sum[0],
                                 sum[1], sum[2], sum[3]);
    });
    Quern::forEachPosition(block.count(), [=](int k) ZEL_ALWAYS_INLINE {
        values[k] = static_cast<float>(sum[4][k]);
        double4 const s{sum[0][k], sum[1][k], sum[2][k], sum[3][k]};
        gradients.set(k, byPosition(s, ofTime[k]));
    });
}

void ScalarFieldFractalNoise::blockGradients(Block& block, BlockResult<float3>& out) const {
    if (!usesExactGradient) return detail::differencesInBlock<ScalarField>(*this, block, out);
    Block::Frame const frame(block);
    derivatives(block, block.allocate(), out.writer());
}

void ScalarFieldFractalNoise::blockValues(Block& block, BlockResult<float>& out) const {
    Block::Frame const frame(block);
    auto const times = block.values(time);
    if (usesExactGradient && times.light &&
        block.withGradients<ScalarField>(*this, [&](ColumnWriter<float3> const& gradients) {
            derivatives(block, out.writer().component[0], gradients);
        }))
        return;
    auto const [x, y, z, w] = widenPlaces(block, times.component[0]);
    auto* const sum = allocateDoubles(block);
    std::fill_n(sum, block.count(), 0.0);
    useOctaves([&, x = x, y = y, z = z, w = w](Octave<double> const& octave) {
        add_simplex_octave_block(x, y, z, w, block.count(), octave.parts(), seed, sum);
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

float3x3 VectorFieldCurlNoise::grad(float3 const& position, long long index) const {
    if (!usesExactGradient) return VectorField::grad(position, index);
    float3x3 jacobian;
    float3 alongTime;
    curlDerivativeAt(smooth, position, time->eval(position, index), seed, jacobian, alongTime);
    return byPosition(jacobian, alongTime, time->grad(position, index));
}

/// As of ScalarFieldSimplexNoise.
void VectorFieldCurlNoise::derivatives(Block& block, ColumnWriter<float3> const& values,
                                       ColumnWriter<float3x3> const& gradients) const {
    Block::Frame const frame(block);
    float const* const t = block.values(time).component[0];
    auto const ofTime = block.gradients(time);
    auto jacobian = block.result<float3x3>();
    auto alongTime = block.result<float3>();
    curlDerivativeBlock(smooth, block.positions(), t, block.count(), seed, values,
                        jacobian.writer(), alongTime.writer());
    Quern::forEachPosition(block.count(), [=, j = jacobian.columns,
                                           along = alongTime.columns](int i) ZEL_ALWAYS_INLINE {
        gradients.set(i, byPosition(j[i], along[i], ofTime[i]));
    });
}

void VectorFieldCurlNoise::blockGradients(Block& block, BlockResult<float3x3>& out) const {
    if (!usesExactGradient) return detail::differencesInBlock<VectorField>(*this, block, out);
    Block::Frame const frame(block);
    derivatives(block, block.result<float3>().writer(), out.writer());
}

void VectorFieldCurlNoise::blockValues(Block& block, BlockResult<float3>& out) const {
    Block::Frame const frame(block);
    auto const times = block.values(time);
    if (usesExactGradient && times.light &&
        block.withGradients<VectorField>(*this, [&](ColumnWriter<float3x3> const& gradients) {
            derivatives(block, out.writer(), gradients);
        }))
        return;
    auto const t = times.component[0];
    curlBlock(smooth, block.positions(), t, block.count(), seed, out.writer());
}

VectorFieldFractalTurbulence::VectorFieldFractalTurbulence(float amplitude, float octaves,
                                                           float frequency, float amplitudeRatio,
                                                           float scaleRatio, ScalarPtr timeField,
                                                           float timeRatio, bool smooth,
                                                           std::int64_t seed)
    : amplitude(amplitude), octaves(octaves), frequency(frequency), amplitudeRatio(amplitudeRatio),
      scaleRatio(scaleRatio), time(std::move(timeField)), timeRatio(timeRatio), smooth(smooth),
      seed(foldedSeed(seed)) {}

void VectorFieldFractalTurbulence::preSampleField() const {
    HookedNode::preSampleField();
    if (!dynamic_cast<ScalarFieldConstant const*>(time.get())) return cache.time.store({});
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

void VectorFieldFractalTurbulence::replaceChildren(ChildReplacer& replacer) {
    HookedNode::replaceChildren(replacer);
    cache.time.store({}, std::memory_order_relaxed);  // kept by a batch that has failed
}

std::optional<float> VectorFieldFractalTurbulence::keptTime() const {
    if (!smooth) return std::nullopt;
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

float3x3 VectorFieldFractalTurbulence::grad(float3 const& position, long long index) const {
    if (!usesExactGradient) return VectorField::grad(position, index);
    auto const kept = keptTime();
    float const t = kept ? *kept : time->eval(position, index);
    float3x3 sum;
    float3 sumAlongTime;
    useOctaves([&](Octave<float> const& octave) {
        float3 const p{octave.place(position.x), octave.place(position.y),
                       octave.place(position.z)};
        float3x3 jacobian;
        float3 alongTime;
        curlDerivativeAt(smooth, p, octave.placeTime(t), seed, jacobian, alongTime);
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) octave.addAlong(sum[r][c], jacobian[r][c]);
            octave.addAlongTime(sumAlongTime[r], alongTime[r]);
        }
    });
    return byPosition(sum, sumAlongTime, time->grad(position, index));
}

void VectorFieldFractalTurbulence::derivatives(Block& block, ColumnWriter<float3> const& values,
                                               ColumnWriter<float3x3> const& gradients) const {
    Block::Frame const frame(block);
    auto const kept = keptTime();
    float const* const t = (kept ? block.constant(*kept) : block.values(time)).component[0];
    auto const ofTime = block.gradients(time);
    auto sums = block.result<float3x3>(), jacobian = block.result<float3x3>();
    auto sumsAlongTime = block.result<float3>(), alongTime = block.result<float3>(),
         places = block.result<float3>(), noise = block.result<float3>();
    float* const u = block.allocate();
    auto const clear = [&](auto const& writer) {
        for (float* const column : writer.component) std::fill_n(column, block.count(), 0.0F);
    };
    clear(values), clear(sums.writer()), clear(sumsAlongTime.writer());
    useOctaves([&](Octave<float> const& octave) {
        placeOctave(block, octave, t, places, u);
        curlDerivativeBlock(smooth, places.columns, u, block.count(), seed, noise.writer(),
                            jacobian.writer(), alongTime.writer());
        addColumns(block, values, noise.columns,
                   [octave](float& to, float v) ZEL_ALWAYS_INLINE { octave.add(to, v); });
        addColumns(block, sums.writer(), jacobian.columns,
                   [octave](float& to, float v) ZEL_ALWAYS_INLINE { octave.addAlong(to, v); });
        addColumns(block, sumsAlongTime.writer(), alongTime.columns,
                   [octave](float& to, float v) ZEL_ALWAYS_INLINE { octave.addAlongTime(to, v); });
    });
    Quern::forEachPosition(block.count(), [=, j = sums.columns,
                                           along = sumsAlongTime.columns](int i) ZEL_ALWAYS_INLINE {
        gradients.set(i, byPosition(j[i], along[i], ofTime[i]));
    });
}

void VectorFieldFractalTurbulence::blockGradients(Block& block, BlockResult<float3x3>& out) const {
    if (!usesExactGradient) return detail::differencesInBlock<VectorField>(*this, block, out);
    Block::Frame const frame(block);
    derivatives(block, block.result<float3>().writer(), out.writer());
}

void VectorFieldFractalTurbulence::blockValues(Block& block, BlockResult<float3>& out) const {
    Block::Frame const frame(block);
    auto const kept = keptTime();
    auto const times = kept ? block.constant(*kept) : block.values(time);
    if (usesExactGradient && times.light &&
        block.withGradients<VectorField>(*this, [&](ColumnWriter<float3x3> const& gradients) {
            derivatives(block, out.writer(), gradients);
        }))
        return;
    float const* const t = times.component[0];
    auto const sum = out.writer().component;
    for (float* const component : sum) std::fill_n(component, block.count(), 0.0F);
    auto places = block.result<float3>(), noise = block.result<float3>();
    float* const u = block.allocate();
    useOctaves([&](Octave<float> const& octave) {
        placeOctave(block, octave, t, places, u);
        curlBlock(smooth, places.columns, u, block.count(), seed, noise.writer());
        addColumns(block, out.writer(), noise.columns,
                   [octave](float& to, float v) ZEL_ALWAYS_INLINE { octave.add(to, v); });
    });
}

}  // namespace zel

ZEL_DEFINE_HOOKED(zel::ScalarFieldSimplexNoise, ScalarField);
ZEL_DEFINE_HOOKED(zel::ScalarFieldFractalNoise, ScalarField);
ZEL_DEFINE_HOOKED(zel::VectorFieldCurlNoise, VectorField);
ZEL_DEFINE_HOOKED(zel::VectorFieldFractalTurbulence, VectorField);
