#include "zel/sampler/cubic/halo_cache.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <stdexcept>
#include <string>

namespace ORV::TileTree3D::Internal {

template <class Traits, class T>
HaloTileCache<Traits, T>::HaloTileCache(long long size, Container<Traits> const& container) {
    if (size < 0)
        throw std::invalid_argument("VoxelSamplerCubic: cacheSize of " + std::to_string(size));
    // More slots than tiles would stay unused.
    long long const slots = std::min(size, container.tileCount(-1));
    if (slots > std::numeric_limits<std::int32_t>::max())
        throw std::length_error("VoxelSamplerCubic: cacheSize of " + std::to_string(size));
    if (slots == 0) return;
    auto const count = static_cast<std::size_t>(slots);
    m_tiles = std::make_unique_for_overwrite<T[]>(count * HaloData::Layout::kCount);
    m_entries.resize(count);
    m_index.assign(std::bit_ceil(count), kNone);
}

template <class Traits, class T>
T const* HaloTileCache<Traits, T>::halo(TreeIndex const& key, DataChannel<Traits, T> const& channel,
                                        typename Container<Traits>::ConstTileAccessor& accessor) {
    if (m_newest != kNone && entry(m_newest).key == key) return tile(m_newest);
    std::int32_t slot = find(key);
    if (slot == kNone) {
        slot = freeSlot();
        HaloData data;
        data.setFlatPointer(tile(slot));
        setHaloTile<Traits, T, 0, 1, 0, 1>(key, channel, 4, 15, accessor, data, T(), 1.0F, 7);
        entry(slot).key = key;
        std::int32_t& first = chainOf(key);
        entry(slot).chain = first;
        first = slot;
    } else {
        unlink(slot);
    }
    makeNewest(slot);
    return tile(slot);
}

template <class Traits, class T>
std::int32_t& HaloTileCache<Traits, T>::chainOf(TreeIndex const& key) {
    auto const hash =
        (static_cast<std::uint64_t>(key.tile) * 32 + static_cast<std::uint64_t>(key.depth)) *
        0x9E3779B97F4A7C15U;
    return m_index[static_cast<std::size_t>(hash >> 32) & (m_index.size() - 1)];
}

template <class Traits, class T> std::int32_t HaloTileCache<Traits, T>::find(TreeIndex const& key) {
    std::int32_t slot = chainOf(key);
    while (slot != kNone && !(entry(slot).key == key)) slot = entry(slot).chain;
    return slot;
}

/// A slot that is in no list: a new one, or the one that was used longest ago.
template <class Traits, class T> std::int32_t HaloTileCache<Traits, T>::freeSlot() {
    if (static_cast<std::size_t>(m_used) < m_entries.size()) return m_used++;
    std::int32_t const slot = m_oldest;
    unlink(slot);
    std::int32_t* link = &chainOf(entry(slot).key);
    while (*link != slot) link = &entry(*link).chain;
    *link = entry(slot).chain;
    return slot;
}

template <class Traits, class T> void HaloTileCache<Traits, T>::unlink(std::int32_t slot) {
    Entry const& e = entry(slot);
    (e.newer == kNone ? m_newest : entry(e.newer).older) = e.older;
    (e.older == kNone ? m_oldest : entry(e.older).newer) = e.newer;
}

template <class Traits, class T> void HaloTileCache<Traits, T>::makeNewest(std::int32_t slot) {
    entry(slot).newer = kNone;
    entry(slot).older = m_newest;
    (m_newest == kNone ? m_oldest : entry(m_newest).newer) = slot;
    m_newest = slot;
}

template class HaloTileCache<BinaryTraits, float>;
template class HaloTileCache<BinaryTraits, float3>;
template class HaloTileCache<QuinaryTraits, float>;
template class HaloTileCache<QuinaryTraits, float3>;

}  // namespace ORV::TileTree3D::Internal
