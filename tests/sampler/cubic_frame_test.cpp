#include <stdexcept>

#include "benchmarks/allocation_count.h"
#include "sampler/cubic_volume.h"
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
        for (int type : kTypes)
            for (bool clamp : {false, true}) {
                Quern::useSimdTarget(targets[static_cast<unsigned>(offsetType) % targets.size()]);
                auto walker = volume.sampler(type, clamp);
                long long const sizes[] = {1, 2, 7, std::numeric_limits<long long>::max()};
                auto cached = volume.sampler(type, clamp, kJumpTrilinear, nullptr, sizes[type % 4]);
                float3 last{};
                for (int n = 0; n < 200; ++n) {
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
    for (int count : counts) EXPECT_GT(count, 500);
    for (int kind : {Reference<Traits, T>::kUniform, Reference<Traits, T>::kJump})
        EXPECT_GT(compared[kind], 2000);
}

/// On scan lines, on walks and at random positions, with each way to treat a jump.
TYPED_TEST(Frame, BlockIsPointByPoint) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    using Floats = std::array<float, Internal::RegisterTraits<T>::kComponents>;
    Random random(22);
    for (auto const& [offsetType, jump, cacheSize] : {std::tuple{7, kJumpTrilinear, 0},
                                                      {7, kJumpTrilinear, 3},
                                                      {7, kJumpAdaptive, 0},
                                                      {0, kJumpTrilinear, 0},
                                                      {3, kJumpTrilinear, 0}}) {
        TestVolume<Traits, T> volume(clusteredTree<Traits>(random, 2), offsetType, offsetType % 2,
                                     Traits::kMaxDepth, T());
        volume.fillRandomly(random);
        for (int depth = 0; depth <= volume.container->depth(); ++depth)
            for (long long n = 0; n < volume.flags.elementCount(depth); n += random(1, 5))
                volume.flags.samples({0, depth})[n] = 1;
        auto sampler = volume.sampler(kCubicC1, true, jump, &volume.flags, cacheSize);
        for (int count : {0, 1, 32, 33, 300}) {
            int const space = count % 2 * 2;
            std::vector<float> x, y, z;
            float3 p{};
            for (int n = 0; n < count; ++n) {
                p = n % 100 < 50 ? p + float3{0.25F, 0, 0} : volume.step(random, p, n);
                float const scale = space == 2 ? 0.25F : 1.0F;
                x.push_back(n == 40 ? kNaN : p.x * scale);
                y.push_back(p.y * scale);
                z.push_back(p.z * scale);
            }
            // Values by themselves, with their gradients, and gradients without them.
            constexpr unsigned kValue = std::tuple_size_v<Floats>, kArrays = 8 * kValue;
            std::vector<float> values[kArrays];
            for (auto& array : values) array.assign(static_cast<std::size_t>(count) + 1, -3);
            auto const arrays = [&]<std::size_t Count>(std::array<float*, Count> out,
                                                       unsigned first) {
                for (unsigned c = 0; c < Count; ++c) out[c] = values[first + c].data();
                return out;
            };
            std::array<float*, kValue> const none{}, alone = arrays(none, 0),
                                                     both = arrays(none, kValue);
            std::array<float*, 3 *kValue> const gradients =
                                                    arrays(decltype(gradients){}, 2 * kValue),
                                                only = arrays(gradients, 5 * kValue);
            // One sampler goes on from block to block, with a point between them.
            auto other = volume.sampler(kCubicC1, true, jump, &volume.flags, cacheSize);
            if (count > 0) sampler.sample({y[0], z[0], x[0]}, 3, space);
            {
                AllocationCount const allocations;
                auto const [i, j, k] = std::array{x.data(), y.data(), z.data()};
                sampler.sampleBatch(i, j, k, count, space, alone);
                sampler.sampleGradientBatch(i, j, k, count, space, both, gradients);
                sampler.sampleGradientBatch(i, j, k, count, space, none, only);
                EXPECT_EQ(allocations.blocks(), 0U);
            }
            for (unsigned i = 0; i < x.size(); ++i) {
                GradientOf<T> gradient;
                auto const value = std::bit_cast<Floats>(
                    other.sampleGradient({x[i], y[i], z[i]}, space, gradient));
                auto const slopes = std::bit_cast<std::array<float, 3 * kValue>>(gradient);
                for (unsigned c = 0; c < kArrays; ++c)
                    ASSERT_TRUE(same(values[c][i], c < 2 * kValue
                                                       ? value[c % kValue]
                                                       : slopes[(c - 2 * kValue) % (3 * kValue)]))
                        << i << " of " << count << " array " << c;
            }
            for (auto const& component : values) EXPECT_EQ(component.back(), -3);
        }
    }
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

TEST(CubicSampler, NamesOfTypes) {
    TestVolume<BinaryTraits, float> const volume(Quern::makePtr<Container<BinaryTraits>>(1.0F), 7,
                                                 0, 3, 0);
    constexpr char const* kNames[] = {"kError",   "kQuadraticC0Averaged", "kCubicC0",
                                      "kCubicC1", "kCubicC1Monotonic",    "kError"};
    for (int type = -1; type < 5; ++type)
        EXPECT_EQ(std::string(volume.sampler(type).samplerName()), kNames[type + 1]);
}

}  // namespace
