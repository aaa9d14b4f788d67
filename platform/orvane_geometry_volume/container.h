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

/// Tells trees apart, and the states of one tree as it grows. A copy of a tree shares both numbers
/// until tiles are added to it, which makes it a tree of its own.
struct TreeStamp {
    std::uint64_t tree = 0;     ///< 0 for no tree
    std::uint64_t version = 0;  ///< higher whenever tiles have been added

    bool operator==(TreeStamp const&) const = default;
};

/// Points in a row that lie in one tile: those from the end of the run before on.
struct TileRun {
    int end;            ///< one past the last of them
    std::int32_t tile;  ///< place of the tile within its depth; -1 if there is none
};

/// The tiles of a sparse adaptive tree. A depth-0 tile, the root, covers the whole lattice of the
/// tree; every other tile has its parent in the tree. Tiles are added and never removed, and a
/// reference to a tile stays valid for as long as the tree lives.
///
/// Any number of threads may read a tree while none adds to it.
template <class Traits> class ZEL_PLATFORM_API Container : public Component {
public:
    using Tile = TileOf<Traits>;
    class ConstTileAccessor;

    /// No tree holds more tiles than these 2^31.
    static constexpr long long kMaxTiles = 1LL << 31;

    /// A tree without tiles. `voxelSize` is the world length of one finest voxel, and `maxTiles`
    /// bounds the number of tiles, for a caller with a budget. Throws std::invalid_argument for a
    /// size that is negative, NaN or infinite, and for a bound below 0 or above kMaxTiles.
    explicit Container(float voxelSize, long long maxTiles = kMaxTiles);
    Container(Container const& other);
    Container& operator=(Container const&) = delete;
    ~Container() override;

    /// The tile of `depth` over a lattice point, made with all its missing ancestors if need be.
    /// Throws std::out_of_range for a point outside the root or a depth outside 0 to
    /// Traits::kMaxDepth, and std::length_error beyond the bound; the tree is then as it was.
    TreeIndex addTile(int i, int j, int k, int depth);

    /// The child of a tile of this tree at a child position, made if need be: addTile without the
    /// way down from the root. Throws like addTile, also for a position outside 0 to B - 1.
    TreeIndex addChild(TreeIndex const& parent, int3 const& childPosition);

    /// A reader of the tree for one thread. The tree must outlive it.
    ConstTileAccessor tileAccessor() const;

    /// The tile of that name; the sentinel if there is none.
    Tile const& tile(TreeIndex const& index) const { return tile(index.tile, index.depth); }
    Tile const& tile(long long tile, int depth) const {
        if (static_cast<unsigned>(depth) > unsigned{Traits::kMaxDepth}) return sentinel();
        Level const& level = m_levels[static_cast<unsigned>(depth)];
        return tile >= 0 && tile < level.size() ? level[tile] : sentinel();
    }

    /// How many points findTiles() takes at once.
    static constexpr int kMaxPoints = 128;

    /// Finds the tiles of `depth` over `count` points, 0 to kMaxPoints of them, whose coordinates
    /// are counted in tiles of that depth from the low faces of the root: those of a point below
    /// are Internal::tilesBelow(). `runs` has room for one a point. Returns how many runs there
    /// are; two in a row may have the same tile. The waits for memory overlap, so that points far
    /// from each other cost less than in look-ups one by one.
    int findTiles(int depth, std::uint32_t const* x, std::uint32_t const* y, std::uint32_t const* z,
                  int count, TileRun* runs) const;

    /// The world length of one finest voxel; 0 or more.
    float voxelSize() const { return m_voxelSize; }

    /// What a look-up without a result returns: see TileBinaryNonCompatible.
    static Tile const& sentinel();

    TreeStamp stamp() const { return m_state.stamp; }
    /// Whether a tile of this tree has the index that it had when the stamp was taken: the stamp is
    /// one of this tree, or of the tree that this is a copy of, from before the copy grew, and
    /// there was no tile that has been dropped since.
    bool continues(TreeStamp const& stamp) const {
        TreeStamp const& origin = m_state.origin;
        bool const ours = stamp.tree == m_state.stamp.tree ||
                          (stamp.tree == origin.tree && stamp.version <= origin.version);
        return stamp.tree != 0 && ours && !dropAfter(stamp);
    }

    /// By depth.
    using TileCounts = std::array<long long, Traits::kMaxDepth + 1>;
    /// The number of tiles of each depth.
    TileCounts tileCounts() const;
    /// How many tiles of each depth, the first ones, have an index that no other tile had when the
    /// stamp was taken.
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

    /// With the place of its owner, so that a look-up reads no tile. Where children are few it fits
    /// a cache line.
    struct alignas(Traits::kBranch == 2 ? 64 : 4) ChildTable {
        std::array<std::int32_t, Traits::kChildCount> children;
        int3 corner;         ///< low corner of the parent
        std::int32_t owner;  ///< place of the parent within its depth
        std::int32_t depth;  ///< of the parent
    };
    using Level = Internal::ChunkedStore<Tile, 8>;
    using Tables = Internal::ChunkedStore<ChildTable, Traits::kBranch == 2 ? 8 : 4>;

    /// Tiles that were added to the tree and dropped again.
    struct Drop {
        TreeStamp start;    ///< before the first of them was added
        std::uint64_t end;  ///< the version with all of them
        TileCounts left;    ///< without them
    };
    /// The drop of a tile that there was when the stamp was taken, or null.
    Drop const* dropAfter(TreeStamp const& stamp) const {
        auto const& drops = m_state.drops;
        auto const found = std::find_if(drops.begin(), drops.end(), [&](Drop const& drop) {
            return stamp.tree == drop.start.tree && drop.start.version < stamp.version &&
                   stamp.version <= drop.end;
        });
        return found == drops.end() ? nullptr : &*found;
    }

    /// All that changes as a tree grows, but for what hangs on the tiles.
    struct State {
        long long total = 0;
        int depth = -1;
        bool copy = false;  ///< of a tree that has the same stamp
        TreeStamp stamp, origin;
        std::vector<Drop> drops;
    };

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

/// A cursor in a tree, for one thread. A look-up near the current tile climbs only to the first
/// tile that covers the new point; one farther away, or far below that tile, goes to the tree's
/// index of inner tiles. Tiles may be added to the tree between look-ups.
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

    /// What tile() gives one tile width away from `tile` in a direction, at the tile's depth; the
    /// sentinel outside the root, for the sentinel and for a direction outside 0 to 26.
    Tile const& tileNeighbor(Tile const& tile, NeighborDirection direction) const;

    Container const& container() const { return *m_container; }

    /// The tile found last, or the sentinel: never null.
    mutable Tile const* m_currentTile;

protected:
    /// tile() without the look at the current tile.
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
