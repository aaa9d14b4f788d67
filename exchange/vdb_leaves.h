#pragma once

#include <openvdb/openvdb.h>

#include <cstddef>
#include <deque>
#include <ostream>
#include <span>
#include <vector>

// Grids whose leaves are compressed before they are written: on all threads, or in the process that
// made them.
namespace zel::detail {

/// The leaves of a grid as they stand in a file. Each is known by its number, which the leaf of the
/// grid has as its transient data; there it has the mask of its active voxels, and no values.
class VdbLeaves {
public:
    /// Compresses the leaves of a grid, and takes their values from it.
    VdbLeaves(openvdb::GridBase& grid, bool parallel);
    VdbLeaves(VdbLeaves const&) = delete;
    VdbLeaves& operator=(VdbLeaves const&) = delete;

    /// Copies one more leaf, and returns its number.
    openvdb::Index32 add(std::span<std::byte const> leaf) {
        m_leaves.emplace_back(leaf.begin(), leaf.end());
        return static_cast<openvdb::Index32>(m_leaves.size() - 1);
    }
    template <class Leaf> std::span<std::byte const> of(Leaf const& leaf) const {
        return m_leaves[leaf.transientData()];
    }

private:
    // Each by itself fits into the memory of the values that were taken.
    std::vector<std::vector<std::byte>> m_leaves;
};

/// Calls use(grid) with the grid as its own type: of floats or vectors.
template <class Use> void withVdbType(openvdb::GridBase& grid, Use const& use) {
    if (grid.isType<openvdb::FloatGrid>())
        use(static_cast<openvdb::FloatGrid&>(grid));
    else
        use(dynamic_cast<openvdb::Vec3SGrid&>(grid));
}

/// Writes a file as openvdb::io::File does.
void writeVdbFile(std::ostream& stream, openvdb::GridPtrVec const& grids,
                  std::deque<VdbLeaves> const& leaves, openvdb::MetaMap const& metadata);

}  // namespace zel::detail
