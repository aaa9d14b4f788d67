#include <memory>

#include "../benchmarks/allocation_count.h"
#include "sampler/reference.h"
#include "support/probe.h"
#include "zel/sampler/ring_fill.h"
#include "zel/sampler/voxel_sampler_linear.h"

namespace {

using namespace reference;
using support::same;

template <class Traits> class LinearVolume : public testing::Test {};
TYPED_TEST_SUITE(LinearVolume, trees::Kinds);

constexpr int kWorld = 2, kLattice = 0;

/// Both forms where both take the topology.
template <class Traits, class T> auto makeSamplers(Scene<Traits, T> const& scene) {
    using Sampler = LinearSampler<Traits, T>;
    std::vector<std::unique_ptr<Sampler>> all;
    all.push_back(std::make_unique<Sampler>(*scene.container, scene.topology, scene.channel));
    if (scene.topology.offsetType() == 7)
        all.push_back(std::make_unique<Sampler>(*scene.container, scene.topology, scene.halo));
    return all;
}

/// Tiles of several depths around the origin, and samples of a linear function at all depths.
TYPED_TEST(LinearVolume, ReproducesLinearFunctions) {
    using Traits = TypeParam;
    constexpr int D = Traits::kMaxDepth;
    auto const f = [](float3 const& p) { return 3 + 0.5F * p.x - 0.25F * p.y + 2 * p.z; };
    Random random(21);
    for (VoxelOffsetType type = 0; type < 8; ++type)
        for (Shape const shape : {Shape::kUniform, Shape::kRefined, Shape::kCheckerboard}) {
            Scene<Traits, float> scene(shape, type, random, 0, true, 0.5F);
            fillChannel<Traits, float>(scene.channel, scene.topology, f);
            scene.computeHalo();
            for (auto const& sampler : makeSamplers(scene))
                for (int n = 0; n < 1500; ++n) {
                    // A few tiles of depth D - 2, the surroundings of the deepest ones.
                    auto const reach = static_cast<float>(Traits::tileWidth(D - 2));
                    float3 p{random.real(-reach, reach), random.real(-reach, reach),
                             random.real(-reach, reach)};
                    if (n % 2 == 0) p = {p.x * 0.2F, p.y * 0.2F, p.z * 0.2F};
                    if (n % 3 == 0) p.x = std::round(p.x);
                    p = p * 0.5F;
                    float3 g;
                    float const v = sampler->sampleGradient(p, D - n % 2, kWorld, g);
                    SCOPED_TRACE(testing::Message()
                                 << "type " << type << ", shape " << static_cast<int>(shape)
                                 << " at " << p.x << " " << p.y << " " << p.z);
                    ASSERT_NEAR(v, f(p), 2e-3);
                    ASSERT_NEAR(g.x, 0.5, 1e-3);
                    ASSERT_NEAR(g.y, -0.25, 1e-3);
                    ASSERT_NEAR(g.z, 2, 1e-3);
                }
        }
}

/// Also where the default value comes in, which is the same.
TYPED_TEST(LinearVolume, ReproducesConstants) {
    using Traits = TypeParam;
    Random random(22);
    for (VoxelOffsetType type = 0; type < 8; ++type)
        for (Shape const shape : kShapes)
            for (int const minDepth : {0, 2}) {
                Scene<Traits, float3> scene(shape, type, random, minDepth);
                fillChannel<Traits, float3>(scene.channel, scene.topology,
                                            [&](float3 const&) { return scene.defaultValue; });
                scene.computeHalo();
                for (auto const& sampler : makeSamplers(scene))
                    for (int n = 0; n < 200; ++n) {
                        float3 const v =
                            sampler->sample(scene.position(random), Traits::kMaxDepth, kLattice);
                        ASSERT_TRUE(same(v, scene.defaultValue, 4e-6F)) << "type " << type;
                    }
            }
}

/// No sampler shows where it was before: neither one after the other, nor in blocks.
TYPED_TEST(LinearVolume, WalksLikeAFreshSampler) {
    using Traits = TypeParam;
    constexpr int D = Traits::kMaxDepth;
    Random random(23);
    for (VoxelOffsetType const type : {7, 0, 1, 6})
        for (Shape const shape : kShapes) {
            Scene<Traits, float> const scene(shape, type, random, 0, type == 1);
            Scene<Traits, float3> const vectors(shape, type, random, 0, type == 1);
            constexpr int kCount = 300;
            std::vector<float> x, y, z;
            for (int n = 0; n < kCount; ++n) {
                float3 const p = n % 40 == 7 ? float3{1e38F, 0, 0} : scene.position(random);
                x.push_back(p.x);
                y.push_back(p.y);
                z.push_back(p.z);
            }
            auto const samplers = makeSamplers(scene), fresh = makeSamplers(scene);
            auto const vectorSamplers = makeSamplers(vectors);
            for (std::size_t form = 0; form < samplers.size(); ++form) {
                std::array<std::vector<float>, 8> block;
                for (auto& values : block) values.assign(kCount, 9);
                auto const out = [&](unsigned i) { return block[i].data(); };
                fresh[form]->sampleBlock(x.data(), y.data(), z.data(), kCount, D, kLattice,
                                         {out(0)});
                fresh[form]->sampleGradientBlock(x.data(), y.data(), z.data(), kCount, D, kLattice,
                                                 out(1), {out(2), out(3), out(4)});
                fresh[form]->sampleGradientBlock(x.data(), y.data(), z.data(), 0, D, kLattice,
                                                 static_cast<float*>(nullptr), {});
                vectorSamplers[form]->sampleBlock(x.data(), y.data(), z.data(), kCount, D, kLattice,
                                                  {out(5), out(6), out(7)});
                for (unsigned n = 0; n < kCount; ++n) {
                    float3 const p{x[n], y[n], z[n]};
                    auto const once = makeSamplers(scene);
                    float3 g, h;
                    float const expected = once[form]->sampleGradient(p, D, kLattice, g);
                    float3 const v = makeSamplers(vectors)[form]->sample(p, D, kLattice);
                    ASSERT_TRUE(same(samplers[form]->sampleGradient(p, D, kLattice, h), expected));
                    ASSERT_TRUE(same(g, h));
                    ASSERT_TRUE(same(samplers[form]->sample(p, D, kLattice), expected));
                    ASSERT_TRUE(same(block[0][n], expected)) << n;
                    ASSERT_TRUE(same(block[1][n], expected)) << n;
                    ASSERT_TRUE(same(float3{block[2][n], block[3][n], block[4][n]}, g)) << n;
                    ASSERT_TRUE(same(float3{block[5][n], block[6][n], block[7][n]}, v)) << n;
                }
            }
        }
}

TYPED_TEST(LinearVolume, SamplingAllocatesNothing) {
    using Traits = TypeParam;
    Random random(24);
    for (VoxelOffsetType const type : {7, 2}) {
        Scene<Traits, float> const scene(Shape::kCheckerboard, type, random);
        auto const samplers = makeSamplers(scene);
        std::vector<float> x, y, z, values(500);
        for (int n = 0; n < 500; ++n) {
            float3 const p = scene.position(random);
            x.push_back(p.x);
            y.push_back(p.y);
            z.push_back(p.z);
        }
        AllocationCount const count;
        for (auto const& sampler : samplers) {
            float3 g;
            for (std::size_t n = 0; n < 500; ++n)
                values[n] = sampler->sampleGradient({x[n], y[n], z[n]}, 99, kLattice, g);
            sampler->sampleBlock(x.data(), y.data(), z.data(), 500, 99, kLattice, {values.data()});
        }
        EXPECT_EQ(count.blocks(), 0U);
    }
}

/// The neighbours' samples all round, and the parent not read.
TYPED_TEST(LinearVolume, RingOfASurroundedTile) {
    using Traits = TypeParam;
    constexpr int W = Traits::kSamples;
    // A function of the lattice point tells where each sample is from.
    auto const f = [](int i, int j, int k) { return static_cast<float>(i + 100 * j + 10000 * k); };
    std::array<std::array<float, Traits::kSampleCount>, 27> samples;
    NeighborData<Traits, float> neighbors;
    for (int n = 0; n < 27; ++n) {
        auto& tile = samples[static_cast<unsigned>(n)];
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    tile[static_cast<unsigned>(i + W * (j + W * k))] =
                        f(i + (n / 9 - 1) * W, j + (n / 3 % 3 - 1) * W, k + (n % 3 - 1) * W);
        neighbors[static_cast<unsigned>(n)] = OwnData<Traits, float>(tile.data());
    }
    auto const own = std::exchange(neighbors[13], {});
    using Ring = RingTile<Traits, float>;
    for (VoxelOffsetType type = 0; type < 8; ++type) {
        Ring const parent;  // without data
        Ring ring(Ring::Layout::kCount);
        fillRingTile<Traits, float>(type, parent, 1, 0, 1, own, neighbors, ring);
        for (int k = -1; k <= W; ++k)
            for (int j = -1; j <= W; ++j)
                for (int i = -1; i <= W; ++i) ASSERT_EQ(ring(i, j, k), f(i, j, k)) << type;
    }
}

/// Without neighbours the ring meets the parent halfway, or on the face.
TYPED_TEST(LinearVolume, RingNextToACoarserLevel) {
    using Traits = TypeParam;
    constexpr int W = Traits::kSamples, kSpan = W / Traits::kBranch;
    Random random(25);
    using Ring = RingTile<Traits, float>;
    Ring parent(Ring::Layout::kCount), ring(Ring::Layout::kCount);
    std::array<float, Traits::kSampleCount> own;
    for (float& sample : own) sample = random.real(-1, 1);
    std::for_each_n(parent.data(), Ring::Layout::kCount,
                    [&](float& sample) { sample = random.real(-1, 1); });
    int const c = Traits::kBranch - 1, below = c * kSpan, above = below + kSpan;

    fillRingTile<Traits, float>(0, parent, c, c, c, OwnData<Traits, float>(own.data()), {}, ring);
    auto const mean = [](Ring& tile, int i, int j, int k) {
        float sum = 0;
        for (int n = 0; n < 8; ++n) sum += tile(i + n % 2, j + n / 2 % 2, k + n / 4);
        return sum / 8;
    };
    EXPECT_NEAR(mean(ring, -1, -1, -1), mean(parent, below - 1, below - 1, below - 1), 2e-6);
    EXPECT_NEAR(mean(ring, W - 1, -1, W - 1), mean(parent, above - 1, below - 1, above - 1), 2e-6);

    fillRingTile<Traits, float>(7, parent, c, c, c, OwnData<Traits, float>(own.data()), {}, ring);
    EXPECT_EQ(ring(0, 0, 0), parent(below, below, below));
    EXPECT_EQ(ring(W, 0, W), parent(above, below, above));
    EXPECT_EQ(ring(-1, 2, 1), 2 * ring(0, 2, 1) - ring(1, 2, 1));
    EXPECT_EQ(ring(2, 1, W - 1), own[2 + W * (1 + W * (W - 1))]);
}

}  // namespace
