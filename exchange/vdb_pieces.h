#pragma once

#include <openvdb/Grid.h>

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

// Grids as pieces of bytes, which other processes of the same program read.
namespace zel::detail {

/// Takes grids of floats or vectors apart: into pieces with the tiles and the leaves that differ
/// from the background.
class VdbPieces {
public:
    explicit VdbPieces(openvdb::GridPtrVec const& grids);
    VdbPieces(VdbPieces&&) noexcept;
    VdbPieces& operator=(VdbPieces&&) = delete;
    ~VdbPieces();

    /// The next piece, of about `bytes`; empty at the end.
    std::vector<std::byte> take(std::size_t bytes);

private:
    class Source;
    template <class Grid> class SourceOf;
    openvdb::GridPtrVec m_grids;
    std::size_t m_next = 0;            // the number of the grid in hand
    std::unique_ptr<Source> m_source;  // of this grid, once it is begun
};

/// Adds a piece to grids that were made by the same calls as those it is taken from.
void addVdbPiece(openvdb::GridPtrVec const& grids, std::span<std::byte const> piece);

/// Merges equal values to tiles, as far as possible.
void pruneGrids(openvdb::GridPtrVec const& grids);

}  // namespace zel::detail
