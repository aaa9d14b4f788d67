#include <stdexcept>

#include "sampler/cubic_volume.h"
#include "support/fuzz_target.h"
#include "support/sanitized.h"
#include "zel_platform/quern_core/simd_target.h"

namespace {

using namespace cubic;

template <class Case> class Frame : public testing::Test {};
TYPED_TEST_SUITE(Frame, Cases);

/// All types, clamps, offset types, depth limits and instruction sets, by samplers that walk and by
/// fresh ones, with a cache and without.
TYPED_TEST(Frame, IsWhatTheTreeSays) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(21);
    auto const targets = Quern::simdTargets();
    int counts[3] = {}, compared[3] = {};
    for (int offsetType = 0; offsetType < 8; ++offsetType) {
        int const minDepth = offsetType % 3, deepest = Traits::kMaxDepth - offsetType % 2;
        TestVolume<Traits, T> volume(clusteredTree<Traits>(random, 2), offsetType, minDepth,
                                     deepest, make<T>(7, 8, 9));
        volume.fillRandomly(random);
        Reference<Traits, T> const reference(volume);
        constexpr int kTypes[] = {0, 1, 2, 3, 9};
        constexpr char const* kNames[] = {"kQuadraticC0Averaged", "kCubicC0", "kCubicC1",
                                          "kCubicC1Monotonic"};
        for (int type : kTypes)
            for (bool clamp : {false, true}) {
                Quern::useSimdTarget(targets[static_cast<unsigned>(offsetType) % targets.size()]);
                auto walker = volume.sampler(type, clamp);
                EXPECT_EQ(walker.samplerName(), type == 9 ? "kError" : kNames[type]);
                long long const sizes[] = {1, 2, 7, std::numeric_limits<long long>::max()};
                auto cached = volume.sampler(type, clamp, kJumpTrilinear, nullptr, sizes[type % 4]);
                float3 last{};
                for (int n = 0; n < support::repeats(200); ++n) {
                    float3 const p = last = volume.step(random, last, n);
                    int const limit =
                        random(0, 3) > 0 ? Traits::kMaxDepth : random(-1, Traits::kMaxDepth + 1);
                    auto const sample = reference.sample(p, limit, type, clamp);
                    ++counts[sample.kind];
                    T const want = sample.plain.value;
                    ASSERT_TRUE(same(walker.sample(p, limit, 0), want))
                        << "type " << type << " offsets " << offsetType << " at " << p.x << " "
                        << p.y << " " << p.z << " limit " << limit << " kind " << sample.kind;
                    ASSERT_TRUE(same(cached.sample(p, limit, 0), sample.cached.value));
                    for (auto const& [sampler, answer] :
                         {std::pair(&walker, &sample.plain), std::pair(&cached, &sample.cached)}) {
                        GradientOf<T> gradient;
                        T const value = sampler->sampleGradient(p, limit, 0, gradient);
                        ASSERT_TRUE(same(value, answer->value));
                        if (sample.kind == Reference<Traits, T>::kOutside) {
                            ASSERT_TRUE(same(gradient, {}));
                        } else if (n % 5 == 0) {
                            compared[sample.kind] += Reference<Traits, T>::checkGradient(
                                sample, *answer, clamp, gradient);
                            ASSERT_FALSE(this->HasFailure())
                                << "type " << type << " clamp " << clamp << " cached "
                                << (sampler == &cached) << " at " << sample.frac.x << ' '
                                << sample.frac.y << ' ' << sample.frac.z;
                        }
                    }
                    if (n % 16 == 0) {
                        ASSERT_TRUE(same(volume.sampler(type, clamp).sample(p, limit, 0), want));
                    }
                }
            }
    }
    Quern::useSimdTarget(targets.front());
    for (int count : counts) EXPECT_GT(count, support::repeats(500));
    for (int kind : {Reference<Traits, T>::kUniform, Reference<Traits, T>::kJump})
        EXPECT_GT(compared[kind], support::repeats(2000));
}

/// Of both samplers, in small trees of several depths: batches against points, and these against
/// what is read slowly.
TEST(FrameOfSmallTrees, IsWhatTheTreeSaysAndBlockIsPointByPoint) {
    support::runFuzzTarget(4000, 300);  // fuzz/sampler_fuzz.cpp
}

/// A sample far from the last one finds all its tiles in one look-up, and its neighbours go on from
/// there. Truth is the tree, and for gradients a sampler that comes from close by.
TYPED_TEST(Frame, DistantSamplesAreAsThoseFromCloseBy) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(26);
    auto const tile = static_cast<int>(width<Traits>(Traits::kMaxDepth));
    auto const reach = static_cast<float>(tile);
    int3 const centres[] = {{}, {40 * tile, 0, 0}, {0, -40 * tile, 20 * tile}};
    int uniform = 0;
    for (int offsetType = 0; offsetType < 8; ++offsetType) {
        auto tree = Quern::makePtr<Container<Traits>>(0.25F);
        for (int3 const& centre : centres) addCube<Traits>(*tree, Traits::kMaxDepth, 5, centre);
        TestVolume<Traits, T> volume(tree, offsetType, 0, Traits::kMaxDepth, make<T>(7, 8, 9));
        volume.fillRandomly(random);
        Reference<Traits, T> const reference(volume);
        auto values = volume.sampler(kCubicC1), gradients = volume.sampler(kCubicC1);
        float3 p{};
        for (int n = 0; n < 100; ++n) {
            int3 const& c = centres[n / 2 % 3];
            float3 const centre{static_cast<float>(c.x), static_cast<float>(c.y),
                                static_cast<float>(c.z)};
            auto const within = [&] { return random.real(-1, 1) * reach; };
            p = n % 2 == 0 ? centre + float3{within(), within(), within()}
                           : p + float3{n % 3 == 0 ? 1.0F : 0.0F, n % 3 == 1 ? 1.0F : 0.0F, 0};
            auto const truth = reference.sample(p, Traits::kMaxDepth, kCubicC1, false);
            uniform += truth.kind == Reference<Traits, T>::kUniform;
            T const want = truth.plain.value;
            bool const inWorld = n % 5 == 0;
            ASSERT_TRUE(same(inWorld ? values.sample(0.25F * p, 2) : values.sample(p, 0), want))
                << "offsets " << offsetType << " at " << p.x << ' ' << p.y << ' ' << p.z;
            auto near = volume.sampler(kCubicC1);
            near.sample(centre, 0);
            near.sample(centre + float3{1, 1, 1}, 0);
            GradientOf<T> gradient, expected;
            ASSERT_TRUE(same(gradients.sampleGradient(p, 0, gradient), want));
            ASSERT_TRUE(same(near.sampleGradient(p, 0, expected), want));
            ASSERT_TRUE(same(gradient, expected));
        }
    }
    EXPECT_GT(uniform, 700);
}

/// A voxel just below a tile is read without the tile's halo, also if the cache has that.
TYPED_TEST(Frame, CacheLeavesOutVoxelsBelowATile) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    Random random(24);
    TestVolume<Traits, T> volume(clusteredTree<Traits>(random, 2), 7, 1, Traits::kMaxDepth, T());
    volume.fillRandomly(random);
    auto cached = volume.sampler(kCubicC1, false, kJumpTrilinear, nullptr, 3),
         plain = volume.sampler(kCubicC1);
    for (int n = 0; n < 200; ++n) {
        int const depth = random(1, volume.container->depth());
        auto const tiles = static_cast<int>(volume.container->tileCount(depth));
        TreeIndex const tree{random(0, std::min(5, tiles - 1)), depth};
        int3 below{1, 1, 1};
        below[n % 3] = -1;
        float3 const frac{0.5F, 0.25F, 0.75F};
        T const want = plain.sampleVoxel(tree, below, frac, depth, false);
        ASSERT_TRUE(same(cached.sampleVoxel(tree, below, frac, depth, false), want));
        cached.sampleVoxel(tree, {1, 1, 1}, frac, depth, false);
        ASSERT_TRUE(same(cached.sampleVoxel(tree, below, frac, depth, false), want));
    }
}

TYPED_TEST(Frame, OutsideOddPositionsAndBadArguments) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    auto tree = Quern::makePtr<Container<Traits>>(0.5F);
    addCube<Traits>(*tree, Traits::kMaxDepth, 4);
    TestVolume<Traits, T> volume(tree, 7, 0, Traits::kMaxDepth, make<T>(7, 8, 9));
    volume.fill([](double x, double, double) { return make<T>(static_cast<float>(x), 0, 0); });
    T const defaultValue = volume.channel.defaultValue();
    testing::internal::CaptureStdout();  // a NaN is reported
    for (int jump : {kJumpTrilinear, kJumpAdaptive}) {
        auto sampler = volume.sampler(kCubicC0, false, jump);
        for (float odd : {kNaN, kInf, -kInf, 1e38F, -1e38F, 2147483648.0F, -1e9F})
            for (int axis = 0; axis < 3; ++axis)
                for (int space : {0, 2}) {
                    float3 p{0.5F, 0.5F, 0.5F};
                    p[axis] = odd;
                    EXPECT_TRUE(same(sampler.sample(p, space), defaultValue)) << odd;
                    // No place in a voxel is refused; there is only no overflow.
                    sampler.sampleVoxel({0, Traits::kMaxDepth}, {0, 0, 0}, p, 99, false);
                }
        EXPECT_TRUE(same(sampler.sample({1, 1, 1}, -1, 0), defaultValue));
        EXPECT_TRUE(same(sampler.sampleVoxel({-1, 3}, {}, {}, 3, false), defaultValue));
        EXPECT_TRUE(same(sampler.sampleVoxel({1 << 30, 3}, {}, {}, 3, false), defaultValue));
        EXPECT_TRUE(same(sampler.sampleVoxel({0, 77}, {}, {}, 3, false), defaultValue));
        constexpr int kHuge = std::numeric_limits<int>::max();
        sampler.sampleVoxel({0, Traits::kMaxDepth}, {kHuge, -kHuge, kHuge}, {}, kHuge, false);
        // World units, of half a finest voxel.
        EXPECT_LT(distance(sampler.sample({0.75F, 0.5F, 0.25F}, 2), make<T>(1.5F, 0, 0)), 1e-5F);
        EXPECT_THROW(volume.sampler(1, false, jump, nullptr, -1), std::invalid_argument);
    }
    testing::internal::GetCapturedStdout();
    // A voxel size of 0 puts all positions on the origin, and a channel that is not sized to the
    // tree has no samples.
    auto flat = Quern::makePtr<Container<Traits>>(0.0F);
    flat->addTile(0, 0, 0, Traits::kMaxDepth);
    T const five = make<T>(5, 5, 5);
    TestVolume<Traits, T> point(flat, 7, 0, Traits::kMaxDepth, five);
    EXPECT_TRUE(same(point.sampler(1).sample({1e30F, -3, 5}, 2), five));
    flat->addTile(40, 0, 0, Traits::kMaxDepth);
    EXPECT_TRUE(same(point.sampler(1).sample({41, 1, 1}, 0), five));
    addCube<Traits>(*flat, Traits::kMaxDepth, 6);
    float const c = 1.7F * Traits::kSamples;
    EXPECT_LT(distance(point.sampler(1, false, kJumpAdaptive).sample({c, c, c}, 0), five), 1e-5F);
}

}  // namespace
