#include "platform/volume/trees.h"

#include <tbb/global_control.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <algorithm>
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
        int const across = last - first + 1;
        for (int n = 0; n < across * across * across; ++n) {
            auto const [x, y, z] = inCube(n, across, first);
            T const expected = d < channel.minDepth()
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

TYPED_TEST(Halo, OfChannelsAndOfTilesFollowsTheRule) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    constexpr int W = Traits::kSamples, kMost = Traits::kMaxDepth;
    Random random(61);
    struct Row {
        int tiles, deepest, low, high;  // 0 tiles: most have neighbours in all directions
        int offset;                     // of the halo all round a tile
    };
    for (auto const& [tiles, deepest, low, high, offset] :
         {Row{60, 3, 0, 9, 0}, Row{60, 4, 2, 3, 1}, Row{20, 4, 1, 1, 2}, Row{25, 4, 0, 4, 3},
          Row{25, 4, 1, 4, 4}, Row{0, kDense<Traits>, 0, kDense<Traits>, 5}, Row{25, 4, 0, 3, 6},
          Row{0, kDense<Traits>, 0, 9, 7}, Row{12, kMost, 0, kMost, 7}}) {
        Volume<Traits, T> volume(random, tiles, deepest, low, high);
        volume.compute(volume.halo);
        auto accessor = volume.tree.tileAccessor();
        TileData<T, W + 1, 0, 0> single((W + 1) * (W + 1) * (W + 1)), parent, none;
        TileData<T, W + 1, 1, 0> round((W + 3) * (W + 3) * (W + 3)), scaled(round);
        auto const setRound = [&, to = offset](TreeIndex const& at, auto& out, T shift,
                                               float scale) {
            setHaloTile<Traits, T, 0, 1, 0, 1>(at, volume.channel, 4, 15, accessor, out, shift,
                                               scale, to);
        };
        volume.forTiles([&, to = offset, isDeep = deepest == kMost](TileOf<Traits> const& tile) {
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
            // The slow reference visits 8 samples a depth for a place beyond the parent.
            if (isDeep || tile.treeIndex().tile % 3 != 0) return;
            setRound(tile.treeIndex(), round, T(), 1);
            ASSERT_NO_FATAL_FAILURE(volume.expect(tile, round, -1, W + 1, to));
            T const shift = number<T>(random);
            setRound(tile.treeIndex(), scaled, shift, 2);
            ASSERT_EQ(scaled(-1, 0, W + 1), shift + round(-1, 0, W + 1) * 2.0f);
        });
        setRound(TreeIndex(), round, T(), 1);
        EXPECT_EQ(round(0, 0, 0), volume.defaultValue);
    }
}

template <class Traits> class HaloOf : public testing::Test {};
TYPED_TEST_SUITE(HaloOf, Kinds);

TYPED_TEST(HaloOf, DependsOnNeitherThreadsNorDepthsNorWhatWasThere) {
    Random random(63);
    Volume<TypeParam, float> volume(random, 80, 5, 1, 5);
    volume.compute(volume.halo);
    float const nan = std::numeric_limits<float>::quiet_NaN();
    for (int const low : {0, 1, 2, 3, 5})
        for (bool const few : {false, true}) {
            HaloChannel<TypeParam, float> halo("", &nan, 0, false, true, few ? low : 0, 5);
            halo.update(volume.topology);
            tbb::global_control const control(tbb::global_control::max_allowed_parallelism,
                                              low == 3 ? 1 : 4);
            volume.compute(halo, few ? 0 : low, 5);
            volume.forTiles([&](TileOf<TypeParam> const& tile) {
                auto const* const got = halo.samples(tile.treeIndex());
                constexpr int kCount = HaloChannel<TypeParam, float>::Layout::kCount;
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
    auto const forAll = [](auto& channel, auto const& f) {
        for (int d = 0; d <= 4; ++d)
            std::for_each_n(channel.samples({0, d}), channel.elementCount(d), f);
    };
    forAll(volume.channel, [&](float& f) { f = random(0, 1) == 1 ? 3e38f : -3e38f; });
    volume.compute(volume.halo);
    forAll(volume.halo, [](float f) { ASSERT_LE(std::abs(f), 3.0001e38f); });
    // Infinite samples are their own mean.
    for (float const all : {INFINITY, -INFINITY}) {
        DataChannel<TypeParam, float> channel("", &all, 0, false, true, 0, 4);
        channel.update(volume.topology);
        computeHalo<TypeParam, float, 0, 0, 1, 0>(channel, volume.tree, volume.halo, 0, 4);
        forAll(volume.halo, [&](float f) { ASSERT_EQ(f, all); });
    }
}

TEST(HaloTile, RefusesWhatDoesNotFit) {
    Random random(64);
    RandomVolume<BinaryTraits, float> const volume(random, 5, 2, 0, 2), other(random, 5, 2, 0, 2);
    TileData<float, 5, 0, 0> high(125), none;
    TileData<float, 5, 1, 0> round(343);
    auto accessor = volume.tree.tileAccessor();
    auto const setHigh = [&](auto const& channel, int mode, auto& out) {
        setHaloTile<BinaryTraits, float, 0, 0, 1, 0>(volume.tree.tile(0, 0), nullptr, channel, none,
                                                     mode, accessor, out);
    };
    auto const setRound = [&](int mode, int haloType, int offset) {
        setHaloTile<BinaryTraits, float, 0, 1, 0, 1>(TreeIndex{0, 0}, volume.channel, mode,
                                                     haloType, accessor, round, 0, 1, offset);
    };
    EXPECT_THROW(setHigh(other.channel, 2, high), std::invalid_argument);
    EXPECT_THROW(setHigh(volume.channel, 4, high), std::invalid_argument);
    EXPECT_THROW(setHigh(volume.channel, 2, none), std::invalid_argument);
    EXPECT_THROW(setRound(2, 15, 7), std::invalid_argument);
    EXPECT_THROW(setRound(4, 7, 7), std::invalid_argument);
    EXPECT_THROW(setRound(4, 15, 8), std::invalid_argument);
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
