// Makes a small tree of tiles of several depths from bytes, with samples of few binary digits, and
// reads it by the linear and the cubic sampler at positions from bytes: point by point and in
// batches, against what the references of the tests read slowly from the tree, and against samplers
// that have sampled nothing yet.

#include <array>
#include <cmath>
#include <span>
#include <vector>

#include "expect.h"
#include "sampler/cubic_volume.h"
#include "sampler/linear_reference.h"
#include "zel/sampler/linear/voxel_sampler_linear.h"

namespace {

using namespace trees;
using support::make;

constexpr int kLattice = 0, kLevels = 4;
constexpr std::size_t kSlowPositions = 6;
constexpr std::size_t kFreshLinear = 2;  // each has 2 MB
constexpr std::size_t kFreshCubic = 6;   // kept stencils seldom meet in one slot

template <class Traits, class T> class Scene {
public:
    explicit Scene(Random& random)
        : m_deepest(random(0, 1) == 0 ? Traits::kMaxDepth : random(kLevels, Traits::kMaxDepth)),
          m_volume(makeTree(random), random(0, 1) == 0 ? 7 : random(0, 7),
                   m_deepest - kLevels + 1 + random(0, 1), m_deepest, make<T>(7, -8, 9)) {
        auto state = static_cast<std::uint32_t>(random(0, 1 << 30));
        auto const next = [&] {
            state = state * 1664525U + 1013904223U;
            return static_cast<float>(static_cast<int>(state >> 24) - 128) / 16;
        };
        m_volume.fill([&](double, double, double) { return make<T>(next(), next(), next()); });
        for (int depth = 0; depth <= m_volume.container->depth(); ++depth)
            for (long long n = random(0, 40); n < m_volume.flags.elementCount(depth);
                 n += random(1, 40))
                m_volume.flags.samples({0, depth})[n] = 1;
        for (int n = random(1, 40); n > 0; --n) {
            float3 p = somePosition(*m_volume.container, random);
            if (random(0, 15) == 0)
                p[random(0, 2)] = kFar[random(0, static_cast<int>(std::size(kFar)) - 1)];
            if (random(0, 3) == 0 && !m_points.empty()) p = m_points.back() + float3{0.25F, 0, 0};
            m_points.push_back(p);
        }
        m_limit = random(0, 3) == 0 ? random(-1, m_deepest) : Traits::kMaxDepth;
        if (random(0, 1) == 0) {  // in a few tiles, or all in one voxel
            float const scale = std::ldexp(1.0F, -random(1, 24));
            for (float3& p : m_points) p = m_points[0] + (p - m_points[0]) * scale;
        }
        for (float3 const& p : m_points)
            for (int axis = 0; axis < 3; ++axis)
                m_at[static_cast<unsigned>(axis)].push_back(p[axis]);
    }

    void checkLinear() const {
        auto const& container = *m_volume.container;
        auto const& topology = m_volume.topology;
        auto const& channel = m_volume.channel;
        auto const make = [&] { return LinearSampler<Traits, T>(container, topology, channel); };
        auto sampler = make();
        checkBatch(sampler, m_limit, kLattice);
        checkAfresh(kFreshLinear, sampler, make, m_limit, kLattice);
        if (topology.offsetType() != 7) return;  // there the halo is a ring
        HaloChannel<Traits, T> computed("", &channel.defaultValue(), 0, false, true,
                                        channel.minDepth(), channel.depth());
        computed.update(topology);
        computeHalo<Traits, T, 0, 0, 1, 0>(channel, container, computed, channel.minDepth(),
                                           channel.depth());
        LinearSampler<Traits, T> reading(container, topology, computed);
        checkBatch(reading, m_limit, kLattice);
        for (float3 const& p : m_points)
            expect(same(sampleAt(sampler, p, m_limit, kLattice),
                        sampleAt(reading, p, m_limit, kLattice)));
        SlowHalo<Traits, T> const halo(container, channel, 7);
        for (float3 const& p : slowPositions()) {
            LinearSample<T> expected{channel.defaultValue()};
            auto const place = locate(topology, p, std::min(m_limit, m_deepest));
            if (place && place->tile->depth() >= channel.minDepth()) {
                auto const low = halo.first(*place->tile);
                std::array<T, 8> cells;
                for (int n = 0; n < 8; ++n) {
                    int3 const at = place->lijk + inCube(n, 2);
                    cells[static_cast<unsigned>(n)] = halo.sample(
                        {low[0] + at.x, low[1] + at.y, low[2] + at.z}, place->tile->depth());
                }
                expected = interpolate<T>(*place, container.voxelSize(), [&](int x, int y, int z) {
                    return cells[static_cast<unsigned>(x + 2 * y + 4 * z)];
                });
            }
            auto const got = sampleAt(sampler, p, m_limit, kLattice);
            // A fifth of a sample is rounded, and the order of the sums is another one.
            expect(Traits::kBranch == 2 ? same(got, expected)
                                        : distance(got.value, expected.value) < 1e-4F);
        }
    }

    void checkCubic(Random& random) const {
        int const type = random(0, 3);
        bool const clamp = random(0, 1) != 0, isAdaptive = random(0, 2) == 0;
        long long const cache = random(0, 3);
        auto const* const flags = random(0, 1) != 0 ? &m_volume.flags : nullptr;
        auto const make = [&] {
            return m_volume.sampler(type, clamp, isAdaptive ? kJumpAdaptive : kJumpTrilinear, flags,
                                    cache);
        };
        auto sampler = make();
        checkBatch(sampler, kLattice);
        checkAfresh(kFreshCubic, sampler, make, m_limit, kLattice);
        if (isAdaptive) return;
        cubic::Reference<Traits, T> const reference(m_volume);
        for (float3 const& p : slowPositions()) {
            auto const expected = reference.sample(p, m_limit, type, clamp);
            expect(same(sampler.sample(p, m_limit, kLattice),
                        (cache > 0 ? expected.cached : expected.plain).value));
        }
    }

private:
    Quern::Ptr<Container<Traits>> makeTree(Random& random) const {
        constexpr float kSizes[] = {1, 0.25F, 0.3F};
        auto tree = Quern::makePtr<Container<Traits>>(kSizes[random(0, 2)]);
        int const low = static_cast<int>(kLow<Traits>);
        for (int n = random(1, 5); n > 0; --n) {
            int const depth = m_deepest - random(0, kLevels - 1);
            auto const w = static_cast<int>(width<Traits>(std::max(depth, 2)));
            int3 const near{random(-1, 1) * w, random(-1, 1) * w, random(-1, 1) * w};
            cubic::addCube<Traits>(*tree, depth, random(1, 3),
                                   random(0, 3) == 0 ? int3{low, -low - 1, low} : near);
        }
        if (tree->size() == 0) tree->addTile(0, 0, 0, m_deepest);
        return tree;
    }

    static LinearSample<T> sampleAt(auto& sampler, float3 const& p, auto... where) {
        LinearSample<T> sample;
        sample.value = sampler.sampleGradient(p, where..., sample.gradient);
        return sample;
    }

    /// What a sampler has kept changes no bit. It has kept the most for the last points.
    void checkAfresh(std::size_t count, auto& sampler, auto const& make, auto... where) const {
        for (float3 const& p : std::span(m_points).last(std::min(m_points.size(), count))) {
            auto fresh = make();
            expect(same(sampleAt(sampler, p, where...), sampleAt(fresh, p, where...)));
        }
    }
    /// A sampler goes on from batch to batch, and then from point to point, with the same bits.
    template <class Sampler> void checkBatch(Sampler& sampler, auto... where) const {
        constexpr unsigned kFloats = sizeof(T) / sizeof(float);
        auto const count = static_cast<int>(m_points.size());
        std::array<std::vector<float>, 5 * kFloats> out;
        std::array<float*, kFloats> alone, values;
        std::array<float*, 3 * kFloats> gradients;
        for (unsigned k = 0; k < 5 * kFloats; ++k) {
            out[k].resize(m_points.size());
            (k < kFloats       ? alone[k]
             : k < 2 * kFloats ? values[k - kFloats]
                               : gradients[k - 2 * kFloats]) = out[k].data();
        }
        auto const [x, y, z] = std::array{m_at[0].data(), m_at[1].data(), m_at[2].data()};
        sampler.sampleBatch(x, y, z, count, where..., alone);
        sampler.sampleGradientBatch(x, y, z, count, where..., values, gradients);
        for (std::size_t n = 0; n < m_points.size(); ++n) {
            auto const sample = sampleAt(sampler, m_points[n], where...);
            expect(same(sample.value, sampler.sample(m_points[n], where...)));
            auto const floats = std::bit_cast<std::array<float, 4 * kFloats>>(sample);
            for (unsigned k = 0; k < 5 * kFloats; ++k)
                expect(same(out[k][n], floats[k < kFloats ? k : k - kFloats]));
        }
    }
    std::span<float3 const> slowPositions() const {
        return std::span(m_points).first(std::min(m_points.size(), kSlowPositions));
    }

    int m_deepest, m_limit = 0;
    cubic::TestVolume<Traits, T> m_volume;
    std::vector<float3> m_points;
    std::array<std::vector<float>, 3> m_at;
};

template <class Traits, class T> void check(Random& random) {
    Scene<Traits, T> const scene(random);
    if (random(0, 1) == 0)
        scene.checkLinear();
    else
        scene.checkCubic(random);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Random random(support::Choices(std::span(data, size)));
    constexpr void (*kChecks[])(Random&) = {check<BinaryTraits, float>, check<BinaryTraits, float3>,
                                            check<QuinaryTraits, float>,
                                            check<QuinaryTraits, float3>};
    kChecks[random(0, 3)](random);
    return 0;
}
