#include "platform/volume/trees.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

using namespace trees;

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
    }
}

TYPED_TEST(Lookup, AgreesWithAMapOfTiles) {
    using Traits = TypeParam;
    Random random(51);
    for (int round = 0; round < 6; ++round) {
        RandomTree<Traits> const random_tree(random, 60, Traits::kMaxDepth);
        auto const& [tree, map, indices, points] = random_tree;
        ASSERT_EQ(tree.size(), map.size());
        auto const roaming = tree.tileAccessor();  // one cursor for all, to try every climb
        for (int i = 0; i < 4000; ++i) {
            int const depth = random(-1, Traits::kMaxDepth + 2);
            int3 p = points[static_cast<std::size_t>(random(0, 59))];
            if (i % 4 == 0) {  // at and around the faces of the tiles over the point
                int const d = random(0, Traits::kMaxDepth);
                int3 const c = corner<Traits>(p, d);
                for (int axis = 0; axis < 3; ++axis)
                    p[axis] =
                        static_cast<int>(c[axis] + random(0, 1) * width<Traits>(d) + random(-1, 0));
            } else if (i % 4 == 1) {
                p = {random(INT_MIN, INT_MAX), random(INT_MIN, INT_MAX), random(INT_MIN, INT_MAX)};
            } else if (i % 4 == 2) {
                p = p + int3{random(-9, 9), random(-9, 9), random(-9, 9)};
            }
            auto const& tile = roaming.tile(p.x, p.y, p.z, depth);
            expectFound<Traits>(tile, map, p, depth);
            ASSERT_EQ(roaming.m_currentTile, &tile);
            ASSERT_EQ(&tile, &tree.tileAccessor().tile(p.x, p.y, p.z, depth));
            ASSERT_EQ(&tile, &tree.tile(tile.treeIndex()));
        }
    }
}

TYPED_TEST(Lookup, CountsTilesLikeADivision) {
    using Traits = TypeParam;
    Random random(56);
    for (int d = 0; d <= Traits::kMaxDepth; ++d)
        for (int i = 0; i < 3000; ++i) {
            auto const w = static_cast<std::uint32_t>(width<Traits>(d)),
                       most = static_cast<std::uint32_t>(width<Traits>(0) - 1);
            std::uint32_t n = static_cast<std::uint32_t>(random(0, static_cast<int>(most)));
            if (i % 3 > 0) n = std::min(most, n / w * w + (i % 3 == 1 ? 0 : w - 1));
            ASSERT_EQ(Internal::tilesBelow<Traits>(n, static_cast<unsigned>(d)), n / w);
        }
}

TEST(InnerTiles, OfOneHashAreToldApart) {
    Internal::InnerTileIndex index;
    for (int table = 0; table < 40; ++table) {
        index.reserveOne();
        index.add(table % 4 == 3 ? 8 : 7, table);
    }
    for (int wanted = 0; wanted < 40; ++wanted) {
        auto const resolve = [&](int table) { return table == wanted ? &wanted : nullptr; };
        EXPECT_EQ(index.find(7, resolve) != nullptr, wanted % 4 != 3);
    }
    // Two cells of depth 27 with the same hash: the tile in the one is not found in the other.
    Random random(57);
    std::map<std::uint32_t, int3> cells;
    for (int i = 0;; ++i) {
        ASSERT_LT(i, 1000000);
        auto const draw = [&] { return random(0, (1 << 27) - 1); };
        int3 const a{draw(), draw(), draw()};
        auto const [found, fresh] =
            cells.try_emplace(Internal::InnerTileIndex::hash(static_cast<std::uint32_t>(a.x),
                                                             static_cast<std::uint32_t>(a.y),
                                                             static_cast<std::uint32_t>(a.z)),
                              a);
        if (fresh) continue;
        auto const low = static_cast<int>(kLow<BinaryTraits>);
        int3 const p = a * 8 + int3{low, low, low}, q = found->second * 8 + int3{low, low, low};
        Container<BinaryTraits> tree(1);
        TileMap<BinaryTraits> map;
        tree.addTile(p.x, p.y, p.z, 28);
        map.add(p, 28);
        expectFound<BinaryTraits>(tree.tileAccessor().tile(q.x, q.y, q.z, 28), map, q, 28);
        break;
    }
}

TYPED_TEST(Lookup, EndsAtTheRootAndAtTheExtremesOf32Bits) {
    using Traits = TypeParam;
    Container<Traits> tree(1);
    auto const accessor = tree.tileAccessor();
    ASSERT_NE(accessor.m_currentTile, nullptr);
    EXPECT_FALSE(accessor.tile(0, 0, 0, 0).exists());  // no tile at all
    auto const low = static_cast<int>(kLow<Traits>);
    auto const high = static_cast<int>(kLow<Traits> + width<Traits>(0) - 1);
    TreeIndex const deep = tree.addTile(low, high, low, Traits::kMaxDepth);
    EXPECT_EQ(deep, (TreeIndex{0, Traits::kMaxDepth}));
    EXPECT_EQ(accessor.tile(low, high, low, 99).treeIndex(), deep);
    EXPECT_EQ(accessor.tile(high, high, high, 99).treeIndex(), (TreeIndex{0, 0}));
    for (int const outside : {INT_MIN, INT_MIN + 1, low - 1, high + 1, INT_MAX - 1, INT_MAX})
        for (int axis = 0; axis < 3; ++axis) {
            int3 p{low, high, low};
            p[axis] = outside;
            auto const& none = accessor.tile(p.x, p.y, p.z, 99);
            EXPECT_FALSE(none.exists()) << outside;
            EXPECT_EQ(none.treeIndex(), TreeIndex());
            EXPECT_EQ(none.parentTreeIndex(), TreeIndex());
            EXPECT_EQ(none.voxelDataWidth(), 1);
            EXPECT_FALSE(none.contains(p) || none.contains(0, 0, 0));
            EXPECT_THROW(tree.addTile(p.x, p.y, p.z, 0), std::out_of_range);
        }
    EXPECT_EQ(width<Traits>(0), Traits::tileWidth(0));
    EXPECT_EQ(Traits::voxelWidth(Traits::kMaxDepth), 1);
}

TYPED_TEST(Lookup, FindsNeighborsAndChildren) {
    using Traits = TypeParam;
    Random random(52);
    RandomTree<Traits> const random_tree(random, 150, Traits::kMaxDepth);
    auto const& [tree, map, indices, points] = random_tree;
    auto const accessor = tree.tileAccessor();
    for (TreeIndex const& index : indices) {
        auto const& tile = tree.tile(index);
        long long const w = tile.tileVoxelWidth();
        for (int direction = 0; direction < 27; ++direction) {
            int const dz = direction % 3 - 1, dy = direction / 3 % 3 - 1, dx = direction / 9 - 1;
            long long const x = tile.tijk().x + dx * w, y = tile.tijk().y + dy * w,
                            z = tile.tijk().z + dz * w;
            auto const& neighbor = accessor.tileNeighbor(tile, direction);
            if (!inRoot<Traits>(x, y, z))
                ASSERT_FALSE(neighbor.exists());
            else
                expectFound<Traits>(neighbor, map,
                                    {static_cast<int>(x), static_cast<int>(y), static_cast<int>(z)},
                                    index.depth);
        }
        for (int i = 0; i < 20; ++i) {
            auto const below = [&] { return random(0, static_cast<int>(w - 1)); };
            int3 const p = tile.tijk() + int3{below(), below(), below()};
            int3 const voxel = tile.childDataIJK(p),
                       at = tile.tijk() + voxel * tile.voxelDataWidth();
            int3 const child = tile.childIJK(p);
            for (int axis = 0; axis < 3; ++axis) {
                ASSERT_TRUE(at[axis] <= p[axis] && p[axis] - at[axis] < tile.voxelDataWidth());
                ASSERT_EQ(child[axis], (p[axis] - tile.tijk()[axis]) / (w / Traits::kBranch));
            }
            bool const has = index.depth < Traits::kMaxDepth && map.has(p, index.depth + 1);
            ASSERT_EQ(tile.isLeaf(child), !has);
            TreeIndex const below_tile = tile.childTreeIndex(child);
            ASSERT_EQ(below_tile.valid(), has);
            if (has) {
                ASSERT_EQ(tree.tile(below_tile).tijk(), (corner<Traits>(p, index.depth + 1)));
                ASSERT_EQ(tree.tile(below_tile).parentTreeIndex(), index);
            }
        }
    }
    auto const& root = tree.tile(0, 0);
    EXPECT_FALSE(accessor.tileNeighbor(root, 27).exists());
    EXPECT_FALSE(accessor.tileNeighbor(root, -1).exists());
    EXPECT_TRUE(root.isLeaf({-1, 0, 0}) && root.isLeaf({0, Traits::kBranch, 0}));
    EXPECT_FALSE(root.childTreeIndex({0, 0, INT_MAX}).valid());
    EXPECT_EQ(root.childDataIJK({INT_MIN, root.tijk().y - 1, root.tijk().z}).y, -1);
    EXPECT_EQ(TileOf<Traits>().childVoxelDataWidth(), 1);
    // Voxels 1 wide, up to 2^32 away: the index ends with the range.
    auto const end = static_cast<int>(kLow<Traits> + width<Traits>(0) - 1);
    for (int const corner : {static_cast<int>(kLow<Traits>), end}) {
        Container<Traits> far(1);
        auto const& tile = far.tile(far.addTile(corner, corner, corner, Traits::kMaxDepth));
        for (int const p : {INT_MIN, INT_MAX, tile.tijk().x - 1, tile.tijk().x + 9})
            EXPECT_EQ(tile.childDataIJK(p, p, p).y,
                      std::clamp<long long>((long long){p} - tile.tijk().x, INT_MIN, INT_MAX));
    }
    for (TreeIndex const& bad : {TreeIndex{}, TreeIndex{-1, 0}, TreeIndex{1, 0}, TreeIndex{0, 99}})
        EXPECT_FALSE(tree.tile(bad).exists());
}

TYPED_TEST(Lookup, SeesTilesAddedSinceAndKeepsReferences) {
    using Traits = TypeParam;
    Random random(53);
    Container<Traits> tree(1);
    TileMap<Traits> map;
    auto const accessor = tree.tileAccessor();
    std::vector<std::pair<TileOf<Traits> const*, int3>> seen;
    for (int i = 0; i < 3000; ++i) {
        int3 const p{random(-3000, 3000), random(-3000, 3000), random(-3000, 3000)};
        TreeIndex const index = tree.addTile(p.x, p.y, p.z, Traits::kMaxDepth - random(0, 2));
        map.add(p, index.depth);
        auto const& tile = accessor.tile(p.x, p.y, p.z, Traits::kMaxDepth);
        expectFound<Traits>(tile, map, p, Traits::kMaxDepth);
        seen.emplace_back(&tree.tile(index), corner<Traits>(p, index.depth));
        EXPECT_EQ(tree.addTile(p.x, p.y, p.z, index.depth), index);  // there already
    }
    for (auto const& [tile, low] : seen) ASSERT_EQ(tile->tijk(), low);
    EXPECT_EQ(tree.size(), map.size());
    Container<Traits> const copy(tree);
    for (auto const& [tile, low] : seen) {
        auto const& twin = copy.tileAccessor().tile(low.x, low.y, low.z, tile->depth());
        ASSERT_TRUE(&twin != tile && twin.treeIndex() == tile->treeIndex());
    }
}

TYPED_TEST(Lookup, TenThreadsReadOneTree) {
    using Traits = TypeParam;
    Random random(54);
    RandomTree<Traits> const random_tree(random, 300, Traits::kMaxDepth);
    auto const& tree = random_tree.tree;
    auto const& points = random_tree.points;
    std::vector<int> expected;
    for (int3 const& p : points) expected.push_back(random_tree.map.find(p, Traits::kMaxDepth));
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 10; ++t)
        threads.emplace_back([&, t] {
            auto const accessor = tree.tileAccessor();
            std::mt19937 engine(t);
            for (int i = 0; i < 50000; ++i) {
                auto const n = engine() % points.size();
                int3 const& p = points[n];
                auto const& tile = accessor.tile(p.x, p.y, p.z, Traits::kMaxDepth);
                if (tile.depth() != expected[n] || !tile.contains(p)) ++wrong;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

template <class Exception, class Call>
void expectRefused(Call const& call, std::string const& value) {
    try {
        call();
        FAIL() << "no exception that names " << value;
    } catch (Exception const& e) {
        EXPECT_NE(std::string(e.what()).find(value), std::string::npos) << e.what();
    }
}

TYPED_TEST(Lookup, RefusesBadTreesAndStaysAsItWas) {
    using Traits = TypeParam;
    using Tree = Container<Traits>;
    expectRefused<std::invalid_argument>([] { Tree(-1.5f); }, "-1.5");
    expectRefused<std::invalid_argument>([] { Tree{NAN}; }, "nan");
    expectRefused<std::invalid_argument>([] { Tree{INFINITY}; }, "inf");
    expectRefused<std::invalid_argument>([] { Tree(1, (1LL << 31) + 1); }, "2147483649");
    EXPECT_FALSE(std::signbit(Tree(-0.0f).voxelSize()));

    Tree tree(1, 10);
    tree.addTile(5, 5, 5, 6);
    DataChannel<Traits, float> channel("", nullptr, 0, false, true, 0, 5);
    channel.updateTo(tree);
    auto const stamp = tree.stamp();
    unsigned long long used = 0, usedAfter = 0, held = 0;
    tree.memUse(used, held, true);
    expectRefused<std::out_of_range>([&] { tree.addTile(1, 1, INT_MIN, 3); }, "-2147483648");
    expectRefused<std::out_of_range>([&] { tree.addTile(1, 1, 1, -2); }, "-2");
    expectRefused<std::out_of_range>([&] { tree.addTile(1, 1, 1, Traits::kMaxDepth + 1); },
                                     std::to_string(Traits::kMaxDepth + 1));
    expectRefused<std::length_error>([&] { tree.addTile(-999999, 5, 5, 8); }, "10 tiles");
    expectRefused<std::length_error>(
        [&] { refineTree(tree, 5, [](auto&, auto&, int) { return true; }); }, "10 tiles");
    expectRefused<std::runtime_error>(
        [&] {
            refineTree(tree, 9, [](auto&, auto&, int d) {
                return d < 7 ? false : throw std::runtime_error("predicate");
            });
        },
        "predicate");
    expectRefused<std::out_of_range>(
        [&] {
            tree.addChild({0, 2}, {0, Traits::kBranch, 0});
        },
        std::to_string(Traits::kBranch));
    expectRefused<std::out_of_range>([&] { tree.addChild({7, 2}, {}); }, "7");
    EXPECT_EQ(tree.size(), 7u);
    EXPECT_EQ(tree.depth(), 6);
    EXPECT_TRUE(tree.stamp() == stamp && channel.fits(tree));
    tree.memUse(usedAfter, held, true);
    EXPECT_EQ(usedAfter, used);
    TileMap<Traits> map;
    map.add({5, 5, 5}, 6);
    Random random(55);
    Tree empty(1);
    EXPECT_THROW(refineTree(empty, 4,
                            [](auto&, auto&, int d) {
                                return d < 3 ? true : throw std::runtime_error("predicate");
                            }),
                 std::runtime_error);
    EXPECT_TRUE(empty.empty() && empty.depth() == -1);
    EXPECT_FALSE(empty.tileAccessor().tile(0, 0, 0, 4).exists());
    EXPECT_EQ(empty.addTile(5, 5, 5, 6), (TreeIndex{0, 6}));
    for (int i = 0; i < 300; ++i) {  // none of the tiles dropped is found again
        auto const low = static_cast<int>(kLow<Traits>);
        int3 const p{random(low, -low - 1), random(low, -low - 1), random(low, -low - 1)};
        for (Tree const* one : {&tree, &empty})
            expectFound<Traits>(one->tileAccessor().tile(p.x, p.y, p.z, 4), map, p, 4);
    }
    EXPECT_THROW(tree.update(tree), std::logic_error);
    EXPECT_THROW(VoxelTopology<Traits>({}), std::invalid_argument);
    expectRefused<std::invalid_argument>(
        [] { VoxelTopology<Traits>(Quern::makePtr<Tree>(1.0f), 8); }, "8");
}

TEST(VolumeObject, TellsComponentsByNameAndType) {
    ORV::Object object;
    auto const tree = Quern::makePtr<Container<BinaryTraits>>(1.0f);
    object.setComponent("tree", tree);
    object.setComponent("place", Quern::makePtr<VoxelTopology<BinaryTraits>>(tree));
    float const value = 3;
    object.setComponent("data", Quern::makePtr<DataChannel<BinaryTraits, float>>(
                                    "data", &value, 0, false, true, 0, 28));
    auto const found = object.component<Container<BinaryTraits>>("tree");
    EXPECT_EQ(found.get(), tree.get());
    EXPECT_EQ(tree.useCount(), 4);  // here twice, in the object and in the topology
    EXPECT_FALSE(object.component<Container<QuinaryTraits>>("tree"));
    EXPECT_FALSE(object.component<Container<BinaryTraits>>("data"));
    EXPECT_FALSE((object.component<DataChannel<BinaryTraits, float3>>("data")));
    EXPECT_FALSE((object.component<HaloChannel<BinaryTraits, float>>("data")));
    EXPECT_TRUE((object.component<DataChannel<BinaryTraits, float>>("data")));
    EXPECT_TRUE(object.component<ORV::Component>("place"));
    ORV::Object const copy(object);
    object.setComponent("tree", {});
    EXPECT_FALSE(object.component<ORV::Component>("tree"));
    EXPECT_TRUE(copy.component<ORV::Component>("tree"));
}

TEST(Topology, FollowsItsTree) {
    auto const tree = Quern::makePtr<Container<QuinaryTraits>>(1.0f);
    VoxelTopology<QuinaryTraits> const topology(tree, 5);
    EXPECT_EQ(topology.offset(), (float3{0, 0.5f, 0}));
    EXPECT_TRUE(topology.empty());
    tree->addTile(0, 0, 0, 2);
    EXPECT_EQ(topology.tileCount(-1), 3);
    EXPECT_EQ(topology.elementCount(1), 125);
    EXPECT_EQ(topology.tileCount(-2) + topology.tileCount(13), 0);
}

}  // namespace
