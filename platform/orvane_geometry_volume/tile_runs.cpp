#include <algorithm>

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

#define ZEL_DETAIL_FIND_TILES(Traits)                                                              \
    template int Container<Traits>::findTiles(int, std::uint32_t const*, std::uint32_t const*,     \
                                              std::uint32_t const*, int, TileRun*) const
ZEL_DETAIL_FIND_TILES(BinaryTraits);
ZEL_DETAIL_FIND_TILES(QuinaryTraits);

}  // namespace ORV::TileTree3D
