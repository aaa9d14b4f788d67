#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "orvane_geometry_volume/chunked_store.h"
#include "orvane_geometry_volume/component.h"
#include "orvane_geometry_volume/inner_tile_index.h"
#include "orvane_geometry_volume/lattice_cell.h"
#include "orvane_geometry_volume/tile.h"

namespace ORV::TileTree3D {

/// Tells trees apart, and the states of one tree as it grows. Copies of a tree share both numbers
/// until tiles are added to one of them.
struct TreeStamp {
    std::uint64_t tree = 0;     ///< 0 for no tree
    std::uint64_t version = 0;  ///< new whenever tiles are added

    bool operator==(TreeStamp const&) const = default;
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

    /// The world length of one finest voxel; 0 or more.
    float voxelSize() const { return m_voxelSize; }

    /// What a look-up without a result returns: see TileBinaryNonCompatible.
    static Tile const& sentinel();

    TreeStamp stamp() const { return m_stamp; }

    /// The number of tiles of each depth, and the way back: drops all tiles added since `counts`
    /// was taken. References to those, and accessors, are not to be used after it.
    std::array<long long, Traits::kMaxDepth + 1> tileCounts() const;
    void truncate(std::array<long long, Traits::kMaxDepth + 1> const& counts);

    void dump(std::ostream& stream) const override;
    void memUse(unsigned long long& used, unsigned long long& held, bool withObject) const override;
    void copyTo(Quern::Ptr<Component>& target) const override;
    unsigned long long size() const override { return static_cast<unsigned long long>(m_total); }
    /// Throws std::logic_error: a tree depends on no topology.
    void update(Component const& topology) override;
    long long elementCount(int depth) const override { return tileCount(depth); }
    int elementCount(TreeIndex const& index) const override { return tile(index).exists(); }
    long long tileCount(int depth) const override;
    int minDepth() const override { return 0; }
    int depth() const override { return m_depth; }

private:
    using Level = Internal::ChunkedStore<Tile, 8>;
    using ChildTable = std::array<std::int32_t, Traits::kChildCount>;

    // The inner tiles of every second depth, or of every depth, are found without a walk.
    static constexpr int kIndexStep = Traits::kBranch == 2 ? 2 : 1;
    static bool indexed(int depth) { return depth > 0 && depth % kIndexStep == 0; }
    Internal::InnerTileIndex& innerTiles(int depth) {
        return m_innerTiles[static_cast<unsigned>(depth)];
    }
    static std::size_t hashOf(std::uint32_t x, std::uint32_t y, std::uint32_t z, int depth);
    static std::size_t hashOf(Tile const& tile);
    Tile const* innerTile(int i, int j, int k, int depth) const;

    void checkRoom(long long more) const;
    void reserveTiles(int first, int last);
    TreeIndex link(Tile* parent, int3 const& childPosition) noexcept;
    void changed() noexcept;

    std::array<Level, Traits::kMaxDepth + 1> m_levels;
    Internal::ChunkedStore<ChildTable, 4> m_tables;
    std::array<Internal::InnerTileIndex, Traits::kMaxDepth> m_innerTiles;
    long long m_total = 0;
    long long m_maxTiles;
    int m_depth = -1;
    float m_voxelSize;
    TreeStamp m_stamp;
};

/// A cursor in a tree, for one thread. It remembers the way down to where it was last, so that a
/// look-up climbs only to the first tile that covers the new point. If that is far up, it finds an
/// inner tile near the point in the tree's index, and goes down from there. Tiles may be added to
/// the tree between look-ups.
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
    int commonDepth(int i, int j, int k, int limit) const;
    Tile const& start(int i, int j, int k, int common, int deepest) const;

    Container const* m_container;
    // Tiles from m_pathTop down to m_pathDepth, each the parent of the next.
    mutable std::array<Tile const*, Traits::kMaxDepth + 1> m_path;
    mutable int m_pathTop = 0;
    mutable int m_pathDepth = -1;
};

template <class Traits>
typename Container<Traits>::ConstTileAccessor Container<Traits>::tileAccessor() const {
    return ConstTileAccessor(*this);
}

extern template class ZEL_PLATFORM_API Container<BinaryTraits>;
extern template class ZEL_PLATFORM_API Container<QuinaryTraits>;

}  // namespace ORV::TileTree3D
