#include "platform/volume/trees.h"

#include <tbb/global_control.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <limits>
#include <thread>

namespace {

using namespace trees;

template <class Traits, class T> struct Volume : RandomVolume<Traits, T> {
    using Base = RandomVolume<Traits, T>;
    using Base::Base, Base::channel, Base::tree;

    template <class F> void forTiles(F const& f) const {
        for (int d = 0; d <= tree.depth(); ++d)
            for (long long i = 0; i < tree.tileCount(d); ++i) f(tree.tile(i, d));
    }
    /// Compares the halo of a tile, from index `first` to `last` along each axis, with the rule.
    template <class Data>
    void expect(TileOf<Traits> const& tile, Data const& got, int first, int last, int type) const {
        SlowHalo<Traits, T> const slow(tree, channel, type);
        auto const voxel = slow.first(tile);
        int const d = tile.depth();
        for (int z = first; z <= last; ++z)
            for (int y = first; y <= last; ++y)
                for (int x = first; x <= last; ++x) {
                    T const expected =
                        d < channel.minDepth()
                            ? channel.defaultValue()
                            : slow.sample({voxel[0] + x, voxel[1] + y, voxel[2] + z}, d);
                    ASSERT_LE(distance(got(x, y, z), expected), 1e-5f)
                        << "depth " << d << " at " << x << " " << y << " " << z;
                }
    }
};

template <class Case> class Halo : public testing::Test {};
TYPED_TEST_SUITE(Halo, Cases);

template <class Traits> constexpr int kDense = Traits::kBranch == 2 ? 5 : 3;

TYPED_TEST(Halo, OfAChannelAndOfATileFollowsTheRule) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    constexpr int W = Traits::kSamples;
    Random random(61);
    struct Shape {
        int tiles, deepest, low, high;
    };
    // Deep trees, and shallow ones in which neighbours are many; channels of fewer depths.
    for (auto const& [tiles, deepest, low, high] :
         {Shape{60, 3, 0, 9}, Shape{60, 4, 2, 3}, Shape{60, 4, 1, 1},
          Shape{12, Traits::kMaxDepth, 0, Traits::kMaxDepth},
          Shape{0, kDense<Traits>, 0, kDense<Traits>}}) {
        Volume<Traits, T> volume(random, tiles, deepest, low, high);
        volume.compute(volume.halo);
        auto accessor = volume.tree.tileAccessor();
        TileData<T, W + 1, 0, 0> single((W + 1) * (W + 1) * (W + 1)), parent, none;
        volume.forTiles([&](TileOf<Traits> const& tile) {
            auto const halo = volume.halo.tileData(tile.treeIndex());
            ASSERT_NO_FATAL_FAILURE(volume.expect(tile, halo, 0, W, 7));
            // One tile at a time, the same bits.
            bool const usable = tile.depth() > 0 && tile.depth() > volume.channel.minDepth();
            if (usable) parent.setFlatPointer(volume.halo.samples(tile.parentTreeIndex()));
            setHaloTile<Traits, T, 0, 0, 1, 0>(
                tile, usable ? &volume.tree.tile(tile.parentTreeIndex()) : nullptr, volume.channel,
                usable ? parent : none, 2, accessor, single);
            ASSERT_EQ(
                std::memcmp(single.data(), halo.data(), sizeof(T) * (W + 1) * (W + 1) * (W + 1)),
                0);
        });
        RandomVolume<Traits, T> const other(random, 5, 2, 0, 2);
        auto const refused = [&](auto const& channel, int mode, auto& out) {
            EXPECT_THROW((setHaloTile<Traits, T, 0, 0, 1, 0>(volume.tree.tile(0, 0), nullptr,
                                                             channel, none, mode, accessor, out)),
                         std::invalid_argument);
        };
        refused(other.channel, 2, single), refused(volume.channel, 4, single),
            refused(volume.channel, 2, none);
    }
}

TYPED_TEST(Halo, AllRoundFollowsTheRuleForEveryOffset) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    constexpr int W = Traits::kSamples;
    Random random(62);
    for (int type = 0; type < 9; ++type) {
        bool const dense = type >= 7;  // with neighbours of all kinds in all directions
        int const offset = type == 8 ? 5 : type;
        Volume<Traits, T> volume(random, dense ? 0 : 25, dense ? kDense<Traits> : 4,
                                 dense ? 0 : type % 3, dense ? 9 : 4 - type % 2);
        auto accessor = volume.tree.tileAccessor();
        TileData<T, W + 1, 1, 0> halo((W + 3) * (W + 3) * (W + 3)), scaled(halo), none;
        auto const set = [&](TreeIndex const& at, auto const& channel, auto& out, T shift = T(),
                             float scale = 1, int mode = 4, int haloType = 15, int to = -1) {
            setHaloTile<Traits, T, 0, 1, 0, 1>(at, channel, mode, haloType, accessor, out, shift,
                                               scale, to < 0 ? offset : to);
        };
        volume.forTiles([&](TileOf<Traits> const& tile) {
            if (tile.treeIndex().tile % 3 != 0) return;
            set(tile.treeIndex(), volume.channel, halo);
            ASSERT_NO_FATAL_FAILURE(volume.expect(tile, halo, -1, W + 1, offset));
            T const shift = number<T>(random);
            set(tile.treeIndex(), volume.channel, scaled, shift, 2);
            ASSERT_EQ(scaled(-1, 0, W + 1), shift + halo(-1, 0, W + 1) * 2.0f);
        });
        set(TreeIndex(), volume.channel, halo);
        EXPECT_EQ(halo(0, 0, 0), volume.defaultValue);
        RandomVolume<Traits, T> const other(random, 5, 2, 0, 2);
        using Refused = std::invalid_argument;
        TreeIndex const root{0, 0};
        EXPECT_THROW(set(root, volume.channel, halo, T(), 1, 2), Refused);
        EXPECT_THROW(set(root, volume.channel, halo, T(), 1, 4, 7), Refused);
        EXPECT_THROW(set(root, volume.channel, halo, T(), 1, 4, 15, 8), Refused);
        EXPECT_THROW(set(root, volume.channel, none), Refused);
        EXPECT_THROW(set(root, other.channel, halo), Refused);
    }
}

template <class Traits> class HaloOf : public testing::Test {};
TYPED_TEST_SUITE(HaloOf, Kinds);

TYPED_TEST(HaloOf, DependsOnNeitherThreadsNorDepthsNorWhatWasThere) {
    using Traits = TypeParam;
    Random random(63);
    Volume<Traits, float> volume(random, 80, 5, 1, 5);
    volume.compute(volume.halo);
    float const nan = std::numeric_limits<float>::quiet_NaN();
    for (int const low : {0, 1, 2, 3, 5})
        for (bool const few : {false, true}) {
            HaloChannel<Traits, float> halo("", &nan, 0, false, true, few ? low : 0, 5);
            halo.update(volume.topology);
            tbb::global_control const control(tbb::global_control::max_allowed_parallelism,
                                              low == 3 ? 1 : 4);
            volume.compute(halo, few ? 0 : low, 5);
            volume.forTiles([&](TileOf<Traits> const& tile) {
                auto const* const got = halo.samples(tile.treeIndex());
                constexpr int kCount = HaloChannel<Traits, float>::Layout::kCount;
                if (tile.depth() < low) {
                    ASSERT_TRUE(few || std::isnan(*got));
                } else {
                    ASSERT_EQ(std::memcmp(got, volume.halo.samples(tile.treeIndex()),
                                          sizeof(float) * kCount),
                              0);
                }
            });
        }
}

TYPED_TEST(HaloOf, StaysFiniteBetweenTheLargestSamples) {
    Random random(65);
    RandomVolume<TypeParam, float> volume(random, 40, 4, 0, 4);
    for (int d = 0; d <= 4; ++d)
        for (long long n = 0; n < volume.channel.elementCount(d); ++n)
            volume.channel.samples({0, d})[n] = random(0, 1) == 1 ? 3e38f : -3e38f;
    volume.compute(volume.halo);
    for (int d = 0; d <= 4; ++d)
        for (long long i = 0; i < volume.halo.elementCount(d); ++i)
            ASSERT_LE(std::abs(volume.halo.samples({0, d})[i]), 3.0001e38f);

    // Infinite ones are their own mean.
    for (float const all : {INFINITY, -INFINITY}) {
        DataChannel<TypeParam, float> channel("", &all, 0, false, true, 0, 4);
        channel.update(volume.topology);
        computeHalo<TypeParam, float, 0, 0, 1, 0>(channel, volume.tree, volume.halo, 0, 4);
        for (int d = 0; d <= 4; ++d)
            for (long long i = 0; i < volume.halo.elementCount(d); ++i)
                ASSERT_EQ(volume.halo.samples({0, d})[i], all);
    }
}

thread_local bool insideHalo = false;

// Of a thread that keeps offering tasks, some run on a thread that waits for the end of a halo,
// unless that takes up none but its own.
TEST(HaloTasks, AreAloneOnTheCallersThread) {
    tbb::global_control const control(tbb::global_control::max_allowed_parallelism, 4);
    Random random(66);
    RandomVolume<BinaryTraits, float> volume(random, 0, 5, 0, 5);
    std::atomic<bool> started = false, done = false;
    std::atomic<int> foreign = 0, offered = 0;
    tbb::task_arena(4).execute([&] {
        tbb::task_group group;
        group.run([&] {
            started = true;
            while (!done) {
                group.run([&] { foreign += insideHalo, ++offered; });
                std::this_thread::sleep_for(std::chrono::microseconds(20));
            }
        });
        while (!started) std::this_thread::yield();
        insideHalo = true;
        for (int i = 0; i < 100; ++i) volume.compute(volume.halo);
        insideHalo = false;
        done = true;
        group.wait();
    });
    EXPECT_GT(offered, 0);
    EXPECT_EQ(foreign, 0);
}

}  // namespace
