#include <algorithm>
#include <utility>

#include "zel_platform/orvane_geometry_volume/container.h"
#include "zel_platform/quern_core/expect.h"
#include "zel_platform/quern_core/position_loop.h"

namespace ORV::TileTree3D {

/// Works in passes over all points, each of which prefetches the data of the next pass: first the
/// index of inner tiles, then the child tables. The tiles themselves are not read.
template <class Traits>
int Container<Traits>::findTiles(int depth, std::uint32_t const* x, std::uint32_t const* y,
                                 std::uint32_t const* z, int count, TileRun* runs) const {
    ZEL_EXPECT(0 <= count && count <= kMaxPoints);
    if (count <= 0) return 0;
    if (depth < 0 || depth > m_state.depth) {
        runs[0] = {count, -1};
        return 1;
    }
    constexpr std::uint32_t B = Traits::kBranch;
    if (depth < 2) {  // the root has no entry in the index
        std::uint32_t const size = depth == 0 ? 1 : B;
        std::int32_t const* const children = m_levels[0][0].m_children;
        for (int i = 0; i < count; ++i) {
            bool const inside = std::max({x[i], y[i], z[i]}) < size;
            runs[i] = {i + 1, -1};
            if (inside) runs[i].tile = depth == 0 ? 0 : children[x[i] + B * (y[i] + B * z[i])];
        }
        return count;
    }

    // The parent tiles of the runs, in which consecutive runs of one parent share an entry, and the
    // child table found for each.
    struct Parent {
        std::uint32_t x, y, z, hash;
        ChildTable const* table;
    };
    std::array<Parent, kMaxPoints> parents;
    std::array<std::uint8_t, kMaxPoints> parentOf, slotOf;  // by run
    static_assert(kMaxPoints <= 256 && Traits::kChildCount <= 256);
    std::array<std::uint32_t, kMaxPoints> changes;
    changes[0] = 1;
    Quern::forEachPosition(count - 1, [x, y, z, to = changes.data() + 1](int i) ZEL_ALWAYS_INLINE {
        to[i] = (x[i] ^ x[i + 1]) | (y[i] ^ y[i + 1]) | (z[i] ^ z[i + 1]);
    });

    auto const& index = innerTiles(depth - 1);
    unsigned runCount = 0, parentCount = 0;
    for (int i = 0; i < count; ++i) {
        if (changes[static_cast<unsigned>(i)] == 0) continue;
        if (i > 0) runs[runCount - 1].end = i;
        std::uint32_t const px = x[i] / B, py = y[i] / B, pz = z[i] / B;
        Parent const& last = parents[parentCount == 0 ? 0 : parentCount - 1];
        if (parentCount == 0 || ((px ^ last.x) | (py ^ last.y) | (pz ^ last.z)) != 0) {
            std::uint32_t const hash = Internal::InnerTileIndex::hash(px, py, pz);
            index.prefetch(hash);
            parents[parentCount++] = {px, py, pz, hash, nullptr};
        }
        parentOf[runCount] = static_cast<std::uint8_t>(parentCount - 1);
        slotOf[runCount++] =
            static_cast<std::uint8_t>(x[i] - B * px + B * (y[i] - B * py + B * (z[i] - B * pz)));
    }
    runs[runCount - 1].end = count;

    for (unsigned p = 0; p < parentCount; ++p)
        parents[p].table = index.find(parents[p].hash, [&](std::int32_t number) {
            ChildTable const* const table = &m_tables[number];
            __builtin_prefetch(&table->corner);
            return table;
        });
    if constexpr (sizeof(ChildTable) > 64)
        for (unsigned r = 0; r < runCount; ++r)
            if (ChildTable const* const table = parents[parentOf[r]].table)
                __builtin_prefetch(&table->children[slotOf[r]]);

    // The tables are in the cache now. A table with the same hash may belong to another tile:
    // compare corners, and search again where they differ.
    auto const width = static_cast<std::uint32_t>(Traits::tileWidth(depth - 1));
    for (unsigned p = 0; p < parentCount; ++p) {
        Parent& parent = parents[p];
        if (!parent.table) continue;
        int3 const at{Internal::cornerOf<Traits>(parent.x, width),
                      Internal::cornerOf<Traits>(parent.y, width),
                      Internal::cornerOf<Traits>(parent.z, width)};
        bool const inside = std::max({parent.x, parent.y, parent.z}) < Traits::kRootWidth / width;
        auto const isOwner = [&](ChildTable const& table) { return inside && table.corner == at; };
        if (isOwner(*parent.table)) continue;
        parent.table = index.find(parent.hash, [&](std::int32_t number) -> ChildTable const* {
            ChildTable const& table = m_tables[number];
            return isOwner(table) ? &table : nullptr;
        });
    }
    for (unsigned r = 0; r < runCount; ++r) {
        ChildTable const* const table = parents[parentOf[r]].table;
        runs[r].tile = table ? table->children[slotOf[r]] : -1;
    }
    return static_cast<int>(runCount);
}

/// Begins at the depth above which the tree hardly branches, whose child tables stay in the cache,
/// and steps down from there with all points at once.
template <class Traits>
void Container<Traits>::findDeepestTiles(int depth, std::uint32_t const* x, std::uint32_t const* y,
                                         std::uint32_t const* z, int count,
                                         TreeIndex* tiles) const {
    ZEL_EXPECT(0 <= count && count <= kMaxPoints && depth <= Traits::kMaxDepth);
    std::fill_n(tiles, std::max(count, 0), TreeIndex());
    int const deepest = std::min(depth, m_state.depth);
    if (deepest < 0) return;
    constexpr std::uint32_t B = Traits::kBranch;
    auto const width = static_cast<std::uint32_t>(Traits::tileWidth(depth));
    // An inner tile over a point, and its child table; null if there is no such tile of that depth.
    struct Inner {
        std::int32_t tile;
        std::int32_t const* table;
    };
    auto const innerTile = [&](int i, int at) -> Inner {
        if (at == 0) return {0, m_levels[0][0].m_children};  // which is not in the index
        Internal::TilesBelow<Traits> const tilesBelow(static_cast<unsigned>(at));
        std::uint32_t const tx = tilesBelow(x[i] * width), ty = tilesBelow(y[i] * width),
                            tz = tilesBelow(z[i] * width);
        auto const wide = static_cast<std::uint32_t>(Traits::tileWidth(at));
        int3 const corner{Internal::cornerOf<Traits>(tx, wide),
                          Internal::cornerOf<Traits>(ty, wide),
                          Internal::cornerOf<Traits>(tz, wide)};
        ChildTable const* const table =
            innerTiles(at).find(Internal::InnerTileIndex::hash(tx, ty, tz),
                                [&](std::int32_t number) -> ChildTable const* {
                                    ChildTable const& found = m_tables[number];
                                    return found.corner == corner ? &found : nullptr;
                                });
        return table ? Inner{table->owner, table->children.data()} : Inner{-1, nullptr};
    };
    // Steps down from a tile of depth `at` to its child over a point. Returns the child, or null.
    auto const step = [&](int i, int at, std::int32_t const* table) ZEL_ALWAYS_INLINE {
        Internal::TilesBelow<Traits> const tilesBelow(static_cast<unsigned>(at) + 1);
        auto const place = [&](std::uint32_t const* c) { return tilesBelow(c[i] * width) % B; };
        std::int32_t const child = table[place(x) + B * (place(y) + B * place(z))];
        bool const exists = child >= 0;
        tiles[i] = {exists ? child : tiles[i].tile, at + exists};
        Tile const* const below = &level(at + 1)[exists ? child : 0];
        __builtin_prefetch(&below->m_children);
        return exists ? below : nullptr;
    };

    // The points whose tile may have a child over them, and the child tables of those tiles.
    std::array<std::uint8_t, kMaxPoints> points;
    std::array<std::int32_t const*, kMaxPoints> tables;
    unsigned left = 0;
    int const trunk = std::max(std::min(m_state.trunk, deepest - 1), 0);
    auto const above = tileAccessor();  // for the few points whose tile is not below the trunk
    for (int i = 0; i < count; ++i) {
        if (std::max({x[i], y[i], z[i]}) >= Traits::kRootWidth / width) continue;
        if (Inner const inner = innerTile(i, trunk); inner.table) {
            tiles[i] = {inner.tile, trunk};
            points[left] = static_cast<std::uint8_t>(i);
            tables[left++] = inner.table;
        } else {
            tiles[i] = above
                           .tile(Internal::cornerOf<Traits>(x[i], width),
                                 Internal::cornerOf<Traits>(y[i], width),
                                 Internal::cornerOf<Traits>(z[i], width), deepest)
                           .treeIndex();
        }
    }
    std::array<Tile const*, kMaxPoints> below;
    for (int at = trunk; left > 0 && at < deepest; ++at) {
        unsigned const all = std::exchange(left, 0);
        for (unsigned s = 0; s < all; ++s) {
            points[left] = points[s];
            below[left] = step(points[s], at, tables[s]);
            left += below[left] != nullptr;
        }
        if (at + 1 == deepest) break;
        unsigned const found = std::exchange(left, 0);
        for (unsigned s = 0; s < found; ++s) {
            points[left] = points[s];
            tables[left] = below[s]->m_children;
            __builtin_prefetch(tables[left]);
            left += tables[left] != nullptr;
        }
    }
}

#define ZEL_DETAIL_FIND_TILES(Traits)                                                              \
    template int Container<Traits>::findTiles(int, std::uint32_t const*, std::uint32_t const*,     \
                                              std::uint32_t const*, int, TileRun*) const;          \
    template void Container<Traits>::findDeepestTiles(int, std::uint32_t const*,                   \
                                                      std::uint32_t const*, std::uint32_t const*,  \
                                                      int, TreeIndex*) const
ZEL_DETAIL_FIND_TILES(BinaryTraits);
ZEL_DETAIL_FIND_TILES(QuinaryTraits);

}  // namespace ORV::TileTree3D
