#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "zel_platform/orvane_geometry_volume/chunked_store.h"
#include "zel_platform/orvane_geometry_volume/component.h"
#include "zel_platform/orvane_geometry_volume/inner_tile_index.h"
#include "zel_platform/orvane_geometry_volume/lattice_cell.h"
#include "zel_platform/orvane_geometry_volume/tile.h"

namespace ORV::TileTree3D {

template <class Traits> class Container;

namespace Internal {
template <class Traits> class Rollback;
}  // namespace Internal

/// Identifies a tree, and its state as it grows. A copy of a tree has the stamp of the original
/// until tiles are added to the copy, which then gets a tree number of its own.
struct TreeStamp {
    std::uint64_t tree = 0;     ///< 0 for no tree
    std::uint64_t version = 0;  ///< higher whenever tiles have been added

    bool operator==(TreeStamp const&) const = default;
};

/// Consecutive points that lie in one tile. A run begins where the run before it ends.
struct TileRun {
    int end;            ///< one past the last point
    std::int32_t tile;  ///< place of the tile within its depth; -1 if there is none
};

/// The tiles of a sparse adaptive tree. A depth-0 tile, the root, covers the whole lattice of the
/// tree; every other tile has its parent in the tree. Tiles are added and never removed, but by a
/// refinement that fails, which removes its own. A reference to a tile stays valid for as long as
/// the tree lives.
///
/// Any number of threads may read a tree while none adds to it.
template <class Traits> class ZEL_PLATFORM_API Container : public Component {
public:
    using Tile = TileOf<Traits>;
    class ConstTileAccessor;

    /// The largest number of tiles in any tree.
    static constexpr long long kMaxTiles = 1LL << 31;

    /// Makes a tree without tiles. `voxelSize` is the width of a finest voxel in world units, and
    /// `maxTiles` limits the number of tiles. Throws std::invalid_argument for a size that is
    /// negative, NaN or infinite, and for a limit below 0 or above kMaxTiles.
    explicit Container(float voxelSize, long long maxTiles = kMaxTiles);
    Container(Container const& other);
    Container& operator=(Container const&) = delete;
    ~Container() override;

    /// Returns the tile of `depth` over a lattice point, and adds it, with all its missing
    /// ancestors, if the tree does not have it. Throws std::out_of_range for a point outside the
    /// root or a depth outside 0 to Traits::kMaxDepth, and std::length_error if the tree would
    /// exceed its limit; the tree is then unchanged.
    TreeIndex addTile(int i, int j, int k, int depth);

    /// Returns the child of a tile of this tree at a child position, and adds it if the tree does
    /// not have it. Faster than addTile, since it does not descend from the root. Throws like
    /// addTile, and std::out_of_range for a position outside 0 to B - 1.
    TreeIndex addChild(TreeIndex const& parent, int3 const& childPosition);

    /// A cursor for look-ups in the tree, for one thread. The tree must outlive it.
    ConstTileAccessor tileAccessor() const;

    /// The tile with an index; the sentinel if there is none.
    Tile const& tile(TreeIndex const& index) const { return tile(index.tile, index.depth); }
    Tile const& tile(long long tile, int depth) const {
        if (static_cast<unsigned>(depth) > unsigned{Traits::kMaxDepth}) return sentinel();
        Level const& tiles = level(depth);
        return tile >= 0 && tile < tiles.size() ? tiles[tile] : sentinel();
    }

    /// The largest number of points for findTiles().
    static constexpr int kMaxPoints = 128;

    /// Finds the tiles of `depth` over `count` points, 0 to kMaxPoints. The coordinates are numbers
    /// of tiles of that depth from the low faces of the root on, as Internal::tilesBelow() computes
    /// them. Writes the runs to `runs`, which has room for one run a point, and returns their
    /// number; two consecutive runs may have the same tile. Memory accesses for different points
    /// overlap, so that distant points cost less than in separate look-ups.
    int findTiles(int depth, std::uint32_t const* x, std::uint32_t const* y, std::uint32_t const* z,
                  int count, TileRun* runs) const;

    /// Finds the deepest tile over each of `count` points, 0 to kMaxPoints, that is no deeper than
    /// `depth`; (-1, -1) outside the root. The coordinates are those of findTiles(), and accesses
    /// overlap likewise. Takes longer than findTiles() where that finds a tile.
    void findDeepestTiles(int depth, std::uint32_t const* x, std::uint32_t const* y,
                          std::uint32_t const* z, int count, TreeIndex* tiles) const;

    /// The width of a finest voxel in world units; 0 or more.
    float voxelSize() const { return m_voxelSize; }

    /// The tile that a look-up returns if it finds none: see TileBinaryNonCompatible.
    static Tile const& sentinel();

    TreeStamp stamp() const { return m_state.stamp; }
    /// Whether every tile that existed when the stamp was taken is in this tree with the same
    /// index. This holds for a stamp of this tree, or of the tree from which it was copied, taken
    /// before the copy grew, unless tiles that existed then have been dropped since.
    bool continues(TreeStamp const& stamp) const {
        TreeStamp const& origin = m_state.origin;
        bool const ours = stamp.tree == m_state.stamp.tree ||
                          (stamp.tree == origin.tree && stamp.version <= origin.version);
        return stamp.tree != 0 && ours && !dropAfter(stamp);
    }

    /// A number of tiles for each depth.
    using TileCounts = std::array<long long, Traits::kMaxDepth + 1>;
    /// The number of tiles of each depth.
    TileCounts tileCounts() const;
    /// The number of tiles of each depth, from the first on, whose index named no other tile when
    /// the stamp was taken.
    TileCounts tileCountsSince(TreeStamp const& stamp) const {
        Drop const* const drop = dropAfter(stamp);
        return drop ? drop->left : continues(stamp) ? tileCounts() : TileCounts{};
    }

    void dump(std::ostream& stream) const override;
    void memUse(unsigned long long& used, unsigned long long& held, bool withObject) const override;
    void copyTo(Quern::Ptr<Component>& target) const override;
    unsigned long long size() const override {
        return static_cast<unsigned long long>(m_state.total);
    }
    /// Throws std::logic_error: a tree depends on no topology.
    void update(Component const& topology) override;
    long long elementCount(int depth) const override { return tileCount(depth); }
    int elementCount(TreeIndex const& index) const override { return tile(index).exists(); }
    long long tileCount(int depth) const override;
    int minDepth() const override { return 0; }
    int depth() const override { return m_state.depth; }

private:
    friend class Internal::Rollback<Traits>;

    /// The children of a tile, and the place of the tile, which saves a look-up the access to the
    /// tile itself. A table of 8 children fits a cache line.
    struct alignas(Traits::kBranch == 2 ? 64 : 4) ChildTable {
        std::array<std::int32_t, Traits::kChildCount> children;
        int3 corner;         ///< low corner of the parent
        std::int32_t owner;  ///< place of the parent within its depth
        std::int32_t depth;  ///< of the parent
    };
    using Level = Internal::ChunkedStore<Tile, 8>;
    using Tables = Internal::ChunkedStore<ChildTable, Traits::kBranch == 2 ? 8 : 4>;

    /// A record of tiles that were added to the tree and dropped again.
    struct Drop {
        TreeStamp start;    ///< the stamp before the first of these tiles was added
        std::uint64_t end;  ///< the version with all of these tiles
        TileCounts left;    ///< the tiles that were left
    };
    /// The record whose tiles, or some of them, existed when the stamp was taken; or null.
    Drop const* dropAfter(TreeStamp const& stamp) const {
        auto const& drops = m_state.drops;
        auto const found = std::find_if(drops.begin(), drops.end(), [&](Drop const& drop) {
            return stamp.tree == drop.start.tree && drop.start.version < stamp.version &&
                   stamp.version <= drop.end;
        });
        return found == drops.end() ? nullptr : &*found;
    }

    /// The most tiles of a depth in the trunk of a tree. Content around the origin has 8 of them.
    static constexpr long long kFew = 64;

    /// The members that change as a tree grows, apart from tiles, child tables and their index.
    struct State {
        long long total = 0;
        int depth = -1;
        int trunk = Traits::kMaxDepth;  ///< no depth down to here has more than kFew tiles
        bool copy = false;  ///< whether this is a copy of a tree that has the same stamp
        TreeStamp stamp, origin;
        std::vector<Drop> drops;
    };

    Level& level(int depth) { return m_levels[static_cast<unsigned>(depth)]; }
    Level const& level(int depth) const { return m_levels[static_cast<unsigned>(depth)]; }
    Internal::InnerTileIndex& innerTiles(int depth) {
        return m_innerTiles[static_cast<unsigned>(depth)];
    }
    Internal::InnerTileIndex const& innerTiles(int depth) const {
        return m_innerTiles[static_cast<unsigned>(depth)];
    }

    static std::uint32_t hashOf(Tile const& tile);

    ZEL_PLATFORM_INTERNAL void checkRoom(long long more) const;
    ZEL_PLATFORM_INTERNAL void reserveChild(Tile const* parent, int depth);
    ZEL_PLATFORM_INTERNAL TreeIndex link(Tile* parent, int3 const& childPosition) noexcept;
    ZEL_PLATFORM_INTERNAL void changed() noexcept;

    std::array<Level, Traits::kMaxDepth + 1> m_levels;
    Tables m_tables;
    std::array<Internal::InnerTileIndex, Traits::kMaxDepth> m_innerTiles;  // by depth
    long long m_maxTiles;
    float m_voxelSize;
    State m_state;
};

/// A cursor for look-ups in a tree, for one thread. For a point near the current tile a look-up
/// climbs to the first ancestor that covers the point; for a distant point, or one far below that
/// ancestor, it uses the tree's index of inner tiles. Tiles may be added to the tree between
/// look-ups.
template <class Traits> class ZEL_PLATFORM_API Container<Traits>::ConstTileAccessor {
public:
    explicit ConstTileAccessor(Container const& container);
    ConstTileAccessor(ConstTileAccessor const&) = default;
    ConstTileAccessor& operator=(ConstTileAccessor const&) = default;
    virtual ~ConstTileAccessor();

    /// The deepest tile over a lattice point that is no deeper than `depth`; the sentinel outside
    /// the root, in a tree without tiles and for a negative depth. The current tile is tried first.
    Tile const& tile(int i, int j, int k, int depth) const {
        Tile const& current = *m_currentTile;
        bool const deepest =
            current.m_depth == depth || (current.m_depth < depth && !current.m_children);
        return deepest && current.contains(i, j, k) ? current : tileImpl<0>(i, j, k, depth);
    }

    /// The result of tile() at the tile's depth, one tile width away from `tile` in a direction;
    /// the sentinel outside the root, for the sentinel and for a direction outside 0 to 26.
    Tile const& tileNeighbor(Tile const& tile, NeighborDirection direction) const;

    Container const& container() const { return *m_container; }

    /// The tile that was found last, or the sentinel; never null.
    mutable Tile const* m_currentTile;

protected:
    /// As tile(), without the test of the current tile.
    template <int Mode> Tile const& tileImpl(int i, int j, int k, int depth) const {
        static_assert(Mode == 0);
        return find(i, j, k, depth);
    }

private:
    Tile const& find(int i, int j, int k, int depth) const;
    class ZEL_PLATFORM_INTERNAL Search;

    Container const* m_container;
};

template <class Traits>
typename Container<Traits>::ConstTileAccessor Container<Traits>::tileAccessor() const {
    return ConstTileAccessor(*this);
}

extern template class ZEL_PLATFORM_API Container<BinaryTraits>;
extern template class ZEL_PLATFORM_API Container<QuinaryTraits>;

}  // namespace ORV::TileTree3D
