#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "zel_platform/orvane_geometry_volume/halo.h"

namespace ORV::TileTree3D::Internal {

/// The halo tiles that were used last, as many as there is room for. All memory is taken at
/// construction.
template <class Traits, class T> class HaloTileCache {
public:
    /// For `size` tiles, or as many as the tree has if these are fewer. Throws
    /// std::invalid_argument for a negative size and std::length_error for one that cannot be held,
    /// and std::bad_alloc.
    HaloTileCache(long long size, Container<Traits> const& container);

    /// Whether there is room for a tile.
    bool enabled() const { return !m_entries.empty(); }

    /// The finished halo of a tile, from (-1, -1, -1) on; valid until the next call.
    T const* halo(TreeIndex const& key, DataChannel<Traits, T> const& channel,
                  typename Container<Traits>::ConstTileAccessor& accessor);

private:
    using HaloData = TileData<T, Traits::kSamples + 1, 1, 0>;
    static constexpr std::int32_t kNone = -1;

    /// A slot: its key, its neighbours in the order of use, and the next slot of its chain in the
    /// index.
    struct Entry {
        TreeIndex key;
        std::int32_t newer = kNone, older = kNone, chain = kNone;
    };

    std::int32_t& chainOf(TreeIndex const& key);
    std::int32_t find(TreeIndex const& key);
    std::int32_t freeSlot();
    void unlink(std::int32_t slot);
    void makeNewest(std::int32_t slot);
    Entry& entry(std::int32_t slot) { return m_entries[static_cast<std::size_t>(slot)]; }
    T* tile(std::int32_t slot) {
        return m_tiles.get() +
               std::size_t{HaloData::Layout::kCount} * static_cast<std::size_t>(slot);
    }

    std::unique_ptr<T[]> m_tiles;
    std::vector<Entry> m_entries;
    std::vector<std::int32_t> m_index;  ///< by hash, a power of two, the first slot of a chain
    std::int32_t m_used = 0, m_newest = kNone, m_oldest = kNone;
};

}  // namespace ORV::TileTree3D::Internal
