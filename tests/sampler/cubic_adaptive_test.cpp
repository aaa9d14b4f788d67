#include <gtest/gtest.h>

#include "sampler/cubic_volume.h"

namespace {

using namespace cubic;

template <class Case> class Adaptive : public testing::Test {};
TYPED_TEST_SUITE(Adaptive, Cases);

/// A cube of whole tiles around the origin, `across` along each axis.
template <class Traits> void addCube(Container<Traits>& tree, int depth, int across) {
    int const w = static_cast<int>(width<Traits>(depth));
    for (int n = 0; n < across * across * across; ++n)
        tree.addTile(w * (n % across - across / 2), w * (n / across % across - across / 2),
                     w * (n / across / across - across / 2), depth);
}
float3 around(Random& random, float reach) {
    return {random.real(-reach, reach), random.real(-reach, reach), random.real(-reach, reach)};
}

/// Away from jumps: the kernels themselves if nothing may lie below, else the same up to rounding.
/// kCubicC1Monotonic is not linear, so there the order of the axes matters.
TYPED_TEST(Adaptive, AgreesWithKernelsOnUniformGround) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(41);
    int const depth = Traits::kMaxDepth - 2;
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    addCube<Traits>(*tree, depth, 6);
    for (int offsetType : {7, 0, 6})
        for (int deeper : {0, 2}) {
            TestVolume<Traits, T> volume(tree, offsetType, 0, depth + deeper, T());
            volume.fillRandomly(random);
            for (int type = 0; type < 4; ++type) {
                auto kernels = volume.sampler(type);
                auto adaptive = volume.sampler(type, false, kJumpAdaptive);
                for (int n = 0; n < 300; ++n) {
                    auto const w = static_cast<float>(voxel<Traits>(depth));
                    float3 p = around(random, 1.5F * Traits::kSamples * w);
                    auto const& tile = tree->tileAccessor().tile(
                        static_cast<int>(p.x), static_cast<int>(p.y), static_cast<int>(p.z), 99);
                    bool between = true;
                    bool const rowsOnly = type == kCubicC1Monotonic && deeper != 0;
                    for (int axis = 0; axis < 3; ++axis)
                        if (rowsOnly ? axis != n % 3 : random(0, 3) == 0) {  // onto data points
                            float const corner = static_cast<float>(tile.tijk()[axis]);
                            p[axis] = corner + w * (std::floor((p[axis] - corner) / w) +
                                                    volume.topology.offset()[axis]);
                            between = false;
                        }
                    T const want = kernels.sample(p, 0), got = adaptive.sample(p, 0);
                    if (type == kCubicC1Monotonic && deeper == 0 && !between) continue;
                    if (deeper == 0 && between)
                        ASSERT_TRUE(same(got, want));
                    else
                        ASSERT_LT(distance(got, want), 2e-5F) << type;
                }
            }
        }
}

/// A cube of a coarse depth with a finer one inside it, and so on, with ragged edges.
template <class Traits>
Quern::Ptr<Container<Traits>> nested(Random& random, int coarse, int levels) {
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    addCube<Traits>(*tree, coarse, 6);
    for (int depth = coarse + 1; depth < coarse + levels; ++depth) {
        int const w = static_cast<int>(width<Traits>(depth));
        for (int n = 0; n < 60; ++n) {
            int3 const cell{random(-3, 2), random(-3, 2), random(-3, 2)};
            tree->addTile(w * cell.x, w * cell.y, w * cell.z, depth);
        }
    }
    return tree;
}

/// Ramps go unchanged through every jump, along axes whose samples lie on the corners. Along the
/// others the places of coarse and fine samples are taken for those of their voxels' corners, so
/// that a ramp is bent next to a jump.
TYPED_TEST(Adaptive, ReproducesRampsAcrossJumps) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(42);
    int const coarse = Traits::kMaxDepth - 4, deepest = Traits::kMaxDepth - 1;
    auto tree = nested<Traits>(random, coarse, 4);
    for (int offsetType = 0; offsetType < 8; ++offsetType) {
        auto const slope = [&](int axis) { return (offsetType >> axis & 1) != 0 ? 1 + axis : 0; };
        for (bool bent : {false, true}) {
            if (bent && offsetType == 7) continue;
            auto const ramp = [&](double x, double y, double z) {
                double const v =
                    slope(0) * x + slope(1) * y + slope(2) * z + (bent ? x + y + z : 0) - 5;
                return make<T>(static_cast<float>(v), static_cast<float>(-v),
                               static_cast<float>(v / 2));
            };
            TestVolume<Traits, T> volume(tree, offsetType, 0, deepest, make<T>(9e5F, 9e5F, 9e5F));
            volume.fill(ramp);
            float const reach = static_cast<float>(width<Traits>(coarse)) * 1.5F;
            float worst = 0;
            for (int type = 0; type < 4; ++type)
                for (bool clamp : {false, true}) {
                    auto sampler = volume.sampler(type, clamp, kJumpAdaptive);
                    for (int n = 0; n < 200; ++n) {
                        float3 p = around(random, reach / static_cast<float>(1 << random(0, 4)));
                        for (int axis = 0; axis < 3; ++axis)
                            if (random(0, 2) == 0) p[axis] = std::floor(p[axis]);
                        int const limit = random(0, 2) == 0 ? random(coarse, deepest) : 99;
                        T const got = sampler.sample(p, limit, 0), want = ramp(p.x, p.y, p.z);
                        worst = std::max(worst, distance(got, want) / reach);
                        if (!bent) {
                            ASSERT_LT(distance(got, want), 2e-5F * reach)
                                << "offsets " << offsetType << " type " << type << " clamp "
                                << clamp << " limit " << limit << " at " << p.x << " " << p.y << " "
                                << p.z;
                        }
                    }
                }
            if (bent) {
                EXPECT_GT(worst, 1e-3F) << offsetType;
            }
        }
    }
}

template <class Traits> using Dof = Channel<Traits, short, Traits::kSamples, 1, 0>;

/// Flagged voxels hold rubbish, and a ramp is reproduced all the same: from the coarser level, or
/// in a refined neighbour from this one.
TYPED_TEST(Adaptive, FlaggedVoxelsTakeTheirValueElsewhere) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(43);
    int const coarse = Traits::kMaxDepth - 3, deepest = Traits::kMaxDepth - 1;
    auto tree = nested<Traits>(random, coarse, 3);
    auto const ramp = [](double x, double y, double z) {
        return make<T>(static_cast<float>(x - y + 2 * z), static_cast<float>(y),
                       static_cast<float>(z));
    };
    float const reach = static_cast<float>(width<Traits>(coarse)) * 1.5F;
    for (int depth = coarse + 1; depth <= deepest; ++depth) {
        TestVolume<Traits, T> volume(tree, 7, 0, deepest + 1, T());  // no tile is at the limit
        volume.fill(ramp);
        Dof<Traits> dof("", nullptr, 0, false, true, 0, deepest + 1);
        dof.update(volume.topology);
        // Whole voxels of the coarser level, B voxels along each axis, that are not refined.
        int flagged = 0;
        float3 rubbish;
        for (long long n = 0; n < tree->tileCount(depth); ++n) {
            auto flags = dof.tileData(TreeIndex{n, depth});
            auto data = volume.channel.tileData(TreeIndex{n, depth});
            constexpr int kB = Traits::kBranch, kGroups = Traits::kSamples / kB;
            for (int group = 0; group < kGroups * kGroups * kGroups; ++group) {
                bool leaf = true;
                for (int child = 0; child < kB * kB * kB; ++child) {
                    int3 const position{child % kB, child / kB % kB, child / kB / kB};
                    int3 const own{group % kGroups, group / kGroups % kGroups,
                                   group / kGroups / kGroups};
                    if (kGroups == 1 || position == own)
                        leaf = leaf && tree->tile(n, depth).isLeaf(position);
                }
                if (!leaf || random(0, 2) != 0) continue;
                ++flagged;
                for (int m = 0; m < kB * kB * kB; ++m) {
                    int const i = group % kGroups * kB + m % kB,
                              j = group / kGroups % kGroups * kB + m / kB % kB,
                              k = group / kGroups / kGroups * kB + m / kB / kB;
                    flags(i, j, k) = static_cast<short>(n % 2 == 0 ? 3 : -32767);
                    data(i, j, k) = make<T>(1e9F, 1e9F, 1e9F);
                    int3 const at =
                        tree->tile(n, depth).tijk() + int3{i, j, k} * voxel<Traits>(depth);
                    rubbish = {static_cast<float>(at.x), static_cast<float>(at.y),
                               static_cast<float>(at.z)};
                }
            }
        }
        EXPECT_GE(flagged, 5);
        for (int type = 0; type < 4; ++type) {
            auto sampler = volume.sampler(type, false, kJumpAdaptive, &dof);
            for (int n = 0; n < 600; ++n) {
                float3 p = around(random, reach / static_cast<float>(1 << random(0, 3)));
                for (int axis = 0; axis < 3; ++axis)
                    if (random(0, 2) == 0) p[axis] = std::floor(p[axis]);
                ASSERT_LT(distance(sampler.sample(p, 0), ramp(p.x, p.y, p.z)), 1e-4F * reach)
                    << "depth " << depth << " type " << type << " at " << p.x << " " << p.y << " "
                    << p.z;
            }
        }
        // Another mask sees no flags, and thus rubbish.
        Sampler<Traits, T> blind(*tree, volume.topology, volume.channel, kCubicC0, false,
                                 kJumpAdaptive, &dof, 1 << 14, 0);
        EXPECT_TRUE(same(blind.sample(rubbish, 0), make<T>(1e9F, 1e9F, 1e9F)));
    }
}

/// In the root there is no coarser level: a flagged voxel there has the default value.
TYPED_TEST(Adaptive, FlaggedVoxelsOfTheRoot) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    tree->addTile(0, 0, 0, 0);
    T const five = make<T>(5, 5, 5);
    TestVolume<Traits, T> volume(tree, 7, 0, 2, five);
    volume.fill([](double, double, double) { return make<T>(1, 1, 1); });
    Dof<Traits> dof("", nullptr, 0, false, true, 0, 2);
    dof.update(volume.topology);
    dof.tileData(TreeIndex{0, 0})(1, 1, 1) = 1;
    auto sampler = volume.sampler(kCubicC0, false, kJumpAdaptive, &dof);
    auto const at = [&](float x, float y, float z) {
        return sampler.sampleVoxel({0, 0}, {1, 1, 1}, {x, y, z}, 2, false);
    };
    EXPECT_TRUE(same(at(0, 0, 0), five));
    EXPECT_TRUE(same(sampler.sampleVoxel({0, 0}, {1, 2, 1}, {}, 2, false), make<T>(1, 1, 1)));
    // Along x: the flagged point and three others, on an even grid.
    float const half = 0.5625F * 4 + 1;
    EXPECT_LT(distance(at(0.5F, 0, 0), make<T>(half, half, half)), 1e-4F);
}

/// Points without a tile run on in even steps, below and above: at a corner of the root, a row of
/// ones that ends in the default value has the value of the formula for even places.
TYPED_TEST(Adaptive, RunsOnAcrossEmptySpace) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    constexpr int kDepth = 2, kLast = Traits::kSamples - 1;
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    int const low = static_cast<int>(kLow<Traits>),
              high = static_cast<int>(low + width<Traits>(0) - 1);
    TreeIndex const first = tree->addTile(low, low, low, kDepth),
                    last = tree->addTile(high, high, high, kDepth);
    TestVolume<Traits, T> volume(tree, 7, 0, kDepth, T());
    volume.fill([](double, double, double) { return make<T>(1, 2, 3); });
    auto sampler = volume.sampler(kCubicC0, false, kJumpAdaptive);
    for (int axis = 0; axis < 3; ++axis) {
        int3 lijk{1, 1, 1};
        float3 frac;
        frac[axis] = 0.5F;
        lijk[axis] = 0;
        // Weights of -1/16, 9/16, 9/16, -1/16: without the lowest point 17/16 remain.
        EXPECT_LT(distance(sampler.sampleVoxel(first, lijk, frac, 9, false),
                           make<T>(1, 2, 3) * (17.0F / 16)),
                  1e-4F);
        lijk[axis] = kLast;  // without the two upper ones 8/16
        EXPECT_LT(
            distance(sampler.sampleVoxel(last, lijk, frac, 9, false), make<T>(1, 2, 3) * 0.5F),
            1e-4F);
        lijk[axis] = -1;  // without the two lower ones
        EXPECT_LT(
            distance(sampler.sampleVoxel(first, lijk, frac, 9, false), make<T>(1, 2, 3) * 0.5F),
            1e-4F);
    }
}

/// A constant is reproduced, finite and at once, on whatever tree, with whatever flags and limits.
TYPED_TEST(Adaptive, KeepsConstantsOnAnyTree) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(44);
    for (int offsetType = 0; offsetType < 8; ++offsetType) {
        RandomTree<Traits> const built(random, 60, Traits::kMaxDepth);
        auto tree = Quern::makePtr<Container<Traits>>(built.tree);
        T const constant = make<T>(3, -2, 1);
        TestVolume<Traits, T> volume(tree, offsetType, offsetType % 2, Traits::kMaxDepth, constant);
        volume.fill([&](double, double, double) { return constant; });
        Dof<Traits> dof("", nullptr, 0, false, true, 0, Traits::kMaxDepth);
        dof.update(volume.topology);
        for (int depth = 0; depth <= tree->depth(); ++depth)
            for (long long n = 0; n < tree->tileCount(depth); ++n) {
                auto flags = dof.tileData(TreeIndex{n, depth});
                for (int l = 0; l < 100; ++l)
                    flags(random(0, 3), random(0, 3), random(0, 3)) = static_cast<short>(l % 2);
            }
        auto plain = volume.sampler(kCubicC0, true, kJumpAdaptive);
        auto withFlags = volume.sampler(kCubicC1, true, kJumpAdaptive, &dof);
        StandardOutput const output;  // where floats cannot tell places apart there is a NaN, and 0
        for (int n = 0; n < 60; ++n) {
            float3 const p = n % 3 == 0 ? around(random, 40) : volume.position(random);
            float const reach = std::max({std::abs(p.x), std::abs(p.y), std::abs(p.z)});
            int const limit = n % 2 == 0 ? 99 : random(0, Traits::kMaxDepth);
            T const value = plain.sample(p, limit, 0), flagged = withFlags.sample(p, limit, 0);
            if (reach < 1e6F) {
                ASSERT_LT(distance(value, constant), 1e-3F);
            }
            ASSERT_TRUE(std::isfinite(distance(flagged, value)));
        }
    }
}

}  // namespace
