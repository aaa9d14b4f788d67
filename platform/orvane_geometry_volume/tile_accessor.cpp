#include <bit>

#include "orvane_geometry_volume/container.h"

namespace ORV::TileTree3D {

namespace {

/// Walks down from a tile towards a lattice point, both inside the root.
template <class Traits> class Descent;

template <> class Descent<BinaryTraits> {
public:
    Descent(TileOf<BinaryTraits> const&, std::uint32_t x, std::uint32_t y, std::uint32_t z)
        : m_x(x), m_y(y), m_z(z) {}

    unsigned nextSlot(unsigned childDepth) const {
        unsigned const shift = 30 - childDepth;
        return (m_x >> shift & 1) | (m_y >> shift & 1) << 1 | (m_z >> shift & 1) << 2;
    }

private:
    std::uint32_t m_x, m_y, m_z;
};

template <> class Descent<QuinaryTraits> {
public:
    Descent(TileOf<QuinaryTraits> const& tile, std::uint32_t x, std::uint32_t y, std::uint32_t z)
        : m_x(x - QuinaryTraits::aboveRoot(tile.m_tijk.x)),
          m_y(y - QuinaryTraits::aboveRoot(tile.m_tijk.y)),
          m_z(z - QuinaryTraits::aboveRoot(tile.m_tijk.z)) {}

    unsigned nextSlot(unsigned childDepth) {
        unsigned const x = digit(m_x, childDepth), y = digit(m_y, childDepth),
                       z = digit(m_z, childDepth);
        return x + 5 * (y + 5 * z);
    }

private:
    static unsigned digit(std::uint32_t& rest, unsigned childDepth) {
        std::uint32_t const child =
            Internal::tilesBelow<QuinaryTraits>(rest, static_cast<int>(childDepth));
        rest -= child * static_cast<std::uint32_t>(QuinaryTraits::kVoxelWidths[childDepth + 1] *
                                                   QuinaryTraits::kSamples);
        return child;
    }

    std::uint32_t m_x, m_y, m_z;
};

}  // namespace

template <class Traits>
Container<Traits>::ConstTileAccessor::ConstTileAccessor(Container const& container)
    : m_currentTile(&sentinel()), m_container(&container) {
    m_path.fill(&sentinel());
}

template <class Traits> Container<Traits>::ConstTileAccessor::~ConstTileAccessor() = default;

/// The depth, at most `limit`, of the deepest tile of the path that contains a point of the root;
/// less than m_pathTop if none does.
template <class Traits>
int Container<Traits>::ConstTileAccessor::commonDepth(int i, int j, int k, int limit) const {
    if (limit < m_pathTop) return -1;
    if constexpr (Traits::kBranch == 2) {
        // Two points are in one tile if they differ only in the bits below its width.
        int3 const& corner = m_path[static_cast<unsigned>(limit)]->m_tijk;
        std::uint32_t const differing = (Traits::aboveRoot(i) ^ Traits::aboveRoot(corner.x)) |
                                        (Traits::aboveRoot(j) ^ Traits::aboveRoot(corner.y)) |
                                        (Traits::aboveRoot(k) ^ Traits::aboveRoot(corner.z));
        return std::min(limit, 30 - static_cast<int>(std::bit_width(differing)));
    } else {
        int depth = limit;
        while (depth >= m_pathTop && !m_path[static_cast<unsigned>(depth)]->contains(i, j, k))
            --depth;
        return depth;
    }
}

/// An inner tile from which the way down to a point is short: that of the path at depth `common`,
/// if it is near or the index has none that is deeper.
template <class Traits>
auto Container<Traits>::ConstTileAccessor::start(int i, int j, int k, int common, int deepest) const
    -> Tile const& {
    bool const onPath = common >= m_pathTop;
    int high = (deepest - 1) / kIndexStep;
    if (onPath && common + 1 >= high * kIndexStep) return *m_path[static_cast<unsigned>(common)];
    Tile const* found =
        onPath ? m_path[static_cast<unsigned>(common)] : &m_container->m_levels[0][0];
    // Above an inner tile all tiles are inner ones. The deepest is tried first: most often it is
    // there.
    int low = found->m_depth / kIndexStep;
    for (int probe = high; low < high; probe = low + (high - low + 1) / 2) {
        if (Tile const* const inner = m_container->innerTile(i, j, k, probe * kIndexStep)) {
            found = inner;
            low = probe;
        } else {
            high = probe - 1;
        }
    }
    return *found;
}

template <class Traits>
auto Container<Traits>::ConstTileAccessor::find(int i, int j, int k, int depth) const
    -> Tile const& {
    std::uint32_t const x = Traits::aboveRoot(i), y = Traits::aboveRoot(j),
                        z = Traits::aboveRoot(k);
    bool const inside = x < Traits::kRootWidth && y < Traits::kRootWidth && z < Traits::kRootWidth;
    int const deepest = std::min(depth, m_container->m_depth);
    if (!inside || deepest < 0) return *(m_currentTile = &sentinel());

    int const limit = std::min(m_pathDepth, deepest);
    int const common = commonDepth(i, j, k, limit);
    Tile const* tile = &start(i, j, k, common, deepest);
    int d = tile->m_depth;
    if (common < m_pathTop || d != common) m_pathTop = d;  // a new path
    bool moved = common != limit;
    m_path[static_cast<unsigned>(d)] = tile;
    Descent<Traits> descent(*tile, x, y, z);
    while (d < deepest && tile->m_children) {
        std::int32_t const child = tile->m_children[descent.nextSlot(static_cast<unsigned>(d + 1))];
        if (child < 0) break;
        tile = &m_container->m_levels[static_cast<unsigned>(++d)][child];
        m_path[static_cast<unsigned>(d)] = tile;
        moved = true;
    }
    // Below a tile at which the way ended for the depth asked for, the path stays as it is.
    if (moved) m_pathDepth = d;
    return *(m_currentTile = tile);
}

template <class Traits>
auto Container<Traits>::ConstTileAccessor::tileNeighbor(Tile const& tile,
                                                        NeighborDirection direction) const
    -> Tile const& {
    if (!tile.exists() || direction < 0 || direction > 26) return *(m_currentTile = &sentinel());
    // No neighbour of a tile of the root, at most 2^30.2 wide, leaves the 32-bit range: the lattice
    // ends at 3 times half the root's width.
    long long const width = tile.tileVoxelWidth();
    long long const i = tile.m_tijk.x + width * (direction / 9 - 1),
                    j = tile.m_tijk.y + width * (direction / 3 % 3 - 1),
                    k = tile.m_tijk.z + width * (direction % 3 - 1);
    return this->tile(static_cast<int>(i), static_cast<int>(j), static_cast<int>(k), tile.m_depth);
}

template class Container<BinaryTraits>::ConstTileAccessor;
template class Container<QuinaryTraits>::ConstTileAccessor;

}  // namespace ORV::TileTree3D
