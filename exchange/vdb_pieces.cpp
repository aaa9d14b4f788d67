#include "vdb_pieces.h"

#include <openvdb/openvdb.h>

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

template <class Grid> struct LeafRecord {
    using Leaf = typename Grid::TreeType::LeafNodeType;

    std::int32_t x, y, z;
    typename Leaf::NodeMaskType mask;
    typename Grid::ValueType values[Leaf::SIZE];
};

/// Copies a record to the end of a piece.
template <class Record> void append(std::vector<std::byte>& piece, Record const& record) {
    auto const* const bytes = reinterpret_cast<std::byte const*>(&record);
    piece.insert(piece.end(), bytes, bytes + sizeof record);
}

/// Removes a record from the begin of a piece.
template <class Record> void remove(std::span<std::byte const>& piece, Record& record) {
    if (piece.size() < sizeof record)
        throw std::invalid_argument("zel::VdbParts: a piece ends within a record");
    std::memcpy(static_cast<void*>(&record), piece.data(), sizeof record);
    piece = piece.subspan(sizeof record);
}

template <class Grid> void addTo(Grid& grid, Head const& head, std::span<std::byte const> piece) {
    auto& tree = grid.tree();
    TileRecord<Grid> tile;
    for (std::uint32_t i = 0; i < head.tiles; ++i) {
        remove(piece, tile);
        tree.addTile(tile.level, {tile.x, tile.y, tile.z}, tile.value, tile.active != 0);
    }
    auto const record = std::make_unique<LeafRecord<Grid>>();
    for (std::uint32_t i = 0; i < head.leaves; ++i) {
        remove(piece, *record);
        using Leaf = typename LeafRecord<Grid>::Leaf;
        auto leaf = std::make_unique<Leaf>(openvdb::Coord(record->x, record->y, record->z));
        std::copy_n(record->values, std::size_t{Leaf::SIZE}, leaf->buffer().data());
        leaf->setValueMask(record->mask);
        tree.addLeaf(leaf.release());
    }
}

/// Calls use(grid) with the grid as its own type.
template <class Use> void withType(openvdb::GridBase& grid, Use const& use) {
    if (grid.isType<openvdb::FloatGrid>())
        use(static_cast<openvdb::FloatGrid&>(grid));
    else
        use(dynamic_cast<openvdb::Vec3SGrid&>(grid));
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
    explicit SourceOf(Grid const& grid) {
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
        auto const record = std::make_unique<LeafRecord<Grid>>();
        for (; m_leaf < m_leaves.size() && piece.size() < bytes; ++m_leaf, ++head.leaves) {
            auto const& leaf = *m_leaves[m_leaf];
            record->x = leaf.origin().x();
            record->y = leaf.origin().y();
            record->z = leaf.origin().z();
            record->mask = leaf.valueMask();
            std::copy_n(leaf.buffer().data(), std::size_t{leaf.SIZE}, record->values);
            append(piece, *record);
        }
    }
    bool isEmpty() const override { return m_tile == m_tiles.size() && m_leaf == m_leaves.size(); }

private:
    std::vector<TileRecord<Grid>> m_tiles;
    std::vector<typename Grid::TreeType::LeafNodeType const*> m_leaves;
    std::size_t m_tile = 0, m_leaf = 0;
};

VdbPieces::VdbPieces(openvdb::GridPtrVec const& grids) : m_grids(grids) {}
VdbPieces::VdbPieces(VdbPieces&&) noexcept = default;
VdbPieces::~VdbPieces() = default;

std::vector<std::byte> VdbPieces::take(std::size_t bytes) {
    for (; m_next < m_grids.size(); ++m_next, m_source.reset()) {
        if (!m_source)
            withType(*m_grids[m_next], [&]<class Grid>(Grid const& grid) {
                m_source = std::make_unique<SourceOf<Grid>>(grid);
            });
        if (m_source->isEmpty()) continue;
        Head head{static_cast<std::uint32_t>(m_next), 0, 0};
        std::vector<std::byte> piece(sizeof head);
        m_source->take(piece, bytes, head);
        std::memcpy(piece.data(), &head, sizeof head);
        return piece;
    }
    return {};
}

void addVdbPiece(openvdb::GridPtrVec const& grids, std::span<std::byte const> piece) {
    Head head{};
    remove(piece, head);
    withType(*grids.at(head.grid), [&](auto& grid) { addTo(grid, head, piece); });
}

void pruneGrids(openvdb::GridPtrVec const& grids) {
    for (auto const& grid : grids) withType(*grid, [](auto& typed) { typed.tree().prune(); });
}

}  // namespace zel::detail
