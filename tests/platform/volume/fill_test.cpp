#include "platform/volume/trees.h"

#include <tbb/parallel_for.h>
#include <tbb/task.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <stdexcept>

namespace {

using namespace trees;

template <class Traits> class Fill : public testing::Test {};
TYPED_TEST_SUITE(Fill, Kinds);

/// Boxes that a shell around the origin passes through.
bool shell(float3 const& low, float3 const& high, int) {
    auto const dot = [](float3 const& p) { return p.x * p.x + p.y * p.y + p.z * p.z; };
    float3 near, far;
    for (int a = 0; a < 3; ++a) {
        near[a] = std::clamp(0.0f, low[a], high[a]);
        far[a] = std::max(std::abs(low[a]), std::abs(high[a]));
    }
    return dot(near) < 0.04f && dot(far) > 0.03f;
}

/// The depth to which the shell makes some hundreds of tiles.
template <class Traits> constexpr int kDeep = Traits::kBranch == 2 ? 4 : 2;

TYPED_TEST(Fill, GivesTheFunctionAtLeavesAndMeansAbove) {
    constexpr int W = TypeParam::kSamples, B = TypeParam::kBranch;
    auto const size = 1 / static_cast<float>(width<TypeParam>(0));
    // Restricted samples are means, and a linear function is its own mean. A wave is not: it shows
    // which samples are which.
    auto const linear = [](auto x, auto y, auto z) { return 2 * x - y + 3 * z + 1; };
    auto const wave = [](float3 const& p) {
        return std::sin(300 * p.x) * std::cos(200 * p.y + p.z);
    };
    for (int type = 0; type < 8; ++type) {
        auto const volume = buildVolume<TypeParam, float3>(
            size, kDeep<TypeParam>, shell,
            [&](float3 const& p) {
                return float3{linear(p.x, p.y, p.z), 0, wave(p)};
            },
            {}, type);
        auto const& tree = *volume.container;
        auto const& channel = std::as_const(*volume.channel);
        float3 const offset = volume.topology->offset();
        EXPECT_EQ(tree.depth(), kDeep<TypeParam>);
        for (int n = 0; n < static_cast<int>(tree.size()) * W * W * W; ++n) {
            TreeIndex index{n / (W * W * W), 0};
            while (index.tile >= tree.tileCount(index.depth))
                index.tile -= tree.tileCount(index.depth++);
            auto const& tile = tree.tile(index);
            int3 const voxel = inCube(n % (W * W * W), W);
            int3 const low = tile.tijk() + voxel * tile.voxelDataWidth();
            float3 const sample = channel.tileData(index)(voxel);
            auto const at = [&](int a) {
                return (low[a] + tile.voxelDataWidth() * double{offset[a]}) * double{size};
            };
            ASSERT_NEAR(sample.x, linear(at(0), at(1), at(2)), 3e-6);
            TreeIndex const child = tile.childTreeIndex(tile.childIJK(low));
            if (!child.valid()) {
                ASSERT_EQ(sample.z, wave({static_cast<float>(at(0)), static_cast<float>(at(1)),
                                          static_cast<float>(at(2))}));
                continue;
            }
            int3 const first = tree.tile(child).childDataIJK(low);
            double sum = 0;
            int count = 0;
            for (int m = 0; m < B * B * B; ++m) {
                int3 const step = inCube(m, B);
                bool counts = true;  // on a voxel's face the first sample is the one
                for (int a = 0; a < 3; ++a) counts = counts && (offset[a] != 0 || step[a] == 0);
                if (counts) sum += channel.tileData(child)(first + step).z, ++count;
            }
            ASSERT_NEAR(sample.z, sum / count, 1e-6);
        }
    }
}

TYPED_TEST(Fill, PassesErrorsOnAndStopsAtTheChannelsDepths) {
    auto const size = 1 / static_cast<float>(width<TypeParam>(0));
    PositionFunction<float> const one = [](float3 const&) { return 1.0f; };
    auto const everywhere = [](float3 const&, float3 const&, int) { return true; };
    EXPECT_THROW((buildVolume<TypeParam, float>(size, TypeParam::kMaxDepth + 1, shell, one)),
                 std::out_of_range);
    EXPECT_THROW((buildVolume<TypeParam, float>(
                     size, 3, shell, [](float3 const&) -> float { throw std::domain_error("f"); })),
                 std::domain_error);
    // Positions beyond the range of a float, and means of the largest samples.
    auto const huge = buildVolume<TypeParam, float>(
        std::numeric_limits<float>::max(), 1, everywhere, [](float3 const& p) { return p.x; });
    EXPECT_EQ(*huge.channel->samples({0, 1}), -std::numeric_limits<float>::infinity());
    auto const large = buildVolume<TypeParam, float>(
        1, 1, everywhere, [](float3 const&) { return -3e38f; }, {}, 0);
    EXPECT_EQ(*large.channel->samples({0, 0}), -3e38f);

    auto const tree = Quern::makePtr<Container<TypeParam>>(size);
    refineTree(*tree, 3, shell);
    VoxelTopology<TypeParam> const topology(tree);
    DataChannel<TypeParam, float> channel("", nullptr, 0, false, true, 1, 2);
    EXPECT_THROW((fillChannel<TypeParam, float>(channel, topology, one)), std::invalid_argument);
    channel.update(topology);
    std::atomic<int> calls = 0;
    fillChannel<TypeParam, float>(channel, topology, [&](float3 const&) { return ++calls, 1.0f; });
    // At the deepest depth all samples, above those without a child.
    constexpr int kCovered = TypeParam::kSampleCount / TypeParam::kChildCount;
    EXPECT_EQ(calls, channel.elementCount(-1) - channel.tileCount(2) * kCovered);
    for (int d = 1; d <= 2; ++d) {
        float const* const samples = channel.samples({0, d});
        EXPECT_EQ(std::count(samples, samples + channel.elementCount(d), 1.0f),
                  channel.elementCount(d));
    }
    // A sample written later at the deepest depth reaches the depth above.
    auto const& deep = tree->tile(0, 2);
    auto const& above = tree->tile(deep.parentTreeIndex());
    *channel.samples(deep.treeIndex()) = 50;
    restrictChannel<TypeParam, float>(channel, topology);
    int3 const voxel = above.childDataIJK(deep.tijk());
    EXPECT_EQ(std::as_const(channel).tileData(above.treeIndex())(voxel), 50);
    // The same with pauses, one of which may end the work.
    *channel.samples(deep.treeIndex()) = 60;
    int pauses = 0;
    auto const count = [&] { ++pauses; };
    auto const stop = [] { throw std::runtime_error("stop"); };
    EXPECT_THROW((restrictChannel<TypeParam, float>(channel, topology, stop)), std::runtime_error);
    restrictChannel<TypeParam, float>(channel, topology, count);
    EXPECT_EQ(std::as_const(channel).tileData(above.treeIndex())(voxel), 60);
    EXPECT_EQ(pauses, 2);
    channel.restart(7, false, 1, 2);
    channel.updateTo(*tree);
    tree->addTile(0, 0, 0, 5);
    channel.restart(8, false, 1, 2);  // keeps its memory, which is filled again
    EXPECT_THROW(channel.updateTo(*tree, stop), std::runtime_error);
    EXPECT_EQ(channel.tileCount(-1), 0);
    channel.updateTo(*tree, count);
    EXPECT_TRUE(channel.fits(*tree));
    EXPECT_EQ(*channel.samples(deep.treeIndex()), 8);
}

TEST(FillTasks, RunToTheirEndInsideACancelledGroup) {
    tbb::parallel_for(0, 1, [&](int) {
        tbb::task::current_context()->cancel_group_execution();
        auto const volume = buildVolume<BinaryTraits, float>(
            1, 2, [](auto&, auto&, int) { return true; }, [](float3 const&) { return 1.0f; });
        ASSERT_EQ(volume.channel->tileCount(2), 64);
        for (long long i = 0; i < 64; ++i) ASSERT_EQ(*volume.channel->samples({i, 2}), 1);
    });
}

}  // namespace
