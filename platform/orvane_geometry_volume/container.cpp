#include "orvane_geometry_volume/container.h"

#include <atomic>
#include <cmath>
#include <ostream>
#include <stdexcept>

#include "orvane_geometry_volume/messages.h"

namespace ORV::TileTree3D {

namespace {

std::uint64_t nextStamp() noexcept {
    static std::atomic<std::uint64_t> last = 0;
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

template <class Traits> bool insideRoot(int3 const& p) {
    return Traits::aboveRoot(p.x) < Traits::kRootWidth &&
           Traits::aboveRoot(p.y) < Traits::kRootWidth &&
           Traits::aboveRoot(p.z) < Traits::kRootWidth;
}

}  // namespace

template <class Traits>
Container<Traits>::Container(float voxelSize, long long maxTiles)
    : m_maxTiles(maxTiles), m_voxelSize(voxelSize), m_stamp{nextStamp(), nextStamp()} {
    if (!(voxelSize >= 0) || std::isinf(voxelSize))
        throw std::invalid_argument(Internal::message("Container: voxelSize of ", voxelSize));
    if (maxTiles < 0 || maxTiles > kMaxTiles)
        throw std::invalid_argument(Internal::message("Container: maxTiles of ", maxTiles));
}

template <class Traits>
Container<Traits>::Container(Container const& other)
    : Component(other), m_innerTiles(other.m_innerTiles), m_total(other.m_total),
      m_maxTiles(other.m_maxTiles), m_depth(other.m_depth), m_voxelSize(other.m_voxelSize),
      m_stamp(other.m_stamp) {
    for (unsigned depth = 0; depth < m_levels.size(); ++depth) {
        Level const& from = other.m_levels[depth];
        m_levels[depth].reserveMore(from.size());
        for (long long i = 0; i < from.size(); ++i) {
            Tile& tile = m_levels[depth].add(from[i]);
            if (!tile.m_children) continue;
            ChildTable table;
            std::copy_n(tile.m_children, table.size(), table.begin());
            tile.m_children = m_tables.add(table).data();
        }
    }
}

template <class Traits> Container<Traits>::~Container() = default;

template <class Traits> auto Container<Traits>::sentinel() -> Tile const& {
    static constinit Tile const tile{};
    return tile;
}

template <class Traits> void Container<Traits>::changed() noexcept {
    m_stamp.version = nextStamp();
}

template <class Traits> void Container<Traits>::checkRoom(long long more) const {
    if (m_total + more > m_maxTiles)
        throw std::length_error(Internal::message("Container: more than ", m_maxTiles, " tiles"));
}

template <class Traits> TreeIndex Container<Traits>::addTile(int i, int j, int k, int depth) {
    int3 const p{i, j, k};
    if (!insideRoot<Traits>(p))
        throw std::out_of_range(
            Internal::message("Container::addTile: lattice point ", p, " outside the tree"));
    if (depth < 0 || depth > Traits::kMaxDepth)
        throw std::out_of_range(Internal::message("Container::addTile: depth ", depth));

    Tile* tile = m_levels[0].size() > 0 ? &m_levels[0][0] : nullptr;
    while (tile && tile->m_depth < depth) {
        TreeIndex const child = tile->childTreeIndex(tile->childIJK(p));
        if (!child.valid()) break;
        tile = &m_levels[static_cast<unsigned>(child.depth)][child.tile];
    }
    int const found = tile ? tile->m_depth : -1;
    if (found == depth) return tile->treeIndex();

    // All that can fail comes before the first change.
    checkRoom(depth - found);
    reserveTiles(found + 1, depth);
    TreeIndex added;
    for (int d = found + 1; d <= depth; ++d) {
        added = link(tile, tile ? tile->childIJK(p) : int3());
        tile = &m_levels[static_cast<unsigned>(d)][added.tile];
    }
    changed();
    return added;
}

template <class Traits>
TreeIndex Container<Traits>::addChild(TreeIndex const& parent, int3 const& childPosition) {
    Tile const& found = tile(parent);
    if (!found.exists())
        throw std::out_of_range(Internal::message("Container::addChild: no tile ", parent.tile,
                                                  " of depth ", parent.depth));
    if (found.m_depth == Traits::kMaxDepth)
        throw std::out_of_range(
            Internal::message("Container::addChild: depth ", found.m_depth + 1));
    for (int axis = 0; axis < 3; ++axis)
        if (childPosition[axis] < 0 || childPosition[axis] >= Traits::kBranch)
            throw std::out_of_range(
                Internal::message("Container::addChild: child position ", childPosition));
    if (TreeIndex const child = found.childTreeIndex(childPosition); child.valid()) return child;

    auto const depth = static_cast<unsigned>(parent.depth);
    checkRoom(1);
    reserveTiles(parent.depth + 1, parent.depth + 1);
    TreeIndex const added = link(&m_levels[depth][parent.tile], childPosition);
    changed();
    return added;
}

/// Makes room for one tile of each depth, and for what its parent needs.
template <class Traits> void Container<Traits>::reserveTiles(int first, int last) {
    m_tables.reserveMore(last - first + 1);
    for (int depth = first; depth <= last; ++depth) {
        m_levels[static_cast<unsigned>(depth)].reserveMore(1);
        if (indexed(depth - 1)) {
            Level const& parents = m_levels[static_cast<unsigned>(depth) - 1];
            innerTiles(depth - 1).reserveOne(
                [&](std::int32_t inner) { return hashOf(parents[inner]); });
        }
    }
}

template <class Traits>
std::size_t Container<Traits>::hashOf(std::uint32_t x, std::uint32_t y, std::uint32_t z,
                                      int depth) {
    return Internal::InnerTileIndex::hash(Internal::tilesBelow<Traits>(x, depth),
                                          Internal::tilesBelow<Traits>(y, depth),
                                          Internal::tilesBelow<Traits>(z, depth));
}

template <class Traits> std::size_t Container<Traits>::hashOf(Tile const& tile) {
    return hashOf(Traits::aboveRoot(tile.m_tijk.x), Traits::aboveRoot(tile.m_tijk.y),
                  Traits::aboveRoot(tile.m_tijk.z), tile.m_depth);
}

/// The tile of an indexed depth that has children and contains a point of the root, or null.
template <class Traits>
auto Container<Traits>::innerTile(int i, int j, int k, int depth) const -> Tile const* {
    Level const& level = m_levels[static_cast<unsigned>(depth)];
    std::int32_t const found = m_innerTiles[static_cast<unsigned>(depth)].find(
        hashOf(Traits::aboveRoot(i), Traits::aboveRoot(j), Traits::aboveRoot(k), depth),
        [&](std::int32_t inner) { return level[inner].contains(i, j, k); });
    return found < 0 ? nullptr : &level[found];
}

/// Adds a child, or the root if `parent` is null, for which there is room.
template <class Traits>
TreeIndex Container<Traits>::link(Tile* parent, int3 const& childPosition) noexcept {
    int const depth = parent ? parent->m_depth + 1 : 0;
    Level& level = m_levels[static_cast<unsigned>(depth)];
    Tile tile;
    tile.m_depth = depth;
    tile.m_index = static_cast<std::int32_t>(level.size());
    tile.m_exists = 1;
    tile.m_tijk = {Traits::kRootCorner, Traits::kRootCorner, Traits::kRootCorner};
    if (parent) {
        tile.m_parentIndex = parent->m_index;
        tile.m_tijk = parent->m_tijk + childPosition * Traits::tileWidth(depth);
        if (!parent->m_children) {
            ChildTable none;
            none.fill(-1);
            parent->m_children = m_tables.add(none).data();
            if (indexed(parent->m_depth))
                innerTiles(parent->m_depth).add(hashOf(*parent), parent->m_index);
        }
        parent->m_children[Tile::childSlot(childPosition.x, childPosition.y, childPosition.z)] =
            tile.m_index;
    }
    level.add(tile);
    ++m_total;
    m_depth = std::max(m_depth, depth);
    return tile.treeIndex();
}

template <class Traits>
std::array<long long, Traits::kMaxDepth + 1> Container<Traits>::tileCounts() const {
    std::array<long long, Traits::kMaxDepth + 1> counts;
    for (unsigned depth = 0; depth < counts.size(); ++depth) counts[depth] = m_levels[depth].size();
    return counts;
}

template <class Traits>
void Container<Traits>::truncate(std::array<long long, Traits::kMaxDepth + 1> const& counts) {
    for (int depth = m_depth; depth >= 0; --depth) {
        Level& level = m_levels[static_cast<unsigned>(depth)];
        for (long long i = counts[static_cast<unsigned>(depth)]; i < level.size(); ++i) {
            if (depth == 0) continue;
            Tile& parent = m_levels[static_cast<unsigned>(depth) - 1][level[i].m_parentIndex];
            auto* const first = parent.m_children;
            if (!first) continue;
            std::replace(first, first + Traits::kChildCount, level[i].m_index, std::int32_t{-1});
            // Its table is left unused.
            if (std::all_of(first, first + Traits::kChildCount, [](auto c) { return c < 0; }))
                parent.m_children = nullptr;
        }
        m_total -= level.size() - std::min(level.size(), counts[static_cast<unsigned>(depth)]);
        level.truncate(std::min(level.size(), counts[static_cast<unsigned>(depth)]));
        if (depth == m_depth && level.size() == 0) --m_depth;
    }
    for (int depth = 1; depth < Traits::kMaxDepth; ++depth) {
        if (!indexed(depth)) continue;
        innerTiles(depth).clear();
        Level const& level = m_levels[static_cast<unsigned>(depth)];
        for (long long i = 0; i < level.size(); ++i)
            if (level[i].m_children) innerTiles(depth).add(hashOf(level[i]), level[i].m_index);
    }
    changed();
}

template <class Traits> long long Container<Traits>::tileCount(int depth) const {
    if (depth == -1) return m_total;
    if (depth < 0 || depth > Traits::kMaxDepth) return 0;
    return m_levels[static_cast<unsigned>(depth)].size();
}

template <class Traits> void Container<Traits>::dump(std::ostream& stream) const {
    stream << "Container of branch " << Traits::kBranch << ", voxel size " << m_voxelSize << ", "
           << m_total << " tiles\n";
    for (int depth = 0; depth <= m_depth; ++depth)
        stream << "  depth " << depth << ": " << tileCount(depth) << " tiles\n";
}

template <class Traits>
void Container<Traits>::memUse(unsigned long long& used, unsigned long long& held,
                               bool withObject) const {
    long long heldBytes = m_tables.bytes();
    for (Level const& level : m_levels) heldBytes += level.bytes();
    for (auto const& inner : m_innerTiles) heldBytes += static_cast<long long>(inner.bytes());
    auto const object = withObject ? sizeof *this : 0;
    held = static_cast<unsigned long long>(heldBytes) + object;
    used = size() * sizeof(Tile) +
           static_cast<unsigned long long>(m_tables.size()) * sizeof(ChildTable) + object;
    for (auto const& inner : m_innerTiles) used += inner.bytes();
}

template <class Traits> void Container<Traits>::copyTo(Quern::Ptr<Component>& target) const {
    target = Quern::makePtr<Container>(*this);
}

template <class Traits> void Container<Traits>::update(Component const& topology) {
    throw std::logic_error(
        Internal::message("Container::update: a tree depends on no topology, such as ", topology));
}

template class Container<BinaryTraits>;
template class Container<QuinaryTraits>;

}  // namespace ORV::TileTree3D
