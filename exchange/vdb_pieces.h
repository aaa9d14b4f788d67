#pragma once

#include <openvdb/openvdb.h>

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

#include "vdb_leaves.h"

// Grids as pieces of bytes, which other processes of the same program read.
namespace zel::detail {

/// Takes grids of floats or vectors apart: into pieces with the tiles and the leaves that differ
/// from the background.
class VdbPieces {
public:
    /// Keeps a reference to the leaves.
    VdbPieces(openvdb::GridPtrVec const& grids, std::deque<VdbLeaves> const& leaves);
    VdbPieces(VdbPieces&&) noexcept;
    VdbPieces& operator=(VdbPieces&&) = delete;
    ~VdbPieces();

    /// The next piece, of about `bytes`; empty at the end.
    std::vector<std::byte> take(std::size_t bytes);

private:
    class Source;
    template <class Grid> class SourceOf;
    openvdb::GridPtrVec m_grids;
    std::deque<VdbLeaves> const& m_allLeaves;
    std::size_t m_next = 0;            // the number of the grid in hand
    std::unique_ptr<Source> m_source;  // of this grid, once it is begun
};

/// Adds a piece to grids that were made by the same calls as those it is taken from.
void addVdbPiece(openvdb::GridPtrVec const& grids, std::deque<VdbLeaves>& leaves,
                 std::span<std::byte const> piece);

/// Merges tiles of equal values, as far as possible.
void pruneTiles(openvdb::GridPtrVec const& grids);

}  // namespace zel::detail
