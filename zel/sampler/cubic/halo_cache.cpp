#include "zel/sampler/cubic/halo_cache.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace ORV::TileTree3D::Internal {

template <class Traits, class T>
HaloTileCache<Traits, T>::HaloTileCache(long long size, Container<Traits> const& container) {
    if (size < 0)
        throw std::invalid_argument("VoxelSamplerCubic: cacheSize of " + std::to_string(size));
    // Room for more tiles than the tree has would stay unused.
    long long const count = std::min(size, container.tileCount(-1));
    m_samples = std::make_unique_for_overwrite<T[]>(static_cast<std::size_t>(count) *
                                                    HaloData::Layout::kCount);
    m_index.reserve(static_cast<std::size_t>(count));
    for (long long n = 0; n < count; ++n) {
        // The key of no tile, until one takes its place.
        TreeIndex const none{n, -1};
        m_entries.push_back({none, m_samples.get() + n * HaloData::Layout::kCount});
        m_index.emplace(none, std::prev(m_entries.end()));
    }
}

template <class Traits, class T>
T const* HaloTileCache<Traits, T>::halo(TreeIndex const& key, DataChannel<Traits, T> const& channel,
                                        typename Container<Traits>::ConstTileAccessor& accessor) {
    Entry const& newest = m_entries.front();
    if (newest.key == key) return newest.samples;
    if (auto const found = m_index.find(key); found != m_index.end()) {
        m_entries.splice(m_entries.begin(), m_entries, found->second);
        return m_entries.front().samples;
    }
    auto const oldest = std::prev(m_entries.end());
    HaloData data;
    data.setFlatPointer(oldest->samples);
    setHaloTile<Traits, T, 0, 1, 0, 1>(key, channel, 4, 15, accessor, data, T(), 1.0F,
                                       kOnVoxelCorners);
    auto node = m_index.extract(oldest->key);
    node.key() = oldest->key = key;
    m_index.insert(std::move(node));
    m_entries.splice(m_entries.begin(), m_entries, oldest);
    return oldest->samples;
}

ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_HALO_CACHE, );

}  // namespace ORV::TileTree3D::Internal
