#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ORV::TileTree3D::Internal {

/// The tiles of one depth that have children, by their place on the lattice: a table of open
/// addresses, at most half full. It holds the tiles' indices alone, 4 bytes each, and leaves the
/// comparison to the tiles themselves.
class InnerTileIndex {
public:
    static std::size_t hash(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
        std::uint64_t h = x * std::uint64_t{0x9e3779b97f4a7c15};
        h ^= y * std::uint64_t{0xc2b2ae3d27d4eb4f};
        h ^= z * std::uint64_t{0x165667b19e3779f9};
        return h ^ (h >> 32);
    }

    /// Makes room for one more, so that adding it cannot fail; `hashOf` gives the hash of a tile.
    template <class HashOf> void reserveOne(HashOf const& hashOf) {
        if (2 * (m_count + 1) <= m_slots.size()) return;
        std::vector<std::int32_t> slots(m_slots.empty() ? 8 : 2 * m_slots.size(), -1);
        slots.swap(m_slots);
        for (std::int32_t const tile : slots)
            if (tile >= 0) put(hashOf(tile), tile);
    }
    void add(std::size_t hash, std::int32_t tile) {
        put(hash, tile);
        ++m_count;
    }
    /// The tile of that hash for which `matches` is true, or -1.
    template <class Matches> std::int32_t find(std::size_t hash, Matches const& matches) const {
        if (m_count == 0) return -1;
        for (std::size_t at = hash & mask();; at = (at + 1) & mask())
            if (m_slots[at] < 0 || matches(m_slots[at])) return m_slots[at];
    }
    void clear() {
        m_slots.assign(m_slots.size(), -1);
        m_count = 0;
    }
    std::size_t bytes() const { return m_slots.size() * sizeof(std::int32_t); }

private:
    std::size_t mask() const { return m_slots.size() - 1; }
    void put(std::size_t hash, std::int32_t tile) {
        std::size_t at = hash & mask();
        while (m_slots[at] >= 0) at = (at + 1) & mask();
        m_slots[at] = tile;
    }

    std::vector<std::int32_t> m_slots;
    std::size_t m_count = 0;
};

}  // namespace ORV::TileTree3D::Internal
