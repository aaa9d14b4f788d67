#pragma once

#include <utility>

#include "zel_platform/orvane_geometry_volume/container.h"

namespace ORV::TileTree3D::Internal {

/// Removes, at the end of its life, all tiles that were added to a tree during its life, unless
/// keep() was called. The tree is then as it was before, its stamp included. A channel that was
/// sized to the removed tiles counts as sized to another tree, which has the remaining tiles in
/// common with this tree. References to removed tiles, and accessors that found them, become
/// invalid.
template <class Traits> class Rollback {
public:
    explicit Rollback(Container<Traits>& tree)
        : m_tree(tree), m_state(tree.m_state), m_counts(tree.tileCounts()),
          m_tables(tree.m_tables.size()) {
        m_state.drops.reserve(m_state.drops.size() + 1);
    }
    Rollback(Rollback const&) = delete;
    Rollback& operator=(Rollback const&) = delete;
    ~Rollback() {
        if (!m_kept) undo();
    }

    void keep() { m_kept = true; }

private:
    void undo() noexcept {
        for (auto& inner : m_tree.m_innerTiles) inner.clear();
        for (long long i = 0; i < m_tree.m_tables.size(); ++i) {
            auto& table = m_tree.m_tables[i];
            auto& owner = m_tree.level(table.depth)[table.owner];
            if (i >= m_tables) {
                owner.m_children = nullptr;
                continue;
            }
            for (std::int32_t& child : table.children)
                if (child >= m_counts[static_cast<unsigned>(table.depth) + 1]) child = -1;
            if (table.depth > 0)
                m_tree.innerTiles(table.depth)
                    .add(m_tree.hashOf(owner), static_cast<std::int32_t>(i));
        }
        m_tree.m_tables.truncate(m_tables);
        for (unsigned d = 0; d < m_counts.size(); ++d) m_tree.m_levels[d].truncate(m_counts[d]);
        auto const end = m_tree.m_state.stamp;
        m_tree.m_state = std::move(m_state);
        auto const& [tree, version] = m_tree.m_state.stamp;
        if (end == m_tree.m_state.stamp) return;
        // A copy of a tree became a tree of its own with the first tile that was added.
        TreeStamp const start{end.tree, end.tree == tree ? version : 0};
        auto& drops = m_tree.m_state.drops;
        if (!drops.empty() && drops.back().start == start)
            drops.back().end = end.version;
        else
            drops.push_back({start, end.version, m_counts});  // the constructor reserved room
    }

    Container<Traits>& m_tree;
    typename Container<Traits>::State m_state;
    typename Container<Traits>::TileCounts const m_counts;
    long long const m_tables;
    bool m_kept = false;
};

}  // namespace ORV::TileTree3D::Internal
