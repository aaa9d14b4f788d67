#include "platform/volume/trees.h"

#include <tbb/parallel_for.h>
#include <tbb/task.h>

#include <algorithm>
#include <atomic>
#include <cmath>
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
    using Traits = TypeParam;
    constexpr int W = Traits::kSamples, B = Traits::kBranch;
    auto const size = 1 / static_cast<float>(width<Traits>(0));
    // Linear, so that any restriction worth the name gives the function itself at every sample; and
    // a wave, which shows which samples are which: restricted where there is a child, the
    // function's own elsewhere.
    auto const linear = [](auto x, auto y, auto z) { return 2 * x - y + 3 * z + 1; };
    auto const wave = [](float3 const& p) {
        return std::sin(300 * p.x) * std::cos(200 * p.y + p.z);
    };
    for (int type = 0; type < 8; ++type) {
        auto const volume = buildVolume<Traits, float3>(
            size, kDeep<Traits>, shell,
            [&](float3 const& p) {
                return float3{linear(p.x, p.y, p.z), p.x, wave(p)};
            },
            {}, type);
        auto const& tree = *volume.container;
        auto const& channel = std::as_const(*volume.channel);
        float3 const offset = volume.topology->offset();
        EXPECT_EQ(tree.depth(), kDeep<Traits>);
        for (int n = 0; n < static_cast<int>(tree.size()) * W * W * W; ++n) {
            TreeIndex index{n / (W * W * W), 0};
            while (index.tile >= tree.tileCount(index.depth))
                index.tile -= tree.tileCount(index.depth++);
            auto const& tile = tree.tile(index);
            auto const data = channel.tileData(index);
            int3 const voxel{n % W, n / W % W, n / (W * W) % W};
            double const w = static_cast<double>(width<Traits>(index.depth)) / W;
            std::array<double, 3> p;
            for (int a = 0; a < 3; ++a)
                p[static_cast<unsigned>(a)] =
                    (tile.tijk()[a] + w * (voxel[a] + double{offset[a]})) * double{size};
            ASSERT_NEAR(data(voxel).x, linear(p[0], p[1], p[2]), 3e-6);
            ASSERT_NEAR(data(voxel).y, p[0], 1e-6);
            int3 const low = tile.tijk() + voxel * tile.voxelDataWidth();
            TreeIndex const child = tile.childTreeIndex(tile.childIJK(low));
            if (!child.valid()) {
                ASSERT_EQ(data(voxel).z, wave({static_cast<float>(p[0]), static_cast<float>(p[1]),
                                               static_cast<float>(p[2])}));
                continue;
            }
            int3 const first = tree.tile(child).childDataIJK(low);
            double sum = 0;
            int count = 0;
            for (int m = 0; m < B * B * B; ++m) {
                int3 const step{m % B, m / B % B, m / (B * B)};
                bool counts = true;  // on a voxel's face the first sample is the one
                for (int a = 0; a < 3; ++a) counts = counts && (offset[a] != 0 || step[a] == 0);
                if (counts) sum += channel.tileData(child)(first + step).z, ++count;
            }
            ASSERT_NEAR(data(voxel).z, sum / count, 1e-6);
        }
    }
}

TYPED_TEST(Fill, RestrictsWhatIsWrittenAtTheDeepestDepth) {
    using Traits = TypeParam;
    auto const volume =
        buildVolume<Traits, float>(1 / static_cast<float>(width<Traits>(0)), kDeep<Traits>, shell,
                                   [](float3 const& p) { return p.z; });
    auto const& deep = volume.container->tile(0, kDeep<Traits>);
    auto const& above = volume.container->tile(deep.parentTreeIndex());
    *volume.channel->samples(deep.treeIndex()) = 50;
    restrictChannel<Traits, float>(*volume.channel, *volume.topology);
    int3 const voxel = above.childDataIJK(deep.tijk());
    EXPECT_EQ(std::as_const(*volume.channel).tileData(above.treeIndex())(voxel), 50);
}

TYPED_TEST(Fill, PassesErrorsOnAndStopsAtTheChannelsDepths) {
    using Traits = TypeParam;
    using Tree = Container<Traits>;
    auto const size = 1 / static_cast<float>(width<Traits>(0));
    PositionFunction<float> const one = [](float3 const&) { return 1.0f; };
    EXPECT_THROW((buildVolume<Traits, float>(size, Traits::kMaxDepth + 1, shell, one)),
                 std::out_of_range);
    EXPECT_THROW((buildVolume<Traits, float>(
                     size, 3, shell, [](float3 const&) -> float { throw std::domain_error("f"); })),
                 std::domain_error);
    // Lattice places beyond the exact range of a float, and huge voxels, are no special case.
    float const most = std::numeric_limits<float>::max();
    auto const huge = buildVolume<Traits, float>(
        most, 1, [](auto&, auto&, int) { return true; }, [](float3 const& p) { return p.x; });
    EXPECT_EQ(*huge.channel->samples({0, 1}), -std::numeric_limits<float>::infinity());
    auto const large = buildVolume<Traits, float3>(
        1, 1, [](auto&, auto&, int) { return true; },
        [](float3 const&) {
            return float3{1e38f, -3e38f, 1};
        },
        {}, 0);
    EXPECT_EQ(*large.channel->samples({0, 0}), (float3{1e38f, -3e38f, 1}));

    auto const tree = Quern::makePtr<Tree>(size);
    refineTree(*tree, 3, shell);
    VoxelTopology<Traits> const topology(tree);
    DataChannel<Traits, float> channel("", nullptr, 0, false, true, 1, 2);
    EXPECT_THROW((fillChannel<Traits, float>(channel, topology, one)), std::invalid_argument);
    channel.update(topology);
    std::atomic<int> calls = 0;
    fillChannel<Traits, float>(channel, topology, [&](float3 const&) { return ++calls, 1.0f; });
    // At the deepest depth all samples, above those without a child.
    constexpr int kCovered = Traits::kSampleCount / Traits::kChildCount;
    EXPECT_EQ(calls, channel.elementCount(-1) - channel.tileCount(2) * kCovered);
    for (int d = 1; d <= 2; ++d)
        EXPECT_EQ(std::count(channel.samples({0, d}),
                             channel.samples({0, d}) + channel.elementCount(d), 1.0f),
                  channel.elementCount(d));
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
