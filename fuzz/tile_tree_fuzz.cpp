// Edits trees of both kinds as bytes say, and compares them with a set of tiles: tiles and children
// that are added, refinements that fail or go through, copies that go on by themselves, channels
// that are sized to a tree, and look-ups of each kind.

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

#include "expect.h"
#include "platform/volume/trees.h"

namespace {

using namespace trees;

template <class Traits> class Edited {
public:
    explicit Edited(int most)
        : m_tree(std::make_unique<Container<Traits>>(1.0F, most)), m_most(most) {
        m_roaming.emplace(*m_tree);
    }
    Edited(Edited const& other)
        : m_tree(std::make_unique<Container<Traits>>(*other.m_tree)), m_map(other.m_map),
          m_tiles(other.m_tiles), m_most(other.m_most) {
        m_roaming.emplace(*m_tree);
        if (!other.m_channel) return;
        // The channel of the original fits as long as neither has grown.
        expect(other.m_channel->fits(*m_tree) == other.m_channel->fits(*other.m_tree));
    }

    void step(Random& random) {
        switch (random(0, 9)) {
        case 0:
        case 1:
            return add(random);
        case 2:
        case 3:
            return addChild(random);
        case 4:
            return refine(random);
        case 5:
            return useChannel(random);
        case 6:
            return findTiles(random);
        case 7:
            return lookAtNeighbours(random);
        default:
            return lookUp(random);
        }
    }

private:
    using Tile = TileOf<Traits>;
    using Tree = Container<Traits>;
    static constexpr int kDeepest = Traits::kMaxDepth;
    static constexpr int kEnd = static_cast<int>(kLow<Traits> + width<Traits>(0) - 1);

    /// A point near a tile, or near a corner of the root, or anywhere.
    int3 somePoint(Random& random) const {
        int3 p;
        int3 const near = m_tiles.empty() ? int3{} : m_tree->tile(someTile(random)).tijk();
        for (int axis = 0; axis < 3; ++axis) {
            int const kind = random(0, 15);
            long long const from = kind < 8    ? near[axis]
                                   : kind == 8 ? kLow<Traits>
                                   : kind == 9 ? kEnd
                                               : 0;
            long long const reach = kind == 10 ? INT_MAX
                                    : kind < 4 ? width<Traits>(random(0, kDeepest))
                                               : 9;
            auto const c = from + random(-static_cast<int>(std::min<long long>(reach, INT_MAX)),
                                         static_cast<int>(std::min<long long>(reach, INT_MAX)));
            p[axis] = static_cast<int>(std::clamp<long long>(c, INT_MIN, INT_MAX));
        }
        return p;
    }
    TreeIndex someTile(Random& random) const {
        return m_tiles[static_cast<std::size_t>(random(0, static_cast<int>(m_tiles.size()) - 1))];
    }

    /// Notes what was added if the tile at a point was made with all its ancestors.
    void note(int3 const& p, int depth) {
        for (int d = 0; d <= depth; ++d)
            if (!m_map.has(p, d)) {
                int3 const low = corner<Traits>(p, d);
                m_map.add(low, d);
                auto const& tile = m_tree->tileAccessor().tile(low.x, low.y, low.z, d);
                expect(tile.m_depth == d && tile.tijk() == low);
                m_tiles.push_back(tile.treeIndex());
            }
    }
    bool fits(int3 const& p, int depth) const {
        int missing = 0;
        for (int d = 0; d <= depth; ++d) missing += !m_map.has(p, d);
        return static_cast<int>(m_map.size()) + missing <= m_most;
    }

    void add(Random& random) {
        int3 const p = somePoint(random);
        int const depth = random(-1, kDeepest + 1);
        bool const isPlace = inRoot<Traits>(p.x, p.y, p.z) && 0 <= depth && depth <= kDeepest;
        bool const done = unchangedIfThrown([&] {
            TreeIndex const index = m_tree->addTile(p.x, p.y, p.z, depth);
            expect(isPlace && index.depth == depth);
            note(p, depth);
            expect(m_tree->tile(index).tijk() == (corner<Traits>(p, depth)));
        });
        expect(done == (isPlace && (m_map.has(p, depth) || fits(p, depth))));
    }
    void addChild(Random& random) {
        if (m_tiles.empty()) return;
        TreeIndex const parent = someTile(random);
        auto const place = [&] { return random(-1, Traits::kBranch); };
        int3 const at{place(), place(), place()};
        int3 const low = m_tree->tile(parent).tijk();
        bool isPlace = parent.depth < kDeepest;
        for (int axis = 0; axis < 3; ++axis)
            isPlace = isPlace && 0 <= at[axis] && at[axis] < Traits::kBranch;
        int3 const p = isPlace ? low + at * static_cast<int>(width<Traits>(parent.depth + 1)) : low;
        bool const done = unchangedIfThrown([&] {
            TreeIndex const index = m_tree->addChild(parent, at);
            expect(isPlace && index.depth == parent.depth + 1);
            note(p, index.depth);
            expect(m_tree->tile(index).tijk() == p &&
                   m_tree->tile(index).parentTreeIndex() == parent);
        });
        expect(done == (isPlace && fits(p, parent.depth + 1)));
    }
    /// Below some tiles, down to some depth; may end by an exception of the predicate.
    void refine(Random& random) {
        unsigned const seed = static_cast<unsigned>(random(0, 1000));
        int const deepest = random(0, std::min(kDeepest, 4)),
                  failing = random(0, 3) == 0 ? random(1, 4) : 99;
        int const rate = random(0, Traits::kBranch == 2 ? 5 : 1);
        auto const wants = [&](float3 const& low, int depth) {
            // The same for the same tile, whatever the order.
            std::uint32_t hash = seed;
            for (int axis = 0; axis < 3; ++axis)
                hash = (hash ^ std::bit_cast<std::uint32_t>(low[axis])) * 0x9e3779b1U;
            return (hash >> 16) % 16 < static_cast<unsigned>(rate) || depth == 0;
        };
        unchangedIfThrown([&] {
            refineTree<Traits>(*m_tree, deepest, [&](float3 const& low, float3 const&, int depth) {
                if (depth >= failing) throw std::runtime_error("predicate");
                return wants(low, depth);
            });
            // What the tree has now is found from its root, and added to the map.
            for (int d = 0; d <= m_tree->depth(); ++d)
                for (long long n = 0; n < m_tree->tileCount(d); ++n) {
                    Tile const& tile = m_tree->tile(n, d);
                    if (m_map.has(tile.tijk(), d)) continue;
                    int3 const low = tile.tijk();
                    expect(d <= deepest && low == (corner<Traits>(low, d)) &&
                           wants(inFloats(low), d));
                    expect(d == 0 || m_map.has(low, d - 1));
                    m_map.add(low, d);
                    m_tiles.push_back({n, d});
                }
            expectRefined(deepest, wants);
        });
    }
    /// That the tree has all children that were wanted.
    void expectRefined(int deepest, auto const& wants) const {
        expect(m_map.has(m_tree->tile(0, 0).tijk(), 0));
        for (TreeIndex const& parent : m_tiles)
            for (int n = 0; parent.depth < deepest && n < Traits::kChildCount; ++n) {
                constexpr int kB = Traits::kBranch;
                int3 const child{n % kB, n / kB % kB, n / (kB * kB)};
                int3 const p = m_tree->tile(parent).tijk() +
                               child * static_cast<int>(width<Traits>(parent.depth + 1));
                expect(m_map.has(p, parent.depth + 1) || !wants(inFloats(p), parent.depth + 1));
            }
    }
    static float3 inFloats(int3 const& p) {
        return {static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z)};
    }
    /// Runs an edit; returns false if it threw what it may throw, and the tree is as it was.
    template <class Edit> bool unchangedIfThrown(Edit const& edit) {
        auto const stamp = m_tree->stamp();
        auto const counts = m_tree->tileCounts();
        bool const fit = m_channel && m_channel->fits(*m_tree);
        try {
            edit();
            expect(m_tree->size() == m_map.size() && static_cast<int>(m_map.size()) <= m_most);
            return true;
        } catch (std::out_of_range const&) {
        } catch (std::length_error const&) {
        } catch (std::runtime_error const&) {
        }
        expect(m_tree->stamp() == stamp && m_tree->tileCounts() == counts &&
               m_tree->size() == m_map.size());
        expect(!m_channel || m_channel->fits(*m_tree) == fit);
        m_roaming.emplace(*m_tree);  // it may have found a tile that is gone
        return false;
    }

    /// A sample of each tile is its number; those of tiles that there were stay as the tree grows.
    void useChannel(Random& random) {
        auto const valueOf = [](TreeIndex const& i) {
            return static_cast<float>(i.tile * 32 + i.depth);
        };
        if (!m_channel || random(0, 7) == 0) {
            float const initial = -1;
            m_channel = std::make_unique<DataChannel<Traits, float>>("", &initial, 0, false, true,
                                                                     0, kDeepest);
            m_sized = 0;
        }
        m_channel->updateTo(*m_tree);
        expect(m_channel->fits(*m_tree));
        for (std::size_t i = 0; i < m_tiles.size(); ++i) {
            auto data = m_channel->tileData(m_tiles[i]);
            expect(data(0, 0, 0) == (i < m_sized ? valueOf(m_tiles[i]) : -1.0F));
            data(0, 0, 0) = valueOf(m_tiles[i]);
        }
        m_sized = m_tiles.size();
    }

    void expectFound(Tile const& tile, int3 const& p, int depth) const {
        int const found = m_map.find(p, depth);
        expect(tile.m_depth == found && tile.exists() == (found >= 0) &&
               tile.contains(p) == (found >= 0));
        expect(&tile == &m_tree->tile(tile.treeIndex()));
        if (found >= 0)
            expect(tile.tijk() == (corner<Traits>(p, found)));
        else
            expect(&tile == &Tree::sentinel());
    }
    void lookUp(Random& random) {
        int3 const p = somePoint(random);
        int const depth = random(-1, kDeepest + 2);
        auto const& tile = m_roaming->tile(p.x, p.y, p.z, depth);
        expectFound(tile, p, depth);
        expect(m_roaming->m_currentTile == &tile &&
               &tile == &m_tree->tileAccessor().tile(p.x, p.y, p.z, depth));
        if (!tile.exists()) return;
        int3 const voxel = tile.childDataIJK(p);
        int3 const inVoxel = p - (tile.tijk() + voxel * tile.voxelDataWidth());
        for (int axis = 0; axis < 3; ++axis) {
            expect(0 <= inVoxel[axis] && inVoxel[axis] < tile.voxelDataWidth());
            expect(0 <= voxel[axis] && voxel[axis] < Traits::kSamples);
        }
        bool const has = tile.m_depth < kDeepest && m_map.has(p, tile.m_depth + 1);
        expect(tile.childTreeIndex(tile.childIJK(p)).valid() == has &&
               tile.isLeaf(tile.childIJK(p)) == !has);
    }
    void lookAtNeighbours(Random& random) {
        if (m_tiles.empty()) return;
        auto const& tile = m_tree->tile(someTile(random));
        int const direction = random(-1, 27);
        auto const& found = m_roaming->tileNeighbor(tile, direction);
        if (direction < 0 || direction > 26) return expect(!found.exists());
        long long const w = tile.tileVoxelWidth();
        std::array const steps{direction / 9 - 1, direction / 3 % 3 - 1, direction % 3 - 1};
        std::array<long long, 3> at{};
        for (unsigned a = 0; a < 3; ++a) at[a] = tile.tijk()[static_cast<int>(a)] + steps[a] * w;
        if (!inRoot<Traits>(at[0], at[1], at[2])) return expect(!found.exists());
        expectFound(found,
                    {static_cast<int>(at[0]), static_cast<int>(at[1]), static_cast<int>(at[2])},
                    tile.m_depth);
    }
    void findTiles(Random& random) const {
        int const depth = random(-1, m_tree->depth() + 1), count = random(0, Tree::kMaxPoints);
        auto const d = std::clamp(depth, 0, kDeepest);
        auto const w = static_cast<std::uint32_t>(width<Traits>(d));
        std::array<std::array<std::uint32_t, Tree::kMaxPoints>, 3> cells{};
        for (unsigned i = 0; i < static_cast<unsigned>(count); ++i) {
            bool const again = i > 0 && random(0, 2) != 0;  // rows of one tile
            int3 const p = again ? int3{} : somePoint(random);
            for (unsigned a = 0; a < 3; ++a)
                cells[a][i] =
                    again ? cells[a][i - 1] : Traits::aboveRoot(p[static_cast<int>(a)]) / w;
        }
        // One past the end has to stay.
        std::vector<TileRun> runs(static_cast<std::size_t>(count) + 1, TileRun{-7, -7});
        int const found = m_tree->findTiles(depth, cells[0].data(), cells[1].data(),
                                            cells[2].data(), count, runs.data());
        std::array<TreeIndex, Tree::kMaxPoints> deepest;
        m_tree->findDeepestTiles(d, cells[0].data(), cells[1].data(), cells[2].data(), count,
                                 deepest.data());
        int end = 0;
        for (int r = 0; r < found; ++r) {
            TileRun const run = runs[static_cast<std::size_t>(r)];
            expect(end < run.end && run.end <= count);
            for (auto i = static_cast<unsigned>(end); i < static_cast<unsigned>(run.end); ++i) {
                int3 p;
                bool inside = true;
                for (unsigned a = 0; a < 3; ++a) {
                    inside = inside && cells[a][i] < Traits::kRootWidth / w;
                    if (inside)
                        p[static_cast<int>(a)] = static_cast<int>(
                            kLow<Traits> + static_cast<long long>(cells[a][i]) * w);
                }
                expect((run.tile >= 0) == (inside && depth == d && m_map.has(p, d)));
                expect(deepest[i].valid() == (inside && m_tree->depth() >= 0));
                if (deepest[i].valid()) expectFound(m_tree->tile(deepest[i]), p, d);
                expect(run.tile < 0 || m_tree->tile(run.tile, depth).tijk() == p);
            }
            end = run.end;
        }
        expect(end == count && runs[static_cast<std::size_t>(found)].end == -7);
    }

    std::unique_ptr<Tree> m_tree;
    TileMap<Traits> m_map;
    std::vector<TreeIndex> m_tiles;  ///< those of the map, in the order in which they were added
    int m_most;
    std::optional<typename Tree::ConstTileAccessor>
        m_roaming;  ///< for all look-ups, to try every climb
    std::unique_ptr<DataChannel<Traits, float>> m_channel;
    std::size_t m_sized = 0;  ///< so many of the tiles have a sample in the channel
};

template <class Traits> void edit(Random& random) {
    std::vector<std::unique_ptr<Edited<Traits>>> trees;
    trees.push_back(std::make_unique<Edited<Traits>>(random(0, 3) == 0 ? random(0, 40) : 300));
    for (int n = 0; n < 200 && !random.ended(); ++n) {
        auto& tree =
            *trees[static_cast<std::size_t>(random(0, static_cast<int>(trees.size()) - 1))];
        if (random(0, 15) == 0 && trees.size() < 3)
            trees.push_back(std::make_unique<Edited<Traits>>(tree));
        else
            tree.step(random);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Random random(support::Choices(std::span(data, size)));
    if (random(0, 1) == 0)
        edit<BinaryTraits>(random);
    else
        edit<QuinaryTraits>(random);
    return 0;
}
