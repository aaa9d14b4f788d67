#include <gtest/gtest.h>

#include <limits>

#include "sampler/cubic_volume.h"
#include "zel/sampler/cubic/adaptive/sample.h"

namespace {

using namespace cubic;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

/// Two tiles of the deepest depth beside one another, and those above, with ones; in the two tiles
/// one voxel has another value.
template <class Traits, class T> TestVolume<Traits, T> withOdd(int3 const& voxel, T const& odd) {
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    for (int n : {0, 1}) tree->addTile(3 + n * Traits::kSamples, 3, 3, Traits::kMaxDepth);
    TestVolume<Traits, T> volume(tree, 7, 0, Traits::kMaxDepth, make<T>(1, 1, 1));
    volume.fill([](double, double, double) { return make<T>(1, 1, 1); });
    for (int n : {0, 1})
        volume.channel.tileData(TreeIndex{n, Traits::kMaxDepth})(voxel.x, voxel.y, voxel.z) = odd;
    return volume;
}

/// The lines of a list that is divided by '|'.
std::vector<std::string> split(std::string const& list) {
    std::vector<std::string> lines;
    std::istringstream stream(list);
    for (std::string line; std::getline(stream, line, '|');) lines.push_back(line);
    return lines;
}

/// Exits with 0 if `text` has lines that begin like these, in this order, none twice, and as many
/// of the checks' own lines as the list.
[[noreturn]] void exitWith(std::string const& text, std::string const& list) {
    std::size_t at = 0;
    for (std::string const& line : split(list)) {
        std::size_t const found = ("\n" + text).find("\n" + line, at);
        if (found == std::string::npos || ("\n" + text).find("\n" + line, found + 1) != text.npos) {
            std::cerr << "not once in order: " << line << "\nin\n" << text;
            std::exit(1);
        }
        at = found;
    }
    auto const count = [](std::string const& in) {
        std::size_t n = 0;
        for (std::size_t p = in.find("getValue.case"); p != in.npos;
             p = in.find("getValue.case", p + 1))
            n += in.find(" = ", p) == p + 14;
        return n;
    };
    std::exit(count(text) == count(list) ? 0 : 3);
}

template <class Case> class Report : public testing::Test {};
TYPED_TEST_SUITE(Report, Cases);

/// In processes of their own, since there is one report in a process.
TYPED_TEST(Report, OfNaNOnceWithItsLines) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    auto const report = [] {
        T const odd = sizeof(T) > sizeof(float) ? make<T>(1, 1, kNaN) : make<T>(kNaN, 1, 1);
        auto const volume = withOdd<Traits, T>({1, 1, 1}, odd);
        auto sampler = volume.sampler(kCubicC0, false, kJumpAdaptive);
        StandardOutput const output;
        T const zero =
            sampler.sampleVoxel({0, Traits::kMaxDepth}, {1, 1, 1}, {0, 0.25F, 0.5F}, 99, false);
        std::size_t const length = output.text().size();
        // Another place, sampler and volume: nothing more is printed.
        auto const other = withOdd<Traits, T>({1, 1, 1}, odd);
        auto again = other.sampler(kCubicC1, true, kJumpAdaptive);
        T const more = again.sampleVoxel({1, Traits::kMaxDepth}, {1, 1, 1}, {}, 99, false);
        std::string const text = output.text();
        if (!same(zero, T()) || !same(more, T()) || text.size() != length) std::exit(2);
        exitWith(text,
                 std::string("VoxelSamplerCubic.nanInfo 'voxelSamplerCubic: output is NAN'|") +
                     (Traits::kBranch == 2
                          ? "in_depth = 28|in_tijk = {0, 0, 0}|llc = {1, 1, 1}|"
                            "in_lijk = {1, 1, 1}|in_frac = {0f, 0.25f, 0.5f}|vdw = 1|tdw = 4|"
                            "tvw = 4|dofIsValid = 0|origin = 0 0 0|Tile(0,0,0) = {0, 0, 0}, depth ="
                          : "in_depth = 12|in_tijk = {3, 3, 3}|llc = {4, 4, 4}|"
                            "in_lijk = {1, 1, 1}|in_frac = {0f, 0.25f, 0.5f}|vdw = 1|tdw = 5|"
                            "tvw = 5|dofIsValid = 0|origin = 3 3 3|Tile(0,0,0) = {3, 3, 3}, depth "
                            "=") +
                     "|Tile(0,0,1) = |Tile(0,1,0) = |Tile(0,1,1) = |Tile(1,0,0) = nullptr|"
                     "Tile(1,0,1) = nullptr|Tile(1,1,0) = nullptr|Tile(1,1,1) = nullptr|"
                     "DEBUG BEGIN|DEBUG END");
    };
    EXPECT_EXIT(report(), testing::ExitedWithCode(0), "");
}

/// With the checks on, the first NaN on the way is named, and each is replaced.
TEST(Report, ChecksOnTheWay) {
    using namespace ORV::TileTree3D::Internal;
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    auto const sample = [](float odd, int3 const& oddVoxel, float outside, int minDepth, int depth,
                           int3 const& lijk, float3 const& frac, float want, char const* lines) {
        auto const volume = withOdd<BinaryTraits, float>(oddVoxel, odd);
        CubicSource<BinaryTraits, float> const source{.container = *volume.container,
                                                      .topology = volume.topology,
                                                      .channel = volume.channel,
                                                      .type = kCubicC1,
                                                      .clamp = false,
                                                      .jumpHandling = kJumpAdaptive,
                                                      .defaultValue = outside,
                                                      .minDepth = minDepth};
        AdaptiveMemo<float> memo(false);
        StandardOutput const output;
        float const value = adaptiveValue<BinaryTraits, float, CheckTrace>(
            source, memo, {0, depth}, lijk, frac, depth == 0 ? 0 : 28);
        if (std::abs(value - want) > 1e-6F) std::exit(2);
        exitWith(output.text(), lines);
    };
    auto const check = [&](auto const&... arguments) {
        EXPECT_EXIT(sample(arguments...), testing::ExitedWithCode(0), "");
    };
    // Samples in a row of ones, with weights of -1/16, 9/16, 9/16, -1/16 where it is even. Of this
    // level; then with a second NaN in the row, which has no line.
    check(kNaN, int3{1, 1, 1}, 1.0F, 0, 28, int3{1, 1, 1}, float3{0.5F, 0, 0}, 0.4375F,
          "getValue.case3 = nan, 1, 1, 1|VoxelSamplerCubic.nanInfo 'getValue.case3 output is NAN'|"
          "in_depth = 28|DEBUG END");
    check(kNaN, int3{0, 1, 1}, kNaN, 28, 28, int3{0, 1, 1}, float3{0.5F, 0, 0}, 0.5625F,
          "getValue.case3 = nan, 0, 1, 0|VoxelSamplerCubic.nanInfo 'getValue.case3 output is NAN'|"
          "DEBUG END");
    // The default value in place of one of a tile that is too coarse; and outside the root.
    check(1.0F, int3{3, 3, 3}, kNaN, 28, 28, int3{0, 1, 1}, float3{0.5F, 0, 0}, 1.0F,
          "getValue.case1 = nan, -2.68435e+08, 268435456, -268435456|"
          "VoxelSamplerCubic.nanInfo 'getValue.case1 output is NAN'|DEBUG END");
    check(1.0F, int3{3, 3, 3}, kNaN, 0, 0, int3{0, 1, 1}, float3{0.5F, 0, 0}, 1.0625F,
          "getValue.case2 = nan, -8.05306e+08, 268435456, -805306368|"
          "VoxelSamplerCubic.nanInfo 'getValue.case2 output is NAN'|DEBUG END");
    // In a refined neighbour.
    check(kNaN, int3{0, 0, 0}, 1.0F, 0, 27, int3{1, 0, 0}, float3{0.25F, 0, 0}, 1.0625F,
          "getValue.case4 = nan, 4, 1, 4|VoxelSamplerCubic.nanInfo 'getValue.case4 output is NAN'|"
          "DEBUG END");
    check(1.0F, int3{3, 3, 3}, 1.0F, 0, 28, int3{1, 2, 2}, float3{kNaN, 0, 0}, 0.0F,
          "positions = 0, 1, 2, 3|values = 1, 1, 1, 1|samplePosition = nan|"
          "VoxelSamplerCubic.nanInfo 'interpolateValues1D input is NAN'|DEBUG END");
    check(std::numeric_limits<float>::infinity(), int3{1, 1, 1}, 1.0F, 0, 28, int3{1, 1, 1},
          float3{0.5F, 0.5F, 0}, 0.4375F,
          "positions = 0, 1, 2, 3|values = 1, inf, 1, 1|"
          "VoxelSamplerCubic.nanInfo 'interpolateValues1D output is NAN'|DEBUG END");
}

/// A trace has its words in order, and changes no value.
TEST(Trace, FollowsASample) {
    auto tree = Quern::makePtr<Container<BinaryTraits>>(1.0F);
    tree->addTile(0, 0, 0, 27);
    tree->addTile(8, 0, 0, 28);
    TestVolume<BinaryTraits, float> volume(tree, 7, 0, 28, 1);
    volume.fill([](double x, double y, double z) { return static_cast<float>(x + y + z); });
    Channel<BinaryTraits, short, 4, 1, 0> dof("", nullptr, 0, false, true, 0, 28);
    dof.update(volume.topology);
    auto flags = dof.tileData(tree->tileAccessor().tile(8, 0, 0, 28).treeIndex());
    for (int n = 0; n < 8; ++n) flags(n & 1, n >> 1 & 1, n >> 2) = 1;
    auto const traced = [&](int jump, TreeIndex const& tile, int3 const& lijk, float3 const& frac,
                            std::string const& words) {
        auto sampler = volume.sampler(kCubicC0, true, jump, &dof);
        StandardOutput const output;
        float const silent = sampler.sampleVoxel(tile, lijk, frac, 99, false);
        EXPECT_EQ(output.text(), "");
        EXPECT_EQ(sampler.sampleVoxel(tile, lijk, frac, 99, true), silent);
        std::string const text = output.text();
        std::size_t at = 0;
        for (std::string const& word : split(words)) {
            at = text.find(word, at);
            ASSERT_NE(at, std::string::npos) << word << " in\n" << text;
        }
    };
    TreeIndex const coarse = tree->tileAccessor().tile(0, 0, 0, 27).treeIndex(),
                    fine = tree->tileAccessor().tile(8, 0, 0, 28).treeIndex();
    std::string const block =
        "fetchTiles.begin()\n|in_sizes = {2, 2, 2}\n|in_nzc = {0, 1, 2}\n|in_nzcc = 3\n|"
        "localTileIndex(0,0,0) = |localTileIndex(1,1,1) = |io_atResolutionJump = 1\n|"
        "origin = {0, 0, 0}\n|fetchTiles.end()\n|cubic info:\n|atResolutionJump = 1\n|";
    traced(kJumpTrilinear, coarse, {3, 1, 1}, {0.5F, 0.5F, 0.5F}, block);
    traced(kJumpAdaptive, coarse, {3, 1, 1}, {0.5F, 0.5F, 0.5F},
           block +
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
    traced(kJumpAdaptive, coarse, {3, 0, 0}, {0.5F, 0, 0},
           "case: neighbor refined\n|case: dof is valid, branch 2\n|getValueAtThisLevel\n");
    traced(kJumpAdaptive, fine, {2, 0, 0}, {0.5F, 0, 0},
           "case: dof is valid, branch 1\n|getCoarserValue.begin()\n|nbFrac1 = {0.5f, 0f, 0f}\n|"
           "nbFrac2 = {0f, 0f, 0f}\n|calling recursively to fetch values\n|"
           "recursively fetched value at: (9, 0, 0)\n|io_tsPos = 8\n|io_tsInc = 2\n|"
           "io_position = 8\n|getCoarserValue.end()\n|case: tile.depth() < depth\n");
    traced(kJumpAdaptive, coarse, {0, 0, 0}, {0.5F, 0, 0}, "case: tile.depth() < depth\n");
}

}  // namespace
