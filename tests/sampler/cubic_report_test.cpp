#include <sstream>

#include "sampler/cubic_volume.h"
#include "zel/sampler/cubic/adaptive/sample.h"

namespace {

using namespace cubic;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

/// Two tiles of the deepest depth beside one another, and those above, with ones; in the two tiles
/// one voxel has another value.
template <class T = float3> TestVolume<BinaryTraits, T> withOdd(int3 const& voxel, T const& odd) {
    auto tree = Quern::makePtr<Container<BinaryTraits>>(1.0F);
    for (int n : {0, 1}) tree->addTile(3 + n * 4, 3, 3, 28);
    TestVolume<BinaryTraits, T> volume(tree, 7, 0, 28, make<T>(1, 1, 1));
    volume.fill([](double, double, double) { return make<T>(1, 1, 1); });
    for (int n : {0, 1}) volume.channel.tileData(TreeIndex{n, 28})(voxel.x, voxel.y, voxel.z) = odd;
    return volume;
}

/// Whether the text has the words of a list, divided by '|', in this order.
testing::AssertionResult has(std::string const& text, std::string const& list) {
    std::istringstream words(list);
    std::size_t at = 0;
    for (std::string word; std::getline(words, word, '|'); at += word.size()) {
        at = text.find(word, at);
        if (at == std::string::npos)
            return testing::AssertionFailure() << word << " is not in\n" << text;
    }
    return testing::AssertionSuccess();
}
[[noreturn]] void exitWith(testing::AssertionResult const& result) {
    std::cerr << result.message();
    std::exit(result ? 0 : 1);
}

/// In a process of its own, since there is one report in a process.
TEST(Report, OfNaNOnceWithItsLines) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    auto const report = [] {
        auto const volume = withOdd({1, 1, 1}, {1, 1, kNaN}),
                   other = withOdd({1, 1, 1}, {1, 1, kNaN});
        auto sampler = volume.sampler(kCubicC0, false, kJumpAdaptive);
        auto again = other.sampler(kCubicC1, true, kJumpAdaptive);
        CaptureStdout();
        float3 const zero = sampler.sampleVoxel({0, 28}, {1, 1, 1}, {0, 0.25F, 0.5F}, 99, false);
        std::string const text = GetCapturedStdout();
        CaptureStdout();
        // Other places, sampler and volume, one where the kernels read: nothing more is printed.
        for (float3 const& frac : {float3{}, float3{0.25F, 0.5F, 0.75F}})
            if (again.sampleVoxel({1, 28}, {1, 1, 1}, frac, 99, false) != float3()) std::exit(3);
        if (zero != float3() || GetCapturedStdout() != "") std::exit(2);
        exitWith(has(text,
                     "VoxelSamplerCubic.nanInfo 'voxelSamplerCubic: output is NAN'\n|"
                     "in_depth = 28\n|in_tijk = {0, 0, 0}\n|llc = {1, 1, 1}\n|"
                     "in_lijk = {1, 1, 1}\n|in_frac = {0f, 0.25f, 0.5f}\n|vdw = 1\n|tdw = 4\n|"
                     "tvw = 4\n|dofIsValid = 0\n|origin = 0 0 0\n|"
                     "Tile(0,0,0) = {0, 0, 0}, depth = 28\n|Tile(0,1,1) = |Tile(1,0,0) = nullptr|"
                     "DEBUG BEGIN\n|fetchTiles.begin()\n|DEBUG END\n"));
    };
    EXPECT_EXIT(report(), testing::ExitedWithCode(0), "");
}

/// With the checks on, the first NaN on the way is named, and each is replaced.
TEST(Report, ChecksOnTheWay) {
    using namespace ORV::TileTree3D::Internal;
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    auto const check = [](float odd, int3 const& oddVoxel, float outside, int3 const& lijk,
                          float3 const& frac, float want, char const* lines) {
        auto const sample = [&] {
            auto const volume = withOdd<float>(oddVoxel, odd);
            CubicSource<BinaryTraits, float> const source{.container = *volume.container,
                                                          .topology = volume.topology,
                                                          .channel = volume.channel,
                                                          .type = kCubicC1,
                                                          .clamp = false,
                                                          .jumpHandling = kJumpAdaptive,
                                                          .defaultValue = outside,
                                                          .minDepth = 28};
            AdaptiveMemo<float> memo(false);
            CaptureStdout();
            float const value = adaptiveValue<BinaryTraits, float, CheckTrace>(
                source, memo, {0, 28}, lijk, frac, 28);
            if (!(std::abs(value - want) < 1e-6F)) std::exit(2);
            exitWith(has(GetCapturedStdout(), lines));
        };
        EXPECT_EXIT(sample(), testing::ExitedWithCode(0), "");
    };
    // A sample of a row of ones, with weights of -1/16, 9/16, 9/16, -1/16; the default value in
    // place of one of a tile that is too coarse; and what an interpolation makes of infinity.
    check(kNaN, {1, 1, 1}, 1, {1, 1, 1}, {0.5F, 0, 0}, 0.4375F,
          "getValue.case3 = nan, 1, 1, 1\n|VoxelSamplerCubic.nanInfo 'getValue.case3 output is "
          "NAN'\n|"
          "in_depth = 28\n|DEBUG END");
    check(1, {3, 3, 3}, kNaN, {0, 1, 1}, {0.5F, 0, 0}, 1,
          "getValue.case1 = nan, -2.68435e+08, 268435456, -268435456\n|"
          "VoxelSamplerCubic.nanInfo 'getValue.case1 output is NAN'\n|DEBUG END");
    check(INFINITY, {1, 1, 1}, 1, {1, 1, 1}, {0.5F, 0.5F, 0}, 0.4375F,
          "positions = 0, 1, 2, 3\n|values = 1, inf, 1, 1\n|"
          "VoxelSamplerCubic.nanInfo 'interpolateValues1D output is NAN'\n|DEBUG END");
}

/// A trace has its words in order, and changes no value.
TEST(Trace, FollowsASample) {
    auto tree = Quern::makePtr<Container<BinaryTraits>>(1.0F);
    tree->addTile(0, 0, 0, 27);
    tree->addTile(8, 0, 0, 28);
    TestVolume<BinaryTraits, float> volume(tree, 7, 0, 28, 1);
    volume.fill([](double x, double y, double z) { return static_cast<float>(x + y + z); });
    auto flags = volume.flags.tileData(tree->tileAccessor().tile(8, 0, 0, 28).treeIndex());
    for (int n = 0; n < 8; ++n) flags(n & 1, n >> 1 & 1, n >> 2) = 1;
    auto const traced = [&](TreeIndex const& tile, int3 const& lijk, float3 const& frac,
                            std::string const& words) {
        auto sampler = volume.sampler(kCubicC0, true, kJumpAdaptive, &volume.flags);
        CaptureStdout();
        float const silent = sampler.sampleVoxel(tile, lijk, frac, 99, false);
        EXPECT_EQ(GetCapturedStdout(), "");
        CaptureStdout();
        EXPECT_EQ(sampler.sampleVoxel(tile, lijk, frac, 99, true), silent);
        EXPECT_TRUE(has(GetCapturedStdout(), words));
    };
    TreeIndex const coarse = tree->tileAccessor().tile(0, 0, 0, 27).treeIndex(),
                    fine = tree->tileAccessor().tile(8, 0, 0, 28).treeIndex();
    traced(coarse, {3, 1, 1}, {0.5F, 0.5F, 0.5F},
           "fetchTiles.begin()\n|in_sizes = {2, 2, 2}\n|in_nzc = {0, 1, 2}\n|in_nzcc = 3\n|"
           "localTileIndex(0,0,0) = |localTileIndex(1,1,1) = |io_atResolutionJump = 1\n|"
           "origin = {0, 0, 0}\n|fetchTiles.end()\n|cubic info:\n|atResolutionJump = 1\n|"
           "getValue2D.begin()\n|interpolating along xy-plane at position (7, 3)\n|"
           "xy-plane-position along orthogonal direction = 2\n|nzcI = 0\n|nzcJ = 1\n|"
           "getIncrementAndPosition2D.begin() \n in_tijk2 = {|============\ngetTile:\n|"
           " in_tijk = {| origin = {| originIndex = {| io_lti = {| tile.tijk = {|"
           " io_foundInCache = | io_inc = 2\n io_pos = 6\ngetIncrementAndPosition2D.end() \n|"
           "getValue1D.begin()\n|begin interpolating along y-direction at position 3\n|"
           "y-direction-position along orthogonal direction = (|GETVALUE():\n|in_tijk = {|"
           "lijk = {|tlijk = {|isLeaf = true \n|getValueAtThisLevel\n| io_tsPos = 2\n|"
           " io_tsInc = 2\n|end interpolating along y-direction\n|getValue1D.end() = |"
           "case: neighbor refined\n|getValue2D.end() = ");
    traced(coarse, {3, 0, 0}, {0.5F, 0, 0},
           "case: neighbor refined\n|case: dof is valid, branch 2\n|getValueAtThisLevel\n");
    traced(fine, {2, 0, 0}, {0.5F, 0, 0},
           "case: dof is valid, branch 1\n|getCoarserValue.begin()\n|nbFrac1 = {0.5f, 0f, 0f}\n|"
           "nbFrac2 = {0f, 0f, 0f}\n|calling recursively to fetch values\n|"
           "recursively fetched value at: (9, 0, 0)\n|io_tsPos = 8\n|io_tsInc = 2\n|"
           "io_position = 8\n|getCoarserValue.end()\n|case: tile.depth() < depth\n");

    // Away from jumps, and where eight samples are blended, the stencil alone is traced.
    for (auto const jump : {kJumpAdaptive, kJumpTrilinear}) {
        auto sampler = volume.sampler(kCubicC0, true, jump, &volume.flags);
        for (TreeIndex const& tile : {coarse, fine}) {
            float3 const frac{0.3F, 0.4F, 0.6F};
            float const silent = sampler.sampleVoxel(tile, {1, 1, 1}, frac, tile.depth, false);
            CaptureStdout();
            EXPECT_EQ(sampler.sampleVoxel(tile, {1, 1, 1}, frac, tile.depth, true), silent);
            EXPECT_TRUE(has(GetCapturedStdout(), "fetchTiles.begin()\n|in_sizes = {2, 2, 2}\n|"
                                                 "fetchTiles.end()\n"));
        }
        EXPECT_EQ(sampler.sampleVoxel({99, 27}, {1, 1, 1}, {}, 27, true), 1);
    }
}

}  // namespace
