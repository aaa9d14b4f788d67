#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>

#include "zel/sampler/common/instances.h"
#include "zel_platform/orvane_geometry_volume/halo.h"

namespace ORV::TileTree3D::Internal {

/// The halo tiles that were used last. All memory is allocated at construction: a new tile takes
/// the list entry and the map node of the tile that was used longest ago.
template <class Traits, class T> class HaloTileCache {
public:
    /// For `size` tiles, or as many as the tree has if these are fewer. Throws
    /// std::invalid_argument for a negative size, and std::bad_alloc.
    HaloTileCache(long long size, Container<Traits> const& container);

    /// Whether there is room for a tile.
    bool enabled() const { return !m_entries.empty(); }

    /// The finished halo of a tile, from (-1, -1, -1) on; valid until the next call.
    T const* halo(TreeIndex const& key, DataChannel<Traits, T> const& channel,
                  typename Container<Traits>::ConstTileAccessor& accessor);

private:
    using HaloData = TileData<T, Traits::kSamples + 1, 1, 0>;
    struct Entry {
        TreeIndex key;
        T* samples;
    };
    using Entries = std::list<Entry>;
    struct Hash {
        std::size_t operator()(TreeIndex const& key) const {
            return (static_cast<std::uint64_t>(key.tile) * 32 +
                    static_cast<std::uint64_t>(key.depth)) *
                   0x9E3779B97F4A7C15U;
        }
    };

    std::unique_ptr<T[]> m_samples;
    Entries m_entries;  ///< the one used last first
    std::unordered_map<TreeIndex, typename Entries::iterator, Hash> m_index;
};

#define ZEL_DETAIL_HALO_CACHE(prefix, Traits, T) prefix template class HaloTileCache<Traits, T>
ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_HALO_CACHE, extern);

}  // namespace ORV::TileTree3D::Internal
