#include "zel_platform/orvane_geometry_volume/container.h"
#include "zel_platform/quern_core/always_inline.h"

namespace ORV::TileTree3D {

/// One look-up: a lattice point, and the deepest depth that it may return.
template <class Traits> class Container<Traits>::ConstTileAccessor::Search {
public:
    Search(Container const& tree, int i, int j, int k, int deepest)
        : m_tree(tree), m_p{i, j, k}, m_x(Traits::aboveRoot(i)), m_y(Traits::aboveRoot(j)),
          m_z(Traits::aboveRoot(k)), m_deepest(deepest) {}

    bool insideRoot() const { return std::max({m_x, m_y, m_z}) < Traits::kRootWidth; }

    /// The first tile, from `tile` upwards, that covers the point and is not too deep; null if that
    /// takes more than kClimb steps.
    Tile const* climb(Tile const* tile) const {
        int const top = std::max(tile->m_depth - kClimb, 0);
        if (!tile->m_exists || top > m_deepest) return nullptr;
        // A point farther from the tile's corner than the highest ancestor is wide is not in it.
        auto const reach = static_cast<std::uint32_t>(Traits::tileWidth(top));
        auto const above = [&](std::uint32_t c, std::int32_t corner) {
            return c - Traits::aboveRoot(corner) + reach;
        };
        if (std::max({above(m_x, tile->m_tijk.x), above(m_y, tile->m_tijk.y),
                      above(m_z, tile->m_tijk.z)}) >= 2 * reach)
            return nullptr;
        while (tile->m_depth > m_deepest || !tile->contains(m_p)) {
            if (tile->m_depth == top) return nullptr;
            tile = &level(tile->m_depth - 1)[tile->m_parentIndex];
        }
        return tile;
    }

    /// Looks up the tile of `depth` over the point in the index of inner tiles. Returns its child
    /// over the point; the tile itself if that child does not exist; null if there is no such tile,
    /// or it has no children.
    Tile const* below(int depth) const {
        Place const x(m_x, depth), y(m_y, depth), z(m_z, depth);
        auto const width = static_cast<std::uint32_t>(Traits::tileWidth(depth));
        ChildTable const* const table = m_tree.innerTiles(depth).find(
            Internal::InnerTileIndex::hash(x.cell, y.cell, z.cell),
            [&](std::int32_t number) -> ChildTable const* {
                ChildTable const& found = m_tree.m_tables[number];
                return Internal::covers(found.corner, width, m_p) ? &found : nullptr;
            });
        if (!table) return nullptr;
        std::int32_t const child =
            table->children[x.child + Traits::kBranch * (y.child + Traits::kBranch * z.child)];
        return child >= 0 ? &level(depth + 1)[child] : &level(depth)[table->owner];
    }

    /// As descend() from the root, by way of the depth above which the tree hardly branches: few
    /// tiles lie between that depth and a coarse tile, and their child tables stay in the cache. A
    /// function apart, which leaves a search in its registers where this is not needed.
    [[gnu::noinline]] static Tile const* descendByTrunk(Container const& tree, int i, int j, int k,
                                                        int deepest) {
        Search const search(tree, i, j, k, deepest);
        Tile const* const root = &tree.m_levels[0][0];
        int const trunk = std::min(tree.m_state.trunk, deepest - 1);
        if (trunk <= 0) return search.descend(root, deepest - 1);
        Tile const* tile = search.below(trunk);
        if (!tile) return search.descend(root, trunk - 1);
        for (int steps = 0; steps < kFromTrunk; ++steps)
            if (!search.step(tile)) return tile;
        return search.descend(tile, deepest - 1);
    }

    /// The deepest tile over the point that is not too deep, from `tile`, which covers it,
    /// downwards. No inner tile over the point is deeper than `high`.
    ZEL_ALWAYS_INLINE Tile const* descend(Tile const* tile, int high) const {
        for (int steps = 0; steps < kClimb; ++steps)
            if (!step(tile)) return tile;
        // All ancestors of an inner tile are inner tiles: a binary search finds the deepest one.
        int low = tile->m_depth;
        for (int probe = high; low < high; probe = low + (high - low + 1) / 2) {
            if (Tile const* const found = below(probe)) {
                tile = found;
                low = probe;
            } else {
                high = probe - 1;
            }
        }
        // No inner tile is deeper than `low`, so that one step at most is left: from the tile at
        // which the search began, if it found no other.
        step(tile);
        return tile;
    }

private:
    /// The number of steps that a look-up climbs, and then descends, before it uses the index.
    static constexpr int kClimb = Traits::kBranch == 2 ? 3 : 1;
    /// The number of steps down from the trunk, likewise.
    static constexpr int kFromTrunk = Traits::kBranch == 2 ? 6 : 3;

    /// Along one axis: the place of a tile among those of its depth, and the child within it.
    struct Place {
        std::uint32_t cell, child;

        Place(std::uint32_t c, int depth) {
            std::uint32_t const below =
                Internal::tilesBelow<Traits>(c, static_cast<unsigned>(depth) + 1);
            cell = below / Traits::kBranch;
            child = below % Traits::kBranch;
        }
    };

    Level const& level(int depth) const { return m_tree.level(depth); }

    /// Steps down to the child over the point; false if there is none, or if it is too deep.
    bool step(Tile const*& tile) const {
        int const depth = tile->m_depth;
        if (depth >= m_deepest || !tile->m_children) return false;
        unsigned const slot =
            Place(m_x, depth).child +
            Traits::kBranch * (Place(m_y, depth).child + Traits::kBranch * Place(m_z, depth).child);
        std::int32_t const child = tile->m_children[slot];
        if (child < 0) return false;
        tile = &level(depth + 1)[child];
        return true;
    }

    Container const& m_tree;
    int3 m_p;
    std::uint32_t m_x, m_y, m_z;  // of the point, counted from the root's low corner
    int m_deepest;
};

template <class Traits>
Container<Traits>::ConstTileAccessor::ConstTileAccessor(Container const& container)
    : m_currentTile(&sentinel()), m_container(&container) {}

template <class Traits> Container<Traits>::ConstTileAccessor::~ConstTileAccessor() = default;

template <class Traits>
auto Container<Traits>::ConstTileAccessor::find(int i, int j, int k, int depth) const
    -> Tile const& {
    Container const& tree = *m_container;
    int const deepest = std::min(depth, tree.m_state.depth);
    Search const search(tree, i, j, k, deepest);
    if (deepest < 0 || !search.insideRoot()) return *(m_currentTile = &sentinel());
    Tile const* tile = search.climb(m_currentTile);
    // The point is far from the current tile: the deepest tile, which most often exists, is tried
    // first.
    if (!tile && deepest > 1)
        if (Tile const* const found = search.below(deepest - 1)) return *(m_currentTile = found);
    if (!tile) return *(m_currentTile = Search::descendByTrunk(tree, i, j, k, deepest));
    return *(m_currentTile = search.descend(tile, deepest - 1));
}

template <class Traits>
auto Container<Traits>::ConstTileAccessor::tileNeighbor(Tile const& tile,
                                                        NeighborDirection direction) const
    -> Tile const& {
    if (!tile.exists() || direction < 0 || direction > 26) return *(m_currentTile = &sentinel());
    // The corner of a neighbour fits 32 bits: the root is at most 2^30.2 wide, and no neighbour of
    // a tile in it begins farther from the origin than 3/2 of that width.
    long long const width = tile.tileVoxelWidth();
    long long const i = tile.m_tijk.x + width * (direction / 9 - 1),
                    j = tile.m_tijk.y + width * (direction / 3 % 3 - 1),
                    k = tile.m_tijk.z + width * (direction % 3 - 1);
    return this->tile(static_cast<int>(i), static_cast<int>(j), static_cast<int>(k), tile.m_depth);
}

template class Container<BinaryTraits>::ConstTileAccessor;
template class Container<QuinaryTraits>::ConstTileAccessor;

}  // namespace ORV::TileTree3D
