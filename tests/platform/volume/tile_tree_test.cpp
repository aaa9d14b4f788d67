#include "platform/volume/trees.h"

#include <algorithm>
#include <climits>
#include <stdexcept>

#include "support/fuzz_target.h"
#include "support/refused.h"

namespace {

using namespace trees;
using support::expectRefused;

template <class Traits> class Lookup : public testing::Test {};
TYPED_TEST_SUITE(Lookup, Kinds);

/// The field of the found tile against the map of tiles.
template <class Traits>
void expectFound(TileOf<Traits> const& tile, TileMap<Traits> const& map, int3 const& p, int depth) {
    int const expected = map.find(p, depth);
    ASSERT_EQ(tile.m_depth, expected) << p.x << " " << p.y << " " << p.z << " at " << depth;
    ASSERT_EQ(tile.m_exists != 0, expected >= 0);
    ASSERT_EQ(tile.contains(p), expected >= 0);
    if (expected >= 0) {
        ASSERT_EQ(tile.tijk(), (corner<Traits>(p, expected)));
    } else {
        ASSERT_EQ(tile.treeIndex(), TreeIndex());
        ASSERT_TRUE(tile.voxelDataWidth() == 1 && !tile.contains(0, 0, 0));
    }
}

TEST(LookupOfGrowingTrees, AgreesWithASetOfTiles) {
    support::runFuzzTarget(3000, 1000);  // fuzz/tile_tree_fuzz.cpp
}

TYPED_TEST(Lookup, FindsNothingInCellsBeyondTheRoot) {
    for (int depth = 0; depth <= TypeParam::kMaxDepth; ++depth) {
        Container<TypeParam> tree(1);
        tree.addTile(0, 0, 0, depth);
        auto const w = static_cast<std::uint32_t>(width<TypeParam>(depth)),
                   inside = TypeParam::aboveRoot(0) / w;
        // In a binary tree, the product of one and the width wraps around to the tile's place.
        bool const wraps = TypeParam::kBranch == 2;
        for (std::uint32_t const other : {inside, TypeParam::kRootWidth / w, UINT_MAX,
                                          wraps ? inside + (1U << (depth + 2)) : UINT_MAX / 2})
            for (unsigned axis = 0; axis < 3; ++axis) {
                std::array<std::uint32_t, 3> cell{inside, inside, inside};
                cell[axis] = other;
                std::array<TileRun, 2> runs;
                TreeIndex deepest;
                ASSERT_EQ(tree.findTiles(depth, &cell[0], &cell[1], &cell[2], 1, runs.data()), 1);
                tree.findDeepestTiles(depth, &cell[0], &cell[1], &cell[2], 1, &deepest);
                EXPECT_EQ(runs[0].tile >= 0, other == inside) << depth << ' ' << other;
                EXPECT_EQ(deepest.valid(), other == inside) << depth << ' ' << other;
            }
    }
}

TEST(InnerTiles, OfOneHashAreToldApart) {
    // Two cells of depth 27 with the same hash: the tile in one is not found in the other.
    std::array<std::uint32_t, 2> x{47779579, 72978050}, y{84111598, 50117738},
        z{60785206, 16504334};
    auto const hash = [&](unsigned i) { return Internal::InnerTileIndex::hash(x[i], y[i], z[i]); };
    ASSERT_EQ(hash(0), hash(1));
    auto const corner = [&](unsigned i) {
        auto const low = static_cast<int>(kLow<BinaryTraits>);
        return int3{static_cast<int>(x[i]), static_cast<int>(y[i]), static_cast<int>(z[i])} * 8 +
               int3{low, low, low};
    };
    Container<BinaryTraits> tree(1);
    tree.addTile(corner(0).x, corner(0).y, corner(0).z, 28);
    TileMap<BinaryTraits> map;
    map.add(corner(0), 28);
    int3 const q = corner(1);
    expectFound<BinaryTraits>(tree.tileAccessor().tile(q.x, q.y, q.z, 28), map, q, 28);
    for (auto* const cells : {&x, &y, &z})
        for (auto& cell : *cells) cell *= 2;  // of depth 28
    std::array<TileRun, 2> runs;
    ASSERT_EQ(tree.findTiles(28, x.data(), y.data(), z.data(), 2, runs.data()), 2);
    EXPECT_TRUE(runs[0].tile == 0 && runs[1].tile == -1);
}

TYPED_TEST(Lookup, RefusesBadDirectionsAndRoundsDown) {
    Container<TypeParam> row(1);  // bad directions would lead to these tiles
    int const w = static_cast<int>(width<TypeParam>(4));
    auto const& middle = row.tile(row.addTile(0, 0, 0, 4));
    row.addTile(2 * w, -w, -w, 4);
    row.addTile(-w, -w, -2 * w, 4);
    for (int const direction : {27, -1, 1 << 30})
        EXPECT_FALSE(row.tileAccessor().tileNeighbor(middle, direction).exists());
    auto const& root = row.tile(0, 0);
    EXPECT_TRUE(root.isLeaf({-1, 0, 0}) && root.isLeaf({0, TypeParam::kBranch, 0}));
    EXPECT_FALSE(root.childTreeIndex({0, 0, INT_MAX}).valid());
    for (TreeIndex const& bad : {TreeIndex{}, TreeIndex{-1, 0}, TreeIndex{1, 0}, TreeIndex{0, 99}})
        EXPECT_FALSE(row.tile(bad).exists());
    int const voxel = middle.voxelDataWidth();
    for (int const below : {1, voxel, voxel + 1})
        EXPECT_EQ(middle.childDataIJK(middle.tijk() - int3{below, 0, 0}).x,
                  below > voxel ? -2 : -1);
    // Voxels 1 wide, up to 2^32 away: the index ends with the range.
    for (long long const low : {kLow<TypeParam>, kLow<TypeParam> + width<TypeParam>(0) - 1}) {
        auto const end = static_cast<int>(low);
        auto const& tile = row.tile(row.addTile(end, end, end, TypeParam::kMaxDepth));
        for (int const p : {INT_MIN, INT_MAX, tile.tijk().x - 1, tile.tijk().x + 9})
            EXPECT_EQ(tile.childDataIJK(p, p, p).y,
                      std::clamp<long long>((long long){p} - tile.tijk().x, INT_MIN, INT_MAX));
    }
}

TYPED_TEST(Lookup, RefusesBadTreesAndStaysAsItWas) {
    using Tree = Container<TypeParam>;
    using Range = std::out_of_range;
    expectRefused<std::invalid_argument>([] { Tree(-1.5f); }, "-1.5");
    expectRefused<std::invalid_argument>([] { Tree{NAN}; }, "nan");
    expectRefused<std::invalid_argument>([] { Tree(1, (1LL << 31) + 1); }, "2147483649");
    expectRefused<std::invalid_argument>(
        [] { VoxelTopology<TypeParam>(Quern::makePtr<Tree>(1.0f), 8); }, "8");
    EXPECT_FALSE(std::signbit(Tree(-0.0f).voxelSize()));

    Tree tree(1, 10), empty(1);
    tree.addTile(5, 5, 5, 6);
    DataChannel<TypeParam, float> channel("", nullptr, 0, false, true, 0, 5);
    channel.updateTo(tree);
    auto const stamp = tree.stamp();
    auto const refineAndThrow = [](Tree& refined, int at, bool above) {
        refineTree(refined, 9, [&](auto&, auto&, int d) {
            return d < at ? above : throw std::runtime_error("predicate");
        });
    };
    auto const refineAll = [&] { refineTree(tree, 5, [](auto&, auto&, int) { return true; }); };
    expectRefused<Range>([&] { tree.addTile(1, 1, INT_MIN, 3); }, std::to_string(INT_MIN));
    expectRefused<Range>([&] { tree.addTile(1, 1, 1, -2); }, "-2");
    expectRefused<Range>([&] { tree.addTile(1, 1, 1, TypeParam::kMaxDepth + 1); },
                         std::to_string(TypeParam::kMaxDepth + 1));
    expectRefused<Range>([&] { tree.addChild({0, 2}, {0, 5, 0}); }, "5");
    expectRefused<Range>([&] { tree.addChild({7, 2}, {}); }, "7");
    expectRefused<std::length_error>([&] { tree.addTile(-999999, 5, 5, 8); }, "10 tiles");
    expectRefused<std::length_error>(refineAll, "10 tiles");
    EXPECT_THROW(refineAndThrow(tree, 7, false), std::runtime_error);
    EXPECT_THROW(refineAndThrow(empty, 3, true), std::runtime_error);
    EXPECT_THROW(tree.update(tree), std::logic_error);
    EXPECT_TRUE(tree.size() == 7 && tree.stamp() == stamp && channel.fits(tree));
    EXPECT_TRUE(empty.empty() && empty.depth() == -1);
    EXPECT_EQ(empty.addTile(5, 5, 5, 6), (TreeIndex{0, 6}));
    TileMap<TypeParam> map;
    map.add({5, 5, 5}, 6);
    Random random(55);
    auto const anywhere = [&] {
        return random(static_cast<int>(kLow<TypeParam>), static_cast<int>(-kLow<TypeParam> - 1));
    };
    for (int i = 0; i < 300; ++i) {  // none of the tiles dropped is found again
        int3 const p{anywhere(), anywhere(), anywhere()};
        for (Tree const* one : {&tree, &empty})
            expectFound<TypeParam>(one->tileAccessor().tile(p.x, p.y, p.z, 4), map, p, 4);
    }
}

}  // namespace
