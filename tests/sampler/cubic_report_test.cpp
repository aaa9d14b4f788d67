#include <gtest/gtest.h>

#include <limits>

#include "sampler/cubic_volume.h"
#include "zel/sampler/cubic_adaptive_report.h"

namespace {

using namespace cubic;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

/// Two tiles of the deepest depth beside one another, with ones, and a NaN in each.
template <class Traits, class T> TestVolume<Traits, T> withNaN() {
    auto tree = Quern::makePtr<Container<Traits>>(1.0F);
    TreeIndex const first = tree->addTile(3, 3, 3, Traits::kMaxDepth);
    TreeIndex const second = tree->addTile(3 + Traits::kSamples, 3, 3, Traits::kMaxDepth);
    TestVolume<Traits, T> volume(tree, 7, 0, Traits::kMaxDepth, make<T>(1, 1, 1));
    volume.fill([](double, double, double) { return make<T>(1, 1, 1); });
    for (TreeIndex const& tile : {first, second}) {
        auto data = volume.channel.tileData(tile);
        data(1, 1, 1) = make<T>(kNaN, 1, 1);
        if constexpr (std::is_same_v<T, float3>) data(1, 1, 1) = {1, 1, kNaN};
    }
    return volume;
}

/// Exits with 0 if `text` has lines that begin like these, in this order, and none twice.
[[noreturn]] void exitWith(std::string const& text, std::vector<std::string> const& lines) {
    std::size_t at = 0;
    for (std::string const& line : lines) {
        std::size_t const found = ("\n" + text).find("\n" + line, at);
        if (found == std::string::npos || ("\n" + text).find("\n" + line, found + 1) != text.npos) {
            std::cerr << "not once in order: " << line << "\nin\n" << text;
            std::exit(1);
        }
        at = found;
    }
    std::exit(0);
}

template <class Case> class Report : public testing::Test {};
TYPED_TEST_SUITE(Report, Cases);

/// In processes of their own, since there is one report in a process.
TYPED_TEST(Report, OfNaNOnceWithItsLines) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    auto const report = [] {
        auto const volume = withNaN<Traits, T>();
        auto sampler = volume.sampler(kCubicC0, false, kJumpAdaptive);
        TreeIndex const tree{0, Traits::kMaxDepth};
        StandardOutput const output;
        T const zero = sampler.sampleVoxel(tree, {1, 1, 1}, {0, 0.25F, 0.5F}, 99, false);
        std::size_t const length = output.text().size();
        // Another place, sampler and volume: nothing more is printed.
        auto const other = withNaN<Traits, T>();
        auto again = other.sampler(kCubicC1, true, kJumpAdaptive);
        T const more = again.sampleVoxel({1, Traits::kMaxDepth}, {1, 1, 1}, {}, 99, false);
        std::string const text = output.text();
        if (!same(zero, T()) || !same(more, T()) || text.size() != length) std::exit(2);
        bool const binary = Traits::kBranch == 2;
        std::string const corner = binary ? "{0, 0, 0}" : "{3, 3, 3}";
        exitWith(text, {"VoxelSamplerCubic.nanInfo 'voxelSamplerCubic: output is NAN'",
                        binary ? "in_depth = 28" : "in_depth = 12",
                        "in_tijk = " + corner,
                        binary ? "llc = {1, 1, 1}" : "llc = {4, 4, 4}",
                        "in_lijk = {1, 1, 1}",
                        "in_frac = {0f, 0.25f, 0.5f}",
                        "vdw = 1",
                        binary ? "tdw = 4" : "tdw = 5",
                        binary ? "tvw = 4" : "tvw = 5",
                        "dofIsValid = 0",
                        binary ? "origin = 0 0 0" : "origin = 3 3 3",
                        "Tile(0,0,0) = " + corner + ", depth = ",
                        "Tile(0,0,1) = ",
                        "Tile(0,1,0) = ",
                        "Tile(0,1,1) = ",
                        "Tile(1,0,0) = nullptr",
                        "Tile(1,0,1) = nullptr",
                        "Tile(1,1,0) = nullptr",
                        "Tile(1,1,1) = nullptr",
                        "DEBUG BEGIN",
                        "DEBUG END"});
    };
    EXPECT_EXIT(report(), testing::ExitedWithCode(0), "");
}

/// With the checks on, the first NaN on the way is named, and replaced.
TEST(Report, ChecksOnTheWay) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    auto const check = [](int3 const& lijk, float3 const& frac, float want,
                          std::vector<std::string> const& lines) {
        using namespace ORV::TileTree3D::Internal;
        auto const volume = withNaN<BinaryTraits, float>();
        CubicSource<BinaryTraits, float> const source{volume.container->tileAccessor(),
                                                      volume.container.get(),
                                                      &volume.channel,
                                                      &volume.topology,
                                                      1,
                                                      kCubicC0,
                                                      false,
                                                      kJumpAdaptive,
                                                      nullptr,
                                                      0,
                                                      0,
                                                      28,
                                                      AdaptiveMemo<float>(false)};
        StandardOutput const output;
        float const value = adaptiveValue<BinaryTraits, float, CubicTrace<false, true>>(
            source, {0, 28}, lijk, frac, 28);
        if (std::abs(value - want) > 1e-6F) std::exit(2);
        exitWith(output.text(), lines);
    };
    // The sample has a weight of 9/16 in a row of ones.
    EXPECT_EXIT(check({1, 1, 1}, {0.5F, 0, 0}, 0.4375F,
                      {"getValue.case3 = nan, 1, 1, 1",
                       "VoxelSamplerCubic.nanInfo 'getValue.case3 output is NAN'", "DEBUG END"}),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        check({1, 2, 2}, {kNaN, 0, 0}, 0,
              {"positions = 0, 1, 2, 3", "values = 1, 1, 1, 1", "samplePosition = nan",
               "VoxelSamplerCubic.nanInfo 'interpolateValues1D input is NAN'", "DEBUG END"}),
        testing::ExitedWithCode(0), "");
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
                            std::vector<std::string> const& words) {
        auto sampler = volume.sampler(kCubicC0, true, jump, &dof);
        StandardOutput const output;
        float const silent = sampler.sampleVoxel(tile, lijk, frac, 99, false);
        EXPECT_EQ(output.text(), "");
        EXPECT_EQ(sampler.sampleVoxel(tile, lijk, frac, 99, true), silent);
        std::string const text = output.text();
        std::size_t at = 0;
        for (std::string const& word : words) {
            at = text.find(word, at);
            ASSERT_NE(at, std::string::npos) << word << " in\n" << text;
        }
    };
    TreeIndex const coarse = tree->tileAccessor().tile(0, 0, 0, 27).treeIndex(),
                    fine = tree->tileAccessor().tile(8, 0, 0, 28).treeIndex();
    std::vector<std::string> const block{"fetchTiles.begin()\n",      "in_sizes = {2, 2, 2}\n",
                                         "in_nzc = {0, 1, 2}\n",      "in_nzcc = 3\n",
                                         "localTileIndex(0,0,0) = ",  "localTileIndex(1,1,1) = ",
                                         "io_atResolutionJump = 1\n", "origin = {0, 0, 0}\n",
                                         "fetchTiles.end()\n",        "cubic info:\n",
                                         "atResolutionJump = 1\n"};
    traced(kJumpTrilinear, coarse, {3, 1, 1}, {0.5F, 0.5F, 0.5F}, block);
    auto all = block;
    for (char const* word : {"getValue2D.begin()\n",
                             "interpolating along xy-plane at position (7, 3)\n",
                             "xy-plane-position along orthogonal direction = 2\n",
                             "nzcI = 0\n",
                             "nzcJ = 1\n",
                             "getTile:\n",
                             " in_tijk = {",
                             " origin = {",
                             " originIndex = {",
                             " io_lti = {",
                             " tile.tijk = {",
                             " io_foundInCache = ",
                             "getIncrementAndPosition2D.begin() \n",
                             " in_tijk2 = {",
                             "============\n",
                             " io_inc = 2\n",
                             " io_pos = 6\n",
                             "getIncrementAndPosition2D.end() \n",
                             "getValue1D.begin()\n",
                             "begin interpolating along y-direction at position 3\n",
                             "y-direction-position along orthogonal direction = (",
                             "GETVALUE():\n",
                             "in_tijk = {",
                             "lijk = {",
                             "tlijk = {",
                             "isLeaf = true \n",
                             "getValueAtThisLevel\n",
                             " io_tsPos = 2\n",
                             " io_tsInc = 2\n",
                             "end interpolating along y-direction\n",
                             "getValue1D.end() = ",
                             "case: neighbor refined\n",
                             "getValue2D.end() = "})
        all.push_back(word);
    traced(kJumpAdaptive, coarse, {3, 1, 1}, {0.5F, 0.5F, 0.5F}, all);
    traced(kJumpAdaptive, coarse, {3, 0, 0}, {0.5F, 0, 0},
           {"case: neighbor refined\n", "case: dof is valid, branch 2\n", "getValueAtThisLevel\n"});
    traced(kJumpAdaptive, fine, {2, 0, 0}, {0.5F, 0, 0},
           {"case: dof is valid, branch 1\n", "getCoarserValue.begin()\n",
            "nbFrac1 = {0.5f, 0f, 0f}\n", "nbFrac2 = {0f, 0f, 0f}\n",
            "calling recursively to fetch values\n", "recursively fetched value at: (9, 0, 0)\n",
            "io_tsPos = 8\n", "io_tsInc = 2\n", "io_position = 8\n", "getCoarserValue.end()\n",
            "case: tile.depth() < depth\n"});
    traced(kJumpAdaptive, coarse, {0, 0, 0}, {0.5F, 0, 0}, {"case: tile.depth() < depth\n"});
}

}  // namespace

// The copies of what the library keeps to itself.
namespace ORV::TileTree3D::Internal {
template float
adaptiveValue<BinaryTraits, float, StreamTrace>(CubicSource<BinaryTraits, float> const&,
                                                TreeIndex const&, int3 const&, float3 const&, int);
}  // namespace ORV::TileTree3D::Internal
