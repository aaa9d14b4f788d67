#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <limits>
#include <optional>

#include "zel/node/node.h"

// Noise over space and a fourth coordinate, which a child field supplies. A walk does not reach
// that child; the sampling hooks do. None of the nodes can be assigned.
//
// The gradients are the default ones, differences over 2 % of each coordinate; after
// withExactGradients() they are derivatives. The root mean square error of the differences of one
// layer is 5 to 9 % of the derivative for positions within 10 of the origin, 80 to 86 % within 100,
// where the steps are as long as a cell of the noise, and 100 % beyond. Within 0.001 of the origin
// it is 20 %, since the steps are so short that rounding shows. A `frequency` above 1 shortens the
// distances.
namespace zel {

/// One layer of 4-D simplex noise: simplex_noise((p, time(p)), seed), within -1..1, of root mean
/// square 0.25. Features have a size of about 1, in the units of positions, and last about 1 in
/// time.
class ZEL_API ScalarFieldSimplexNoise : public HookedNode<ScalarFieldSimplexNoise, ScalarField> {
public:
    ScalarFieldSimplexNoise(ScalarPtr time_, std::int64_t seed_)
        : time(std::move(time_)), seed(seed_) {}

    using ScalarField::eval;
    float eval(float3 const& position, long long index) const override;
    float3 grad(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.time); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("time", &Node::time, 0.0F), named("seed", &Node::seed, 0));
    }
    void blockValues(Block& block, BlockResult<float>& out) const;
    void blockGradients(Block& block, BlockResult<float3>& out) const;
    void derivatives(Block& block, float* values, ColumnWriter<float3> const& gradients) const;

    ScalarPtr time;
    std::int64_t const seed;
    bool usesExactGradient = false;
};

/// A weighted sum of layers of 4-D simplex noise, computed in double precision. Octave `i`
/// samples at the frequency `frequency / scaleRatio^i` and the fourth coordinate `timeRatio^i *
/// time(p)`, with the weight `amplitudeRatio^i * amplitude`. If `octaves` has a fraction, the last
/// octave's weight is multiplied by it. The sum is not normalised. Features of octave `i`
/// have a size of about 1 over its frequency. 0 where `amplitude` or `scaleRatio` is 0 or NaN, and
/// where `octaves` is not above 0, not finite, or 2^31 or more.
class ZEL_API ScalarFieldFractalNoise : public HookedNode<ScalarFieldFractalNoise, ScalarField> {
public:
    ScalarFieldFractalNoise(float amplitude_, float octaves_, float frequency_,
                            float amplitudeRatio_, float scaleRatio_, ScalarPtr time_,
                            float timeRatio_, std::int64_t seed_)
        : amplitude(amplitude_), octaves(octaves_), frequency(frequency_),
          amplitudeRatio(amplitudeRatio_), scaleRatio(scaleRatio_), time(std::move(time_)),
          timeRatio(timeRatio_), seed(seed_) {}

    using ScalarField::eval;
    float eval(float3 const& position, long long index) const override;
    float3 grad(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.time); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(
            named("amplitude", &Node::amplitude, 1.0F), named("octaves", &Node::octaves, 1.0F),
            named("frequency", &Node::frequency, 1.0F),
            named("amplitudeRatio", &Node::amplitudeRatio, 0.5F),
            named("scaleRatio", &Node::scaleRatio, 0.5F), named("time", &Node::time, 0.0F),
            named("timeRatio", &Node::timeRatio, 1.0F), named("seed", &Node::seed, 0));
    }
    template <class Use> void useOctaves(Use const& use) const;
    void blockValues(Block& block, BlockResult<float>& out) const;
    void blockGradients(Block& block, BlockResult<float3>& out) const;
    void derivatives(Block& block, float* values, ColumnWriter<float3> const& gradients) const;

    float amplitude, octaves, frequency, amplitudeRatio, scaleRatio;
    ScalarPtr time;
    float timeRatio;
    std::int64_t const seed;
    bool usesExactGradient = false;
};

/// One layer of divergence-free noise: curl_noise(p, time(p), seed), or smooth_curl_noise if
/// `smooth`. The root mean square of its length is about 2.8, and features have a size of about 1,
/// in the units of positions. The 64-bit seed is folded to 32 bits.
class ZEL_API VectorFieldCurlNoise : public HookedNode<VectorFieldCurlNoise, VectorField> {
public:
    VectorFieldCurlNoise(ScalarPtr time, bool smooth, std::int64_t seed);

    using VectorField::eval;
    float3 eval(float3 const& position, long long index) const override;
    float3x3 grad(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.time); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("time", &Node::time, 0.0F), named("smooth", &Node::smooth, true),
                          named(
                              "seed", [](Node const& node) { return std::int64_t{node.seed}; }, 0));
    }
    void blockValues(Block& block, BlockResult<float3>& out) const;
    void blockGradients(Block& block, BlockResult<float3x3>& out) const;
    void derivatives(Block& block, ColumnWriter<float3> const& values,
                     ColumnWriter<float3x3> const& gradients) const;

    ScalarPtr time;
    bool smooth;
    std::uint32_t const seed;
    bool usesExactGradient = false;
};

/// A weighted sum of layers of curl noise, with the octaves of ScalarFieldFractalNoise but in
/// single precision throughout.
///
/// Where `time` is a ScalarFieldConstant and the noise is smooth, a batch evaluates it once.
class ZEL_API VectorFieldFractalTurbulence
    : public HookedNode<VectorFieldFractalTurbulence, VectorField> {
public:
    VectorFieldFractalTurbulence(float amplitude, float octaves, float frequency,
                                 float amplitudeRatio, float scaleRatio, ScalarPtr time,
                                 float timeRatio, bool smooth, std::int64_t seed);
    VectorFieldFractalTurbulence(VectorFieldFractalTurbulence const&) = default;

    using VectorField::eval;
    float3 eval(float3 const& position, long long index) const override;
    float3x3 grad(float3 const& position, long long index) const override;
    void preSampleField() const override;
    void postSampleField() const override;
    void replaceChildren(ChildReplacer& replacer) override;

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.time); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(
            named("amplitude", &Node::amplitude, 1.0F), named("octaves", &Node::octaves, 1.0F),
            named("frequency", &Node::frequency, 1.0F),
            named("amplitudeRatio", &Node::amplitudeRatio, 0.5F),
            named("scaleRatio", &Node::scaleRatio, 0.5F), named("time", &Node::time, 0.0F),
            named("timeRatio", &Node::timeRatio, 1.0F), named("smooth", &Node::smooth, true),
            named(
                "seed", [](Node const& node) { return std::int64_t{node.seed}; }, 0));
    }
    template <class Use> void useOctaves(Use const& use) const;
    void blockValues(Block& block, BlockResult<float3>& out) const;
    void blockGradients(Block& block, BlockResult<float3x3>& out) const;
    void derivatives(Block& block, ColumnWriter<float3> const& values,
                     ColumnWriter<float3x3> const& gradients) const;
    /// The time that the hook before the batch has evaluated, if it has.
    std::optional<float> keptTime() const;

    /// The time of the batches that are being sampled, if it is constant: preSampleField() keeps
    /// it, postSampleField() drops it. Batches on several threads write it at once, and a sample
    /// that finds none evaluates `time`, to the same bits. A copy starts without one.
    struct TimeCache {
        struct alignas(8) Time {  // aligned, so that clang also knows it to be lock-free
            float cachedTime = std::numeric_limits<float>::max();
            std::uint32_t cachedTimeValid = 0;  // 32 bits wide: an atomic struct has no padding
        };

        TimeCache() = default;
        TimeCache(TimeCache const& /*other*/) noexcept {}

        static_assert(std::atomic<Time>::is_always_lock_free);
        std::atomic<Time> time = Time();
        /// Of the time, by create_curl_noise_time_table(). The octaves have times of their own, and
        /// do not read it.
        std::array<std::atomic<float>, 16> timeTable = {};
    };

    float amplitude, octaves, frequency, amplitudeRatio, scaleRatio;
    ScalarPtr time;
    float timeRatio;
    bool smooth;
    std::uint32_t const seed;
    bool usesExactGradient = false;
    mutable TimeCache cache;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_HOOKED(zel::ScalarFieldSimplexNoise, ScalarField);
ZEL_DECLARE_LIBRARY_HOOKED(zel::ScalarFieldFractalNoise, ScalarField);
ZEL_DECLARE_LIBRARY_HOOKED(zel::VectorFieldCurlNoise, VectorField);
ZEL_DECLARE_LIBRARY_HOOKED(zel::VectorFieldFractalTurbulence, VectorField);
