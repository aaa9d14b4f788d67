#include "vdb_pieces.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <type_traits>

namespace zel::detail {

namespace {

struct Head {
    std::uint32_t grid, tiles, leaves;
};

template <class Grid> struct TileRecord {
    std::int32_t x, y, z;
    std::uint32_t level, active;
    typename Grid::ValueType value;
};

/// Before the bytes of a leaf.
struct LeafRecord {
    std::int32_t x, y, z;
    std::uint32_t size;
};

/// Copies a record to the end of a piece.
template <class Record> void append(std::vector<std::byte>& piece, Record const& record) {
    auto const* const bytes = reinterpret_cast<std::byte const*>(&record);
    piece.insert(piece.end(), bytes, bytes + sizeof record);
}

[[noreturn]] void failCut() {
    throw std::invalid_argument("zel::VdbParts: a piece ends within a record");
}

/// Removes a record from the begin of a piece.
template <class Record> void remove(std::span<std::byte const>& piece, Record& record) {
    if (piece.size() < sizeof record) failCut();
    std::memcpy(static_cast<void*>(&record), piece.data(), sizeof record);
    piece = piece.subspan(sizeof record);
}

template <class Grid>
void addTo(Grid& grid, VdbLeaves& leaves, Head const& head, std::span<std::byte const> piece) {
    auto& tree = grid.tree();
    TileRecord<Grid> tile;
    for (std::uint32_t i = 0; i < head.tiles; ++i) {
        remove(piece, tile);
        tree.addTile(tile.level, {tile.x, tile.y, tile.z}, tile.value, tile.active != 0);
    }
    using Leaf = typename Grid::TreeType::LeafNodeType;
    typename Leaf::NodeMaskType mask;
    LeafRecord record;
    for (std::uint32_t i = 0; i < head.leaves; ++i) {
        remove(piece, record);
        if (record.size < sizeof mask || record.size > piece.size()) failCut();
        std::memcpy(static_cast<void*>(&mask), piece.data(), sizeof mask);
        auto leaf = std::make_unique<Leaf>(openvdb::PartialCreate(),
                                           openvdb::Coord(record.x, record.y, record.z));
        leaf->setValueMask(mask);
        leaf->setTransientData(leaves.add(piece.first(record.size)));
        tree.addLeaf(leaf.release());
        piece = piece.subspan(record.size);
    }
}

template <class Node> void pruneBelow(Node& node) {
    using Child = typename Node::ChildNodeType;
    for (auto child = node.beginChildOn(); child; ++child) {
        if constexpr (Child::LEVEL > 1) pruneBelow(*child);
        typename Node::ValueType value;
        bool isActive = false;
        if (!child->isConstant(value, isActive)) continue;
        openvdb::Coord const at = child.getCoord();
        node.addTile(Node::LEVEL, at, value, isActive);
    }
}

}  // namespace

class VdbPieces::Source {
public:
    virtual ~Source() = default;
    /// Appends tiles and leaves to a piece, up to about a size.
    virtual void take(std::vector<std::byte>& piece, std::size_t bytes, Head& head) = 0;
    virtual bool isEmpty() const = 0;
};

template <class Grid> class VdbPieces::SourceOf final : public Source {
public:
    SourceOf(Grid const& grid, VdbLeaves const& leaves) : m_bytes(leaves) {
        auto const& tree = grid.tree();
        auto tile = tree.cbeginValueAll();
        tile.setMaxDepth(tile.getLeafDepth() - 1);
        for (; tile; ++tile) {
            if (*tile == tree.background() && !tile.isValueOn()) continue;
            auto const at = tile.getCoord();
            m_tiles.push_back(
                {at.x(), at.y(), at.z(), tile.getLevel(), tile.isValueOn() ? 1U : 0U, *tile});
        }
        tree.getNodes(m_leaves);
    }

    void take(std::vector<std::byte>& piece, std::size_t bytes, Head& head) override {
        for (; m_tile < m_tiles.size() && piece.size() < bytes; ++m_tile, ++head.tiles)
            append(piece, m_tiles[m_tile]);
        for (; m_leaf < m_leaves.size() && piece.size() < bytes; ++m_leaf, ++head.leaves) {
            auto const& leaf = *m_leaves[m_leaf];
            auto const held = m_bytes.of(leaf);
            openvdb::Coord const& at = leaf.origin();
            append(piece,
                   LeafRecord{at.x(), at.y(), at.z(), static_cast<std::uint32_t>(held.size())});
            piece.insert(piece.end(), held.begin(), held.end());
        }
    }
    bool isEmpty() const override { return m_tile == m_tiles.size() && m_leaf == m_leaves.size(); }

private:
    VdbLeaves const& m_bytes;
    std::vector<TileRecord<Grid>> m_tiles;
    std::vector<typename Grid::TreeType::LeafNodeType const*> m_leaves;
    std::size_t m_tile = 0, m_leaf = 0;
};

VdbPieces::VdbPieces(openvdb::GridPtrVec const& grids, std::deque<VdbLeaves> const& leaves)
    : m_grids(grids), m_allLeaves(leaves) {}
VdbPieces::VdbPieces(VdbPieces&&) noexcept = default;
VdbPieces::~VdbPieces() = default;

std::vector<std::byte> VdbPieces::take(std::size_t bytes) {
    for (; m_next < m_grids.size(); ++m_next, m_source.reset()) {
        if (!m_source)
            withVdbType(*m_grids[m_next], [&]<class Grid>(Grid const& grid) {
                m_source = std::make_unique<SourceOf<Grid>>(grid, m_allLeaves[m_next]);
            });
        if (m_source->isEmpty()) continue;
        Head head{static_cast<std::uint32_t>(m_next), 0, 0};
        std::vector<std::byte> piece;
        // The last leaf, of up to 6.3 kB, may reach beyond.
        constexpr std::size_t kMost = std::size_t{1} << 24, kBeyond = 1 << 13;
        piece.reserve(std::min(bytes, kMost) + kBeyond);
        piece.resize(sizeof head);
        m_source->take(piece, bytes, head);
        std::memcpy(piece.data(), &head, sizeof head);
        return piece;
    }
    return {};
}

void addVdbPiece(openvdb::GridPtrVec const& grids, std::deque<VdbLeaves>& leaves,
                 std::span<std::byte const> piece) {
    Head head{};
    remove(piece, head);
    withVdbType(*grids.at(head.grid),
                [&](auto& grid) { addTo(grid, leaves[head.grid], head, piece); });
}

void pruneTiles(openvdb::GridPtrVec const& grids) {
    for (auto const& grid : grids)
        withVdbType(*grid, [](auto& typed) {
            pruneBelow(typed.tree().root());
            typed.tree().root().eraseBackgroundTiles();
        });
}

}  // namespace zel::detail
