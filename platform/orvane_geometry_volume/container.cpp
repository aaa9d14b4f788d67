#include "zel_platform/orvane_geometry_volume/container.h"

#include <atomic>
#include <cmath>
#include <ostream>
#include <stdexcept>

#include "zel_platform/orvane_geometry_volume/messages.h"

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
    : m_maxTiles(maxTiles), m_voxelSize(voxelSize + 0.0f) {  // no negative zero
    m_state.stamp = {nextStamp(), nextStamp()};
    if (!(voxelSize >= 0) || std::isinf(voxelSize))
        throw std::invalid_argument(Internal::message("Container: voxelSize of ", voxelSize));
    if (maxTiles < 0 || maxTiles > kMaxTiles)
        throw std::invalid_argument(Internal::message("Container: maxTiles of ", maxTiles));
}

template <class Traits>
Container<Traits>::Container(Container const& other)
    : Component(other), m_innerTiles(other.m_innerTiles), m_maxTiles(other.m_maxTiles),
      m_voxelSize(other.m_voxelSize), m_state(other.m_state) {
    m_state.copy = true;
    for (unsigned depth = 0; depth < m_levels.size(); ++depth) {
        Level const& from = other.m_levels[depth];
        m_levels[depth].reserveMore(from.size());
        for (long long i = 0; i < from.size(); ++i) m_levels[depth].add(from[i]);
    }
    m_tables.reserveMore(other.m_tables.size());
    for (long long i = 0; i < other.m_tables.size(); ++i) {
        ChildTable& table = m_tables.add(other.m_tables[i]);
        level(table.depth)[table.owner].m_children = table.children.data();
    }
}

template <class Traits> Container<Traits>::~Container() = default;

template <class Traits> auto Container<Traits>::sentinel() -> Tile const& {
    static constinit Tile const tile{};
    return tile;
}

template <class Traits> void Container<Traits>::changed() noexcept {
    if (m_state.copy) {
        m_state.origin = m_state.stamp;
        m_state.stamp.tree = nextStamp();
        m_state.copy = false;
    }
    m_state.stamp.version = nextStamp();
}

template <class Traits> void Container<Traits>::checkRoom(long long more) const {
    if (m_state.total + more > m_maxTiles)
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
        tile = &level(child.depth)[child.tile];
    }
    int const found = tile ? tile->m_depth : -1;
    if (found == depth) return tile->treeIndex();

    // Reserve all memory first: after the first change nothing may fail.
    checkRoom(depth - found);
    for (int d = found + 1; d <= depth; ++d) reserveChild(d == found + 1 ? tile : nullptr, d);
    m_tables.reserveMore(depth - found);
    TreeIndex added;
    for (int d = found + 1; d <= depth; ++d) {
        added = link(tile, tile ? tile->childIJK(p) : int3());
        tile = &level(d)[added.tile];
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

    checkRoom(1);
    reserveChild(&found, parent.depth + 1);
    m_tables.reserveMore(1);
    TreeIndex const added = link(&level(parent.depth)[parent.tile], childPosition);
    changed();
    return added;
}

/// Reserves memory for one tile of a depth, and for its parent's entry in the index of inner tiles.
/// `parent` is null if the parent itself is still to be added.
template <class Traits> void Container<Traits>::reserveChild(Tile const* parent, int depth) {
    level(depth).reserveMore(1);
    if (depth > 1 && !(parent && parent->m_children)) innerTiles(depth - 1).reserveOne();
}

template <class Traits> std::uint32_t Container<Traits>::hashOf(Tile const& tile) {
    auto const cell = [&](std::int32_t corner) {
        return Internal::tilesBelow<Traits>(Traits::aboveRoot(corner),
                                            static_cast<unsigned>(tile.m_depth));
    };
    return Internal::InnerTileIndex::hash(cell(tile.m_tijk.x), cell(tile.m_tijk.y),
                                          cell(tile.m_tijk.z));
}

/// Adds a child, or the root if `parent` is null. Memory for it must have been reserved.
template <class Traits>
TreeIndex Container<Traits>::link(Tile* parent, int3 const& childPosition) noexcept {
    int const depth = parent ? parent->m_depth + 1 : 0;
    Level& tiles = level(depth);
    Tile tile;
    tile.m_depth = depth;
    tile.m_index = static_cast<std::int32_t>(tiles.size());
    tile.m_exists = 1;
    tile.m_tijk = {Traits::kRootCorner, Traits::kRootCorner, Traits::kRootCorner};
    if (parent) {
        tile.m_parentIndex = parent->m_index;
        tile.m_tijk = parent->m_tijk + childPosition * Traits::tileWidth(depth);
        if (!parent->m_children) {
            ChildTable none;
            none.children.fill(-1);
            none.corner = parent->m_tijk;
            none.owner = parent->m_index;
            none.depth = parent->m_depth;
            parent->m_children = m_tables.add(none).children.data();
            if (depth > 1)
                innerTiles(parent->m_depth)
                    .add(hashOf(*parent), static_cast<std::int32_t>(m_tables.size() - 1));
        }
        parent->m_children[Tile::childSlot(childPosition.x, childPosition.y, childPosition.z)] =
            tile.m_index;
    }
    tiles.add(tile);
    if (tiles.size() == kFew + 1) m_state.trunk = std::min(m_state.trunk, depth - 1);
    ++m_state.total;
    m_state.depth = std::max(m_state.depth, depth);
    return tile.treeIndex();
}

template <class Traits> auto Container<Traits>::tileCounts() const -> TileCounts {
    TileCounts counts;
    for (unsigned depth = 0; depth < counts.size(); ++depth) counts[depth] = m_levels[depth].size();
    return counts;
}

template <class Traits> long long Container<Traits>::tileCount(int depth) const {
    if (depth == -1) return m_state.total;
    if (depth < 0 || depth > Traits::kMaxDepth) return 0;
    return level(depth).size();
}

template <class Traits> void Container<Traits>::dump(std::ostream& stream) const {
    stream << "Container of branch " << Traits::kBranch << ", voxel size " << m_voxelSize << ", "
           << m_state.total << " tiles\n";
    for (int depth = 0; depth <= m_state.depth; ++depth)
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
    for (auto const& inner : m_innerTiles) used += inner.bytesUsed();
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
