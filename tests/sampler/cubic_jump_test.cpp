#include <gtest/gtest.h>

#include "sampler/cubic_volume.h"
#include "zel/sampler/cubic/jump.h"

namespace {

using namespace cubic;

/// All tiles of depth 1, and random ones below them, each with its ancestors.
template <class Traits> Quern::Ptr<Container<Traits>> jumps(Random& random, int deepest) {
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    for (int n = 0; n < Traits::kChildCount; ++n) {
        constexpr int kB = Traits::kBranch;
        tree->addTile(0, 0, 0, 0);
        tree->addChild({0, 0}, {n % kB, n / kB % kB, n / kB / kB});
    }
    for (int n = 0; n < 400; ++n) {
        auto const near = [&] { return random(-1, 1) * random(0, 300000000 >> random(0, 4)); };
        int3 const p{near(), near(), near()};
        tree->addTile(p.x, p.y, p.z, random(2, deepest));
    }
    return tree;
}

template <class Case> class Jump : public testing::Test {};
TYPED_TEST_SUITE(Jump, Cases);

/// The true place of a voxel is what counts: a linear field is reproduced wherever the tree is
/// coarser than asked for, whatever the offsets, but for the outer voxels of the root.
TYPED_TEST(Jump, ReproducesLinearFields) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(31);
    constexpr int kDeepest = 5;
    auto const tree = jumps<Traits>(random, kDeepest);
    auto const linear = [](double x, double y, double z) {
        return make<T>(static_cast<float>((x + 2 * y - 3 * z) * 1e-9 + 1),
                       static_cast<float>((y - x) * 1e-9), static_cast<float>((z - y) * 1e-9));
    };
    for (int type = 0; type < 8; ++type) {
        TestVolume<Traits, T> volume(tree, type, 0, kDeepest, make<T>(50, 50, 50));
        volume.fill(linear);
        auto const accessor = tree->tileAccessor();
        auto sampler = volume.sampler(kCubicC0);
        float3 const o = volume.topology.offset();
        long long const margin = voxel<Traits>(1) + voxel<Traits>(2);
        int const low = static_cast<int>(kLow<Traits> + margin), high = -low;
        int coarser = 0, jumps = 0;
        for (int n = 0; n < 1500; ++n) {
            auto const place = [&] { return random(low, high) / (n % 2 == 0 ? 1 : 8); };
            int3 const p{place(), place(), place()};
            int const depth = random(1, kDeepest);
            int const w = voxel<Traits>(depth);
            auto const cornerOf = [&](int c) {
                return static_cast<int>(c - (c - kLow<Traits>) % w);
            };
            int3 const c{cornerOf(p.x), cornerOf(p.y), cornerOf(p.z)};
            T const want =
                linear(c.x + w * double{o.x}, c.y + w * double{o.y}, c.z + w * double{o.z});
            ASSERT_LT(
                distance(sampleChannelPoint<Traits, T>(c, depth, type, volume.channel, accessor),
                         want),
                1e-5F)
                << "type " << type << " depth " << depth << " at " << c.x << " " << c.y << " "
                << c.z;
            coarser += accessor.tile(c.x, c.y, c.z, depth).depth() < depth;

            float3 const q{static_cast<float>(p.x), static_cast<float>(p.y),
                           static_cast<float>(p.z)};
            ASSERT_LT(distance(sampler.sample(q, 0), linear(q.x, q.y, q.z)), 1e-5F)
                << "type " << type << " at " << q.x << " " << q.y << " " << q.z;
            jumps += accessor.tile(p.x, p.y, p.z, kDeepest).depth() > 1;
        }
        EXPECT_GT(coarser, 300);
        EXPECT_GT(jumps, 100);
    }
}

}  // namespace
