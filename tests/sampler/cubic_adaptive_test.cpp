#include "benchmarks/allocation_count.h"
#include "sampler/cubic_volume.h"
#include "support/sanitized.h"
#include "zel/sampler/cubic/jump.h"

namespace {

using namespace cubic;

template <class Case> class Adaptive : public testing::Test {};
TYPED_TEST_SUITE(Adaptive, Cases);

/// Within the reach, or a power of 2 less, often with integer coordinates.
float3 oftenOnPlanes(Random& random, float reach, int most) {
    float3 p;
    for (int axis = 0; axis < 3; ++axis) p[axis] = random.real(-reach, reach);
    p = p / static_cast<float>(1 << random(0, most));
    for (int axis = 0; axis < 3; ++axis)
        if (random(0, 2) == 0) p[axis] = std::floor(p[axis]);
    return p;
}

/// Away from jumps: the kernels themselves if nothing may lie below, else the same up to rounding.
/// kCubicC1Monotonic is not linear, so there the order of the axes matters.
TYPED_TEST(Adaptive, AgreesWithKernelsOnUniformGround) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(41);
    int const depth = Traits::kMaxDepth - 2, w = voxel<Traits>(depth);
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    addCube<Traits>(*tree, depth, 6);
    for (int offsetType : {7, 0, 6})
        for (int deeper : {0, 2}) {
            TestVolume<Traits, T> volume(tree, offsetType, 0, depth + deeper, T());
            volume.fillRandomly(random);
            for (int n = 0; n < support::repeats(1200); ++n) {
                int const type = n % 4;
                bool const rowsOnly = type == kCubicC1Monotonic;
                bool between = true;
                float3 p;
                for (int axis = 0; axis < 3; ++axis) {
                    p[axis] = random.real(-1.5F, 1.5F) * static_cast<float>(Traits::kSamples * w);
                    if (rowsOnly ? deeper == 0 || axis == n / 4 % 3 : random(0, 3) != 0) continue;
                    int const low = static_cast<int>(kLow<Traits>),
                              above = static_cast<int>(std::floor(p[axis])) - low,
                              plane = low + above / w * w;
                    p[axis] = static_cast<float>(plane) +
                              static_cast<float>(w) * volume.topology.offset()[axis];
                    between = false;  // on a data point along this axis
                }
                GradientOf<T> slopes, exact;
                auto kernels = volume.sampler(type),
                     adaptive = volume.sampler(type, false, kJumpAdaptive);
                T const want = kernels.sampleGradient(p, 0, exact),
                        got = adaptive.sampleGradient(p, 0, slopes);
                ASSERT_TRUE(same(got, adaptive.sample(p, 0)));
                if (deeper == 0 && between)
                    ASSERT_TRUE(same(got, want));
                else
                    ASSERT_LT(distance(got, want), 2e-5F) << type;
                if (deeper == 0) {
                    ASSERT_TRUE(same(slopes, exact));
                } else if (!rowsOnly) {
                    ASSERT_TRUE(same(slopes, exact, 5e-3F / static_cast<float>(w)));
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

/// Ramps go unchanged through every jump, with kJumpAdaptive along axes whose samples lie on the
/// corners: along the others it takes the places of samples for those of their voxels' corners.
TYPED_TEST(Adaptive, ReproducesRampsAcrossJumps) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(42);
    int const coarse = Traits::kMaxDepth - 4, deepest = Traits::kMaxDepth - 1;
    auto tree = nested<Traits>(random, coarse, 4);
    float const reach = static_cast<float>(width<Traits>(coarse)) * 1.5F;
    for (int round = 0; round < 16; ++round) {
        int const offsetType = round / 2, jump = round % 2 ? kJumpTrilinear : kJumpAdaptive;
        auto const slope = [&](int axis) {
            return jump == kJumpTrilinear || (offsetType >> axis & 1) != 0 ? 1 + axis : 0;
        };
        auto const ramp = [&](double x, double y, double z) {
            auto const v = static_cast<float>(slope(0) * x + slope(1) * y + slope(2) * z - 5);
            return make<T>(v, -v, v / 2);
        };
        TestVolume<Traits, T> volume(tree, offsetType, 0, deepest, make<T>(9e5F, 9e5F, 9e5F));
        volume.fill(ramp);
        for (int type = 0; type < 4; ++type)
            for (bool clamp : {false, true}) {
                auto sampler = volume.sampler(type, clamp, jump);
                auto const accessor = tree->tileAccessor();
                AllocationCount const allocations;
                for (int n = 0; n < support::repeats(200); ++n) {
                    float3 const p = oftenOnPlanes(random, reach, 4);
                    int const limit = random(0, 2) == 0 ? random(coarse, deepest) : 99;
                    T const value = sampler.sample(p, limit, 0);
                    GradientOf<T> gradient;
                    ASSERT_TRUE(same(sampler.sampleGradient(p, limit, 0, gradient), value));
                    ASSERT_EQ(allocations.blocks(), 0U);
                    ASSERT_LT(distance(value, ramp(p.x, p.y, p.z)), 2e-5F * reach)
                        << "offsets " << offsetType << " type " << type << " clamp " << clamp
                        << " limit " << limit << " at " << p.x << " " << p.y << " " << p.z;
                    // Differences over a part of a voxel enlarge the rounding of values.
                    int3 const at{static_cast<int>(std::floor(p.x)),
                                  static_cast<int>(std::floor(p.y)),
                                  static_cast<int>(std::floor(p.z))};
                    auto const& tile = accessor.tile(at.x, at.y, at.z, std::min(limit, deepest));
                    float const error = 4e-4F * reach / static_cast<float>(tile.voxelDataWidth());
                    auto const slopes =
                        std::bit_cast<std::array<float, sizeof gradient / sizeof(float)>>(gradient);
                    for (unsigned f = 0; f < slopes.size(); ++f) {
                        constexpr float kRows[] = {1, -1, 0.5F};
                        float const want =
                            kRows[f / 3] * static_cast<float>(slope(static_cast<int>(f % 3)));
                        ASSERT_NEAR(slopes[f], want, error) << "float " << f;
                    }
                }
            }
    }
}

/// What a sampler has kept of other samples, in the same voxel and with other limits, changes no
/// bit.
TYPED_TEST(Adaptive, GivesTheBitsOfANewSampler) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(47);
    int const coarse = Traits::kMaxDepth - 3, deepest = Traits::kMaxDepth - 1;
    auto tree = nested<Traits>(random, coarse, 3);
    TestVolume<Traits, T> volume(tree, 7, 0, deepest, T());
    volume.fillRandomly(random);
    auto sampler = volume.sampler(kCubicC1, true, kJumpAdaptive);
    for (int n = 0; n < 200; ++n) {
        float3 p = oftenOnPlanes(random, static_cast<float>(width<Traits>(coarse)) * 1.5F, 3);
        for (int m = 0; m < 4; ++m, p = p + float3{0.25F, 0.25F, 0.25F}) {
            int const limit = std::array{99, coarse, deepest, coarse + 1}[unsigned(m)];
            auto anew = volume.sampler(kCubicC1, true, kJumpAdaptive);
            ASSERT_TRUE(same(sampler.sample(p, limit, 0), anew.sample(p, limit, 0))) << n;
        }
    }
}

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
        // Whole voxels of the coarser level, B voxels along each axis, that are not refined.
        int flagged = 0;
        auto const accessor = tree->tileAccessor();
        for (long long n = 0; n < tree->tileCount(depth); ++n) {
            auto flags = volume.flags.tileData(TreeIndex{n, depth});
            auto data = volume.channel.tileData(TreeIndex{n, depth});
            constexpr int kB = Traits::kBranch, kGroups = Traits::kSamples / kB;
            for (int group = 0; group < kGroups * kGroups * kGroups; ++group) {
                std::vector<int3> voxels;
                for (int m = 0; m < kB * kB * kB; ++m) {
                    int3 const v = inCube(group, kGroups) * kB + inCube(m, kB);
                    int3 const at = tree->tile(n, depth).tijk() + v * voxel<Traits>(depth);
                    if (accessor.tile(at.x, at.y, at.z, 99).depth() == depth) voxels.push_back(v);
                }
                if (voxels.size() < kB * kB * kB || random(0, 2) != 0) continue;
                ++flagged;
                for (int3 const& v : voxels) {
                    flags(v.x, v.y, v.z) = static_cast<short>(n % 2 == 0 ? 3 : -32767);
                    data(v.x, v.y, v.z) = make<T>(1e9F, 1e9F, 1e9F);
                }
            }
        }
        EXPECT_GE(flagged, 5);
        for (int type = 0; type < 4; ++type) {
            auto sampler = volume.sampler(type, false, kJumpAdaptive, &volume.flags);
            for (int n = 0; n < 600; ++n) {
                float3 const p = oftenOnPlanes(random, reach, 3);
                ASSERT_LT(distance(sampler.sample(p, 0), ramp(p.x, p.y, p.z)), 1e-4F * reach)
                    << "depth " << depth << " type " << type << " at " << p.x << " " << p.y << " "
                    << p.z;
            }
        }
    }
}

/// The root has no coarser level: between its samples lies the default value, which a flagged voxel
/// has too.
TYPED_TEST(Adaptive, TakesTheDefaultAboveTheRoot) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    tree->addTile(0, 0, 0, 0);
    T const one = make<T>(1, 1, 1), five = make<T>(5, 5, 5);
    for (int offsetType = 0; offsetType < 8; ++offsetType) {
        TestVolume<Traits, T> volume(tree, offsetType, 0, 5, five);
        volume.fill([&](double, double, double) { return one; });
        int const half = voxel<Traits>(1);
        EXPECT_TRUE(same(sampleChannelPoint<Traits, T>({half, half, half}, 1, offsetType,
                                                       volume.channel, tree->tileAccessor()),
                         five));
        volume.flags.tileData(TreeIndex{0, 0})(1, 1, 1) = 1;
        auto sampler = volume.sampler(kCubicC0, false, kJumpAdaptive, &volume.flags);
        EXPECT_TRUE(same(sampler.sampleVoxel({0, 0}, {1, 1, 1}, {}, 2, false), five));
        EXPECT_TRUE(same(sampler.sampleVoxel({0, 0}, {1, 2, 1}, {}, 2, false), one));
        Sampler<Traits, T> otherMask(*tree, volume.topology, volume.channel, kCubicC0, false,
                                     kJumpAdaptive, &volume.flags, 1 << 14, 0);
        EXPECT_TRUE(same(otherMask.sampleVoxel({0, 0}, {1, 1, 1}, {}, 2, false), one));
        // Along x: the flagged point and three others, on an even grid.
        T const between = sampler.sampleVoxel({0, 0}, {1, 1, 1}, {0.5F, 0, 0}, 2, false);
        EXPECT_LT(distance(between, one + 0.5625F * (five - one)), 1e-4F);
    }
}

/// Points without a tile run on in even steps, below and above: at a corner of the root, a row of
/// ones that ends in the default value has the value of the formula for even places.
TYPED_TEST(Adaptive, RunsOnAcrossEmptySpace) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    constexpr int kDepth = 2;
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    int const low = static_cast<int>(kLow<Traits>),
              high = static_cast<int>(low + width<Traits>(0) - 1);
    TreeIndex const first = tree->addTile(low, low, low, kDepth),
                    last = tree->addTile(high, high, high, kDepth);
    TestVolume<Traits, T> volume(tree, 7, 0, kDepth, T());
    volume.fill([](double, double, double) { return make<T>(1, 2, 3); });
    auto sampler = volume.sampler(kCubicC0, false, kJumpAdaptive);
    // Weights of -1/16, 9/16, 9/16, -1/16 along each axis: without the lowest point 17/16 remain,
    // and without the two upper or lower ones 8/16.
    auto const check = [&](TreeIndex const& tile, int axes, int place, float weight) {
        int3 lijk{1, 1, 1};
        float3 frac;
        T want = make<T>(1, 2, 3);
        for (int axis = 0; axis < 3; ++axis)
            if ((axes >> axis & 1) != 0)
                frac[axis] = 0.5F, lijk[axis] = place, want = want * weight;
        EXPECT_LT(distance(sampler.sampleVoxel(tile, lijk, frac, 9, false), want), 1e-4F) << axes;
    };
    for (int axes = 1; axes < 8; ++axes) {
        check(first, axes, 0, 17.0F / 16);
        check(first, axes, -1, 0.5F);
        check(last, axes, Traits::kSamples - 1, 0.5F);
    }
}

/// The place of a coarser value over a flagged voxel is that voxel's, and the next point lies where
/// the coarser voxel ends.
TEST(AdaptiveStencil, GoesOnWhereACoarserVoxelEnds) {
    auto tree = Quern::makePtr<Container<BinaryTraits>>(1.0F);
    addCube<BinaryTraits>(*tree, 28, 4);
    TestVolume<BinaryTraits, float> volume(tree, 7, 0, 28, 0);
    volume.fill([](double x, double, double) { return static_cast<float>(x * x * x * x); });
    TreeIndex const tile = tree->tileAccessor().tile(0, 0, 0, 28).treeIndex();
    volume.flags.tileData(tile)(3, 0, 0) = 1;
    auto sampler = volume.sampler(kCubicC0, false, kJumpAdaptive, &volume.flags);
    EXPECT_NEAR(sampler.sampleVoxel(tile, {2, 0, 0}, {0.5F, 0, 0}, 28, false),
                lagrange({1, 2, 3, 4}, {1, 16, 16, 256}, 2.5), 1e-3);
}

/// Planes, and rows, are as far apart as the finest voxels of all the columns that they cut. What
/// is read depends on one coordinate alone, and between coarse samples is what is interpolated
/// there.
TEST(AdaptiveStencil, PlanesAndRowsAreAsFineAsTheFinestColumn) {
    auto const coarse = [](double c) { return std::sin(c * c); };
    auto const read = [&](double c) {
        if (std::fmod(c, 2) == 0) return coarse(c);
        std::vector<double> const x{c - 3, c - 1, c + 1, c + 3};
        return lagrange(x, {coarse(x[0]), coarse(x[1]), coarse(x[2]), coarse(x[3])}, c);
    };
    struct Row {
        int along;
        int3 lijk, fine;  // of the sample's voxel, and the first or the last column's tile
    };
    for (Row const& row : {Row{2, {1, 0, 0}, {0, -4, 0}}, Row{2, {1, 2, 0}, {0, 8, 0}},
                           Row{2, {0, 1, 0}, {-4, 0, 0}}, Row{2, {2, 1, 0}, {8, 0, 0}},
                           Row{0, {0, 0, 1}, {0, -4, 0}}, Row{0, {0, 2, 1}, {0, 8, 0}}}) {
        int const along = row.along;
        int3 const lijk = row.lijk, fine = row.fine;
        auto tree = Quern::makePtr<Container<BinaryTraits>>(1.0F);
        addCube<BinaryTraits>(*tree, 27, 6);
        for (int c = -16; c < 16; c += 4)
            tree->addTile(along == 0 ? c : fine.x, fine.y, along == 2 ? c : fine.z, 28);
        TestVolume<BinaryTraits, float> volume(tree, 7, 0, 28, 0);
        volume.fill([&](double x, double, double z) {
            return static_cast<float>(read(along == 0 ? x : z));
        });
        auto sampler = volume.sampler(kCubicC0, false, kJumpAdaptive);
        TreeIndex const tile = tree->tileAccessor().tile(0, 0, 0, 27).treeIndex();
        float3 frac{0.5F, 0.5F, 0};
        frac[along] = 0.25F;
        EXPECT_NEAR(sampler.sampleVoxel(tile, lijk, frac, 28, false),
                    lagrange({-1, 0, 1, 2}, {read(-1), read(0), read(1), read(2)}, 0.5), 1e-5);
        // A limit hides what is finer.
        std::fill_n(volume.channel.samples({0, 28}), volume.channel.elementCount(28), 1e6F);
        auto limited = volume.sampler(kCubicC0, false, kJumpAdaptive);
        frac = {0.5F, 0.5F, 0.5F};
        frac[along] = 0;
        EXPECT_NEAR(limited.sampleVoxel(tile, lijk, frac, 27, false), coarse(0), 1e-5);
    }
}

}  // namespace
