#include "platform/volume/trees.h"

#include <algorithm>
#include <climits>
#include <stdexcept>

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

TYPED_TEST(Lookup, AgreesWithAMapOfTiles) {
    Random random(51);
    for (int round = 0; round < 6; ++round) {
        RandomTree<TypeParam> made(random, 60, TypeParam::kMaxDepth);
        auto& [tree, map, indices, points] = made;
        std::vector<TileOf<TypeParam> const*> tiles;  // by index in `indices`; they never move
        auto const roaming = tree.tileAccessor();     // one cursor for all, to try every climb
        for (int i = 0; i < 4000; ++i) {
            int depth = random(-1, TypeParam::kMaxDepth + 2);
            int3 p =
                points[static_cast<std::size_t>(random(0, static_cast<int>(points.size()) - 1))];
            if (i % 4 == 0) {  // at and around the faces of the tiles over the point
                int const d = random(0, TypeParam::kMaxDepth);
                int3 const c = corner<TypeParam>(p, d);
                for (int axis = 0; axis < 3; ++axis)
                    p[axis] = static_cast<int>(c[axis] + random(0, 1) * width<TypeParam>(d) +
                                               random(-1, 0));
            } else if (i % 4 == 1) {
                p = {random(INT_MIN, INT_MAX), random(INT_MIN, INT_MAX), random(INT_MIN, INT_MAX)};
            } else if (i % 24 == 2) {
                p[random(0, 2)] =
                    random(0, 1) == 0 ? INT_MIN + random(0, 1) : INT_MAX - random(0, 1);
            } else if (i % 4 == 2) {
                p = p + int3{random(-9, 9), random(-9, 9), random(-9, 9)};
            } else if (i % 8 == 3) {               // adds a tile, and a second time the same one
                bool const wide = round % 2 == 1;  // many tiles beside each other below the root
                auto const low = wide ? static_cast<int>(kLow<TypeParam>) : -3000, high = -low - 1;
                p = {random(low, high), random(low, high), random(low, high)};
                depth =
                    wide ? random(1, TypeParam::kMaxDepth) : TypeParam::kMaxDepth - random(0, 2);
                made.add(p, depth);
                ASSERT_EQ(tree.addTile(p.x, p.y, p.z, depth), indices.back());
            }
            while (tiles.size() < indices.size())
                tiles.push_back(&tree.tile(indices[tiles.size()]));
            auto const& tile = roaming.tile(p.x, p.y, p.z, depth);
            expectFound<TypeParam>(tile, map, p, depth);
            ASSERT_EQ(roaming.m_currentTile, &tile);
            ASSERT_EQ(&tile, &tree.tileAccessor().tile(p.x, p.y, p.z, depth));
            ASSERT_EQ(&tile, &tree.tile(tile.treeIndex()));
        }
        EXPECT_EQ(tree.size(), map.size());
        Container<TypeParam> const copy(tree);
        for (std::size_t i = 0; i < tiles.size(); ++i) {
            int3 const low = corner<TypeParam>(points[i], indices[i].depth);
            ASSERT_TRUE(tiles[i] == &tree.tile(indices[i]) && tiles[i]->tijk() == low);
            auto const& twin = copy.tileAccessor().tile(low.x, low.y, low.z, indices[i].depth);
            ASSERT_TRUE(&twin != tiles[i] && twin.treeIndex() == indices[i]);
        }
    }
}

TYPED_TEST(Lookup, OfManyPointsAgreesWithAMapOfTiles) {
    using Cells = std::array<std::uint32_t, Container<TypeParam>::kMaxPoints>;
    Random random(57);
    for (int round = 0; round < 400; ++round) {
        // Some trees branch from the root on, the others at deep tiles alone.
        bool const wide = round % 40 == 0;
        RandomTree<TypeParam> const made(random, wide ? 0 : 60,
                                         wide ? 4 : random(0, TypeParam::kMaxDepth));
        auto const last = static_cast<int>(made.points.size()) - 1;
        int const depth = random(-1, made.tree.depth() + 1),
                  count = random(0, 3) ? random(0, 128) : 128;
        auto const d = std::clamp(depth, 0, +TypeParam::kMaxDepth);
        auto const w = static_cast<std::uint32_t>(width<TypeParam>(d));
        std::array<Cells, 3> cells;
        for (unsigned i = 0; i < static_cast<unsigned>(count); ++i) {
            int3 const p = made.points[static_cast<std::size_t>(random(0, last))];
            bool const again = i > 0 && random(0, 2) == 0;  // rows of one tile
            for (unsigned a = 0; a < 3; ++a)
                cells[a][i] =
                    again ? cells[a][i - 1] : TypeParam::aboveRoot(p[static_cast<int>(a)]) / w;
            // A tile's neighbours, cells that no tile can have, and cells whose product with a
            // width wraps around to the cell of a tile.
            auto& some = cells[static_cast<unsigned>(random(0, 2))][i];
            if (random(0, 3) == 0) some += static_cast<std::uint32_t>(random(-1, 1));
            if (random(0, 20) == 0) some = static_cast<std::uint32_t>(random(INT_MIN, INT_MAX));
            if (TypeParam::kBranch == 2 && random(0, 20) == 0) some |= 1U << (d + 2);
        }
        std::vector<TileRun> runs(static_cast<std::size_t>(count) + 1, TileRun{-7, -7});
        auto const& [x, y, z] = cells;
        int const found =
            made.tree.findTiles(depth, x.data(), y.data(), z.data(), count, runs.data());
        std::array<TreeIndex, Container<TypeParam>::kMaxPoints> deepest;
        made.tree.findDeepestTiles(d, x.data(), y.data(), z.data(), count, deepest.data());
        int end = 0;
        for (int r = 0; r < found; ++r) {
            TileRun const run = runs[static_cast<std::size_t>(r)];
            ASSERT_TRUE(end < run.end && run.end <= count);
            for (auto i = static_cast<unsigned>(end); i < static_cast<unsigned>(run.end); ++i) {
                bool const inside = std::max({x[i], y[i], z[i]}) < TypeParam::kRootWidth / w;
                auto const low = [&](std::uint32_t cell) {
                    return static_cast<int>(kLow<TypeParam> + (inside ? cell * w : 0));
                };
                int3 const p{low(x[i]), low(y[i]), low(z[i])};
                ASSERT_EQ(run.tile >= 0, inside && depth == d && made.map.has(p, d)) << depth;
                ASSERT_EQ(deepest[i].valid(), inside);
                if (inside) expectFound<TypeParam>(made.tree.tile(deepest[i]), made.map, p, d);
                ASSERT_TRUE(run.tile < 0 || made.tree.tile(run.tile, depth).m_tijk == p);
            }
            end = run.end;
        }
        ASSERT_EQ(end, count);
        ASSERT_EQ(runs[static_cast<std::size_t>(found)].end, -7);
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

TYPED_TEST(Lookup, FindsNeighborsAndChildren) {
    Random random(52);
    RandomTree<TypeParam> const made(random, 150, TypeParam::kMaxDepth);
    auto const& [tree, map, indices, points] = made;
    auto const accessor = tree.tileAccessor();
    for (TreeIndex const& index : indices) {
        auto const& tile = tree.tile(index);
        int const w = static_cast<int>(tile.tileVoxelWidth());
        for (int direction = 0; direction < 27; ++direction) {
            int3 const step{direction / 9 - 1, direction / 3 % 3 - 1, direction % 3 - 1};
            expectFound<TypeParam>(accessor.tileNeighbor(tile, direction), map,
                                   tile.tijk() + step * w, index.depth);
        }
        for (int i = 0; i < 20; ++i) {
            auto const below = [&] { return random(0, w - 1); };
            int3 const p = tile.tijk() + int3{below(), below(), below()};
            int3 const child = tile.childIJK(p);
            int3 const inVoxel = p - (tile.tijk() + tile.childDataIJK(p) * tile.voxelDataWidth());
            for (int axis = 0; axis < 3; ++axis) {
                ASSERT_TRUE(0 <= inVoxel[axis] && inVoxel[axis] < tile.voxelDataWidth());
                ASSERT_EQ(child[axis], (p[axis] - tile.tijk()[axis]) / (w / TypeParam::kBranch));
            }
            bool const has = index.depth < TypeParam::kMaxDepth && map.has(p, index.depth + 1);
            TreeIndex const found = tile.childTreeIndex(child);
            ASSERT_TRUE(tile.isLeaf(child) == !has && found.valid() == has);
            if (has) {
                ASSERT_EQ(tree.tile(found).tijk(), (corner<TypeParam>(p, index.depth + 1)));
                ASSERT_EQ(tree.tile(found).parentTreeIndex(), index);
            }
        }
    }
    auto const& root = tree.tile(0, 0);
    EXPECT_TRUE(root.isLeaf({-1, 0, 0}) && root.isLeaf({0, TypeParam::kBranch, 0}));
    EXPECT_FALSE(root.childTreeIndex({0, 0, INT_MAX}).valid());
    for (TreeIndex const& bad : {TreeIndex{}, TreeIndex{-1, 0}, TreeIndex{1, 0}, TreeIndex{0, 99}})
        EXPECT_FALSE(tree.tile(bad).exists());
}

TYPED_TEST(Lookup, RefusesBadDirectionsAndRoundsDown) {
    Container<TypeParam> row(1);  // bad directions would lead to these tiles
    int const w = static_cast<int>(width<TypeParam>(4));
    auto const& middle = row.tile(row.addTile(0, 0, 0, 4));
    row.addTile(2 * w, -w, -w, 4);
    row.addTile(-w, -w, -2 * w, 4);
    for (int const direction : {27, -1, 1 << 30})
        EXPECT_FALSE(row.tileAccessor().tileNeighbor(middle, direction).exists());
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
